/* qxss-webapp: a small web application that signs people in through libqxss, as a server
 * product with a web front would embed it. See usage() for the options.
 *
 * The library reads its configuration file (sso.cfg) from its configuration directory; each
 * entry's first redirect URI must be this application's "/cb" as the browsers reach it. Prints
 * "qxss-webapp: listening on <origin>/" when it serves, and stops on SIGINT or SIGTERM. The
 * library's log goes to syslog, or to FILE with --log: it holds client secrets, codes and
 * tokens in the clear, so the file is made readable by its owner alone. With --node-service,
 * the page "/node" lets a signed-in user be confirmed by the node-role service at URL
 * (qxss-node-service), which shares the secret in FILE with this application. */
#include "node.h"
#include "process.h"
#include "store.h"
#include "web.h"
#include "worker/libqxss.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int usage(char const *program) {
    fprintf(stderr,
            "usage: %s [--address IPv4] [--port N] [--timeout-ms N] [--log FILE]\n"
            "       [--https CERT KEY] [--public-origin URL] [--trusted-proxy ADDR]\n"
            "       [--session-lifetime SECONDS] [--logins-per-minute N] [--max-pending N]\n"
            "       [--pending-lifetime SECONDS] [--max-connections N] [--max-per-address N]\n"
            "       [--node-service URL --node-secret-file FILE]\n"
            "  --https CERT KEY       serve TLS with these PEM files; cookies become\n"
            "                         Secure and __Host- prefixed\n"
            "  --public-origin URL    the origin browsers see (https://sso.example.com:8443)\n"
            "                         when a load balancer stands in front; forms are obeyed\n"
            "                         only from it, and an https origin makes cookies Secure\n"
            "  --trusted-proxy ADDR   the balancer's address: only from it is X-Forwarded-For\n"
            "                         believed, and its last entry is the client\n"
            "  --node-service URL     the node-role service that the page /node asks to\n"
            "                         confirm the signed-in user; --node-secret-file FILE\n"
            "                         holds the secret shared with it\n"
            "  /healthz answers 200 while the library's worker answers, else 503\n",
            program);
    return 2;
}

/* Reads a whole number from `low` to `high` into `out`. 1 when it was one. */
static int number(char const *text, long low, long high, int *out) {
    char *end;
    long value = strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < low || value > high) {
        return 0;
    }
    *out = (int)value;
    return 1;
}

/* What the command line chose. */
struct Options {
    struct WebSettings settings;
    int maxPending;
    int pendingLifetime;
    char const *logPath;
    char const *nodeService;
    char const *nodeSecretFile;
};

/* Reads the command line into `options`, over its defaults. 1 when every option was known and
   had a good value. */
static int parseOptions(int argc, char **argv, struct Options *options) {
    struct WebSettings *settings = &options->settings;
    for (int i = 1; i < argc; ++i) {
        char const *value = i + 1 < argc ? argv[i + 1] : NULL;
        int ok = value != NULL;
        if (!ok) {
        } else if (strcmp(argv[i], "--address") == 0) {
            settings->address = value;
        } else if (strcmp(argv[i], "--port") == 0) {
            ok = number(value, 0, 65535, &settings->port);
        } else if (strcmp(argv[i], "--timeout-ms") == 0) {
            ok = number(value, 1, 3600000, &settings->timeoutMs);
        } else if (strcmp(argv[i], "--log") == 0) {
            options->logPath = value;
        } else if (strcmp(argv[i], "--https") == 0) {
            ok = i + 2 < argc;
            settings->certificateFile = value;
            settings->keyFile = ok ? argv[++i + 1] : NULL;
        } else if (strcmp(argv[i], "--public-origin") == 0) {
            settings->publicOrigin = value;
        } else if (strcmp(argv[i], "--trusted-proxy") == 0) {
            settings->trustedProxy = value;
        } else if (strcmp(argv[i], "--session-lifetime") == 0) {
            ok = number(value, 1, 30L * 86400, &settings->sessionLifetime);
        } else if (strcmp(argv[i], "--logins-per-minute") == 0) {
            ok = number(value, 1, 100000, &settings->loginsPerMinute);
        } else if (strcmp(argv[i], "--max-pending") == 0) {
            ok = number(value, 1, 1000000, &options->maxPending);
        } else if (strcmp(argv[i], "--pending-lifetime") == 0) {
            ok = number(value, 1, 86400, &options->pendingLifetime);
        } else if (strcmp(argv[i], "--max-connections") == 0) {
            ok = number(value, 1, 100000, &settings->maxConnections);
        } else if (strcmp(argv[i], "--max-per-address") == 0) {
            ok = number(value, 0, 100000, &settings->maxPerAddress);
        } else if (strcmp(argv[i], "--node-service") == 0) {
            options->nodeService = value;
        } else if (strcmp(argv[i], "--node-secret-file") == 0) {
            options->nodeSecretFile = value;
        } else {
            ok = 0;
        }
        if (!ok) {
            return 0;
        }
        ++i;
    }
    /* The node service needs its secret, and the secret is for nothing else. */
    return (options->nodeService == NULL) == (options->nodeSecretFile == NULL);
}

int main(int argc, char **argv) {
    struct Options options = {
        .settings =
            {
                .address = "127.0.0.1",
                .port = 8080,
                .timeoutMs = 10000,
                .sessionLifetime = 8 * 3600,
                .loginsPerMinute = 30,
                .maxConnections = 256,
                .maxPerAddress = 32,
            },
        .maxPending = 512,
        .pendingLifetime = 300,
    };
    if (!parseOptions(argc, argv, &options)) {
        return usage(argv[0]);
    }
    struct WebSettings *settings = &options.settings;
    if (options.nodeService && nodeConfigure(options.nodeService, options.nodeSecretFile) != 0) {
        return 1;
    }
    /* Behind a balancer every connection comes from it: only the total bounds them then. */
    if (settings->trustedProxy) {
        settings->maxPerAddress = 0;
    }
    if (storeStart(options.maxPending, options.pendingLifetime) != 0) {
        fprintf(stderr, "qxss-webapp: out of memory\n");
        return 1;
    }
    sigset_t stop;
    char *loaded;
    if (processStartLibrary(options.logPath, "qxss-webapp", &stop, &loaded) != 0) {
        storeStop();
        return 1;
    }
    int status = 1;
    if (loaded == NULL || strcmp(loaded, "SSO_LOAD_CONFIGS_OK") != 0) {
        fprintf(stderr, "qxss-webapp: the library did not load its configuration: %s\n",
                loaded ? loaded : "no answer");
        free(loaded);
        goto stopLibrary;
    }
    free(loaded);
    int port = webStart(settings);
    if (port < 0) {
        goto stopLibrary;
    }
    printf("qxss-webapp: listening on %s://%s:%d/\n", settings->certificateFile ? "https" : "http",
           settings->address, port);
    if (settings->publicOrigin) {
        printf("qxss-webapp: browsers reach it at %s/\n", webOrigin());
    }
    fflush(stdout);
    int signal;
    sigwait(&stop, &signal);
    webStop();
    status = 0;
stopLibrary:
    processStopLibrary();
    storeStop();
    return status;
}
