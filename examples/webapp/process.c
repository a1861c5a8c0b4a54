/* The start and stop of the library shared by both programs, and their private log file. */
#include "process.h"

#include "channel.h"
#include "worker/libqxss.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static FILE *logFile;
static char const *logProgram;

/* Writes one statement of the library with every control character but its final line end
 * escaped (and the escape character itself), since provider answers are logged as they came
 * and a line break in one could otherwise forge log lines. */
static void toLogFile(char const *text, void *context) {
    (void)context;
    size_t length = strlen(text);
    int ended = length > 0 && text[length - 1] == '\n';
    char *line = malloc(length * 4 + 2);
    if (line == NULL) {
        fprintf(logFile, "%s: a log statement was lost (out of memory)\n", logProgram);
        fflush(logFile);
        return;
    }
    char *out = line;
    for (size_t i = 0; i < length - (size_t)ended; ++i) {
        unsigned char byte = (unsigned char)text[i];
        if (byte == '\\') {
            *out++ = '\\';
            *out++ = '\\';
        } else if (byte < 0x20 || byte == 0x7f) {
            out += sprintf(out, "\\x%02x", byte);
        } else {
            *out++ = (char)byte;
        }
    }
    *out++ = '\n';
    *out = '\0';
    /* One call per statement: stdio's lock keeps statements of two threads apart. */
    fputs(line, logFile);
    fflush(logFile);
    free(line);
}

/* Opens the log for appending: created private, never through a symbolic link, never handed
 * to a child process, and made private if it was not. */
static FILE *openLog(char const *path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || fchmod(fd, 0600) != 0) {
        perror(path);
        if (fd >= 0) {
            close(fd);
        }
        return NULL;
    }
    FILE *file = fdopen(fd, "a");
    if (file == NULL) {
        perror(path);
        close(fd);
    }
    return file;
}

int processLogStart(char const *path, char const *program) {
    logProgram = program;
    logFile = openLog(path);
    if (logFile == NULL) {
        return -1;
    }
    SsoSetLogCallback(toLogFile, NULL);
    return 0;
}

void processLogStop(void) {
    if (logFile) {
        SsoSetLogCallback(NULL, NULL);
        fclose(logFile);
        logFile = NULL;
    }
}

void processBlockStopSignals(sigset_t *stop) {
    sigemptyset(stop);
    sigaddset(stop, SIGINT);
    sigaddset(stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, stop, NULL);
}

int processStartLibrary(char const *logPath, char const *program, sigset_t *stop, char **loaded) {
    if (logPath && processLogStart(logPath, program) != 0) {
        return -1;
    }
    processBlockStopSignals(stop);
    if (channelStart() != 0) {
        processLogStop();
        return -1;
    }
    /* Loading fetches every provider's metadata, which may take a while. */
    *loaded = channelRequest("SSO_LOAD_CONFIGS", "", 60000);
    return 0;
}

void processStopLibrary(void) {
    channelStop();
    processLogStop();
}
