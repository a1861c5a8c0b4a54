/* The shared channel: one writer lock, one reader thread, and a list of requests waiting for
 * their replies. */
#include "channel.h"

#include "worker/libqxss.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

struct Waiter {
    char *command; /* the command's name, "SSO_VERIFY" */
    char const *key;
    char *reply;
    pthread_cond_t arrived;
    struct Waiter *next;
};

static int hostFd = -1;
static int libraryFd = -1;
static pthread_t reader;
static pthread_mutex_t writeLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t waitLock = PTHREAD_MUTEX_INITIALIZER;
static struct Waiter *waiters;
static int closed;

/* The command that a reply answers: its name without "_OK" or "_FAILURE". A failed metadata
 * fetch is the one reply whose name is not its command's. */
static char *answeredCommand(char const *line) {
    size_t length = strcspn(line, "|");
    static char const *const endings[] = {"_OK", "_FAILURE"};
    for (size_t i = 0; i < 2; ++i) {
        size_t ending = strlen(endings[i]);
        if (length > ending && strncmp(line + length - ending, endings[i], ending) == 0) {
            if (strncmp(line, "SSO_LOAD_METADATA_FAILURE", length) == 0) {
                return strdup("SSO_LOAD_CONFIGS");
            }
            return strndup(line, length - ending);
        }
    }
    return NULL;
}

static void deliver(char *line) {
    if (line == NULL) {
        return; /* out of memory: its request runs into its timeout */
    }
    char *command = answeredCommand(line);
    char const *bar = strrchr(line, '|');
    char const *key = bar ? bar + 1 : "";
    pthread_mutex_lock(&waitLock);
    struct Waiter *waiter = waiters;
    while (waiter && (command == NULL || strcmp(waiter->command, command) != 0 ||
                      strcmp(waiter->key, key) != 0 || waiter->reply != NULL)) {
        waiter = waiter->next;
    }
    if (waiter) {
        waiter->reply = line;
        line = NULL;
        pthread_cond_signal(&waiter->arrived);
    }
    pthread_mutex_unlock(&waitLock);
    /* A reply nobody waits for any more (its request timed out) is dropped. */
    free(line);
    free(command);
}

static void *readReplies(void *unused) {
    (void)unused;
    size_t size = 4096;
    size_t used = 0;
    char *buffer = malloc(size);
    while (buffer != NULL) {
        if (used + 1024 > size) {
            char *grown = realloc(buffer, size * 2);
            if (grown == NULL) {
                /* The line under way is lost and its request runs into its timeout; the
                 * rest of the channel goes on. */
                used = 0;
                continue;
            }
            buffer = grown;
            size *= 2;
        }
        ssize_t got = read(hostFd, buffer + used, size - used - 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        used += (size_t)got;
        char *start = buffer;
        char *end;
        while ((end = memchr(start, '\n', used - (size_t)(start - buffer))) != NULL) {
            deliver(strndup(start, (size_t)(end - start)));
            start = end + 1;
        }
        used -= (size_t)(start - buffer);
        memmove(buffer, start, used);
    }
    free(buffer);
    pthread_mutex_lock(&waitLock);
    closed = 1;
    for (struct Waiter *waiter = waiters; waiter; waiter = waiter->next) {
        pthread_cond_signal(&waiter->arrived);
    }
    pthread_mutex_unlock(&waitLock);
    return NULL;
}

int channelStart(void) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        perror("socketpair");
        return -1;
    }
    hostFd = fds[0];
    libraryFd = fds[1];
    if (SsoInitialize(libraryFd) != 0) {
        fprintf(stderr, "qxss-webapp: the library's worker did not start (see its log)\n");
        close(hostFd);
        close(libraryFd);
        return -1;
    }
    if (pthread_create(&reader, NULL, readReplies, NULL) != 0) {
        fprintf(stderr, "qxss-webapp: can't start the reply reader\n");
        SsoDestroy();
        close(hostFd);
        close(libraryFd);
        return -1;
    }
    return 0;
}

void channelStop(void) {
    SsoDestroy();
    shutdown(hostFd, SHUT_RDWR);
    pthread_join(reader, NULL);
    close(hostFd);
    close(libraryFd);
}

static int sendLine(char const *command) {
    size_t length = strlen(command);
    char *line = malloc(length + 2);
    if (line == NULL) {
        return 0;
    }
    memcpy(line, command, length);
    line[length++] = '\n';
    line[length] = '\0';
    int ok = 1;
    pthread_mutex_lock(&writeLock);
    for (size_t sent = 0; ok && sent < length;) {
        ssize_t wrote = send(hostFd, line + sent, length - sent, MSG_NOSIGNAL);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        ok = wrote > 0;
        sent += ok ? (size_t)wrote : 0;
    }
    pthread_mutex_unlock(&writeLock);
    free(line);
    return ok;
}

static void forget(struct Waiter *gone) {
    for (struct Waiter **link = &waiters; *link; link = &(*link)->next) {
        if (*link == gone) {
            *link = gone->next;
            return;
        }
    }
}

char *channelRequest(char const *command, char const *key, int timeoutMs) {
    struct Waiter waiter = {strndup(command, strcspn(command, "|")), key, NULL,
                            PTHREAD_COND_INITIALIZER, NULL};
    if (waiter.command == NULL) {
        return NULL;
    }
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&waiter.arrived, &attributes);
    pthread_condattr_destroy(&attributes);

    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += (long)(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }

    pthread_mutex_lock(&waitLock);
    int busy = closed;
    for (struct Waiter *other = waiters; other && !busy; other = other->next) {
        busy = strcmp(other->command, waiter.command) == 0 && strcmp(other->key, key) == 0;
    }
    if (!busy) {
        /* Listed before the command goes out, so that no reply can come first. */
        waiter.next = waiters;
        waiters = &waiter;
    }
    pthread_mutex_unlock(&waitLock);

    if (!busy && sendLine(command)) {
        pthread_mutex_lock(&waitLock);
        while (waiter.reply == NULL && !closed &&
               pthread_cond_timedwait(&waiter.arrived, &waitLock, &deadline) == 0) {
        }
        pthread_mutex_unlock(&waitLock);
    }
    if (!busy) {
        pthread_mutex_lock(&waitLock);
        forget(&waiter);
        pthread_mutex_unlock(&waitLock);
    }
    pthread_cond_destroy(&waiter.arrived);
    free(waiter.command);
    return waiter.reply;
}
