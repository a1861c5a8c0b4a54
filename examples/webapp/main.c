/* qxss-webapp: a small web application that signs people in through libqxss, as a server
 * product with a web front would embed it.
 *
 *   qxss-webapp [--address 127.0.0.1] [--port 8080] [--timeout-ms 10000] [--log FILE]
 *               [--node-service URL --node-secret-file FILE]
 *
 * The library reads its configuration file (sso.cfg) from its configuration directory; each
 * entry's first redirect URI must be this application's "/cb" on the address and port it
 * listens on. Prints "qxss-webapp: listening on http://<address>:<port>/" when it serves, and
 * stops on SIGINT or SIGTERM. The library's log goes to syslog, or to FILE with --log: it holds
 * codes and tokens in the clear, so keep it private. With --node-service, the page "/node" lets
 * a signed-in user be confirmed by the node-role service at URL (qxss-node-service), which
 * shares the secret in FILE with this application. */
#include "channel.h"
#include "node.h"
#include "web.h"
#include "worker/libqxss.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static FILE *logFile;

static void toLogFile(char const *text, void *context) {
    (void)context;
    fputs(text, logFile);
    fflush(logFile);
}

static int usage(char const *program) {
    fprintf(stderr,
            "usage: %s [--address IPv4] [--port N] [--timeout-ms N] [--log FILE]\n"
            "          [--node-service URL --node-secret-file FILE]\n",
            program);
    return 2;
}

int main(int argc, char **argv) {
    char const *address = "127.0.0.1";
    int port = 8080;
    int timeoutMs = 10000;
    char const *logPath = NULL;
    char const *nodeService = NULL;
    char const *nodeSecretFile = NULL;
    for (int i = 1; i < argc; ++i) {
        char const *value = i + 1 < argc ? argv[i + 1] : NULL;
        if (value == NULL) {
            return usage(argv[0]);
        } else if (strcmp(argv[i], "--address") == 0) {
            address = value;
        } else if (strcmp(argv[i], "--port") == 0) {
            port = atoi(value);
        } else if (strcmp(argv[i], "--timeout-ms") == 0) {
            timeoutMs = atoi(value);
        } else if (strcmp(argv[i], "--log") == 0) {
            logPath = value;
        } else if (strcmp(argv[i], "--node-service") == 0) {
            nodeService = value;
        } else if (strcmp(argv[i], "--node-secret-file") == 0) {
            nodeSecretFile = value;
        } else {
            return usage(argv[0]);
        }
        ++i;
    }
    if (port < 0 || port > 65535 || timeoutMs <= 0 ||
        (nodeService == NULL) != (nodeSecretFile == NULL)) {
        return usage(argv[0]);
    }
    if (nodeService && nodeConfigure(nodeService, nodeSecretFile) != 0) {
        return 1;
    }
    if (logPath) {
        logFile = fopen(logPath, "w");
        if (logFile == NULL) {
            perror(logPath);
            return 1;
        }
        SsoSetLogCallback(toLogFile, NULL);
    }

    /* Every thread started from here on leaves the stop signals to sigwait below. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    int status = 1;
    if (channelStart() != 0) {
        goto closeLog;
    }
    /* Loading fetches every provider's metadata, which may take a while. */
    char *loaded = channelRequest("SSO_LOAD_CONFIGS", "", 60000);
    if (loaded == NULL || strcmp(loaded, "SSO_LOAD_CONFIGS_OK") != 0) {
        fprintf(stderr, "qxss-webapp: the library did not load its configuration: %s\n",
                loaded ? loaded : "no answer");
        free(loaded);
        goto stopChannel;
    }
    free(loaded);
    int bound = webStart(address, port, timeoutMs);
    if (bound < 0) {
        goto stopChannel;
    }
    printf("qxss-webapp: listening on http://%s:%d/\n", address, bound);
    fflush(stdout);
    int signal;
    sigwait(&stop, &signal);
    webStop();
    status = 0;
stopChannel:
    channelStop();
closeLog:
    if (logFile) {
        SsoSetLogCallback(NULL, NULL);
        fclose(logFile);
    }
    return status;
}
