/* qxss-node-service: the node role of libqxss as a service of its own, as a product would run it
 * on a machine that trusts the users its login servers signed in.
 *
 *   qxss-node-service --secret-file FILE [--address 127.0.0.1] [--port 0] [--timeout-ms 10000]
 *                     [--log FILE]
 *
 * The library runs as a node when its configuration directory holds no sso.cfg: it has no
 * provider of its own and confirms a user only with the node configuration that the server
 * holding the user's login hands out (SSO_GET_NODE_CONFIG there, SSO_NODE_VERIFY here). That
 * configuration carries the user's access token, so this service takes it only from a request
 * that proves it comes from a login server: one that knows the shared secret in FILE. Between
 * machines that request must also travel encrypted (TLS, ideally with client certificates); on
 * loopback, as here, nobody else sees it.
 *
 *   POST /confirm    Authorization: Bearer <the shared secret>
 *                    body: <node JSON>|<session value>, the two fields of SSO_GET_NODE_CONFIG_OK
 *   200 text/plain   the user name that the provider confirmed
 *   401 the secret is missing or wrong; 400 the body is not two such fields; 403 the provider
 *   did not confirm the user; 504 the library did not answer in time.
 *
 * Prints "qxss-node-service: listening on http://<address>:<port>/" when it serves and stops on
 * SIGINT or SIGTERM. The library's log (to syslog, or to FILE with --log) holds the node
 * configurations, access tokens included, in the clear: keep it private. */
#include "channel.h"
#include "process.h"
#include "secret.h"
#include "text.h"
#include "worker/libqxss.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define MAX_BODY 65536

static char secret[SECRET_SIZE];
static int replyTimeoutMs = 10000;

/* The request body as it arrives, and whether it outgrew the limit. */
struct Upload {
    struct Text body;
    int tooLarge;
};

static int authorized(struct MHD_Connection *connection) {
    char const *header =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_AUTHORIZATION);
    char const *scheme = "Bearer ";
    return header != NULL && strncmp(header, scheme, strlen(scheme)) == 0 &&
           secretEquals(secret, header + strlen(scheme));
}

/* Sends the node configuration to the library and fills `answer` with the confirmed user.
 * Returns the HTTP status. */
static unsigned confirm(struct Upload *upload, struct Text *answer) {
    char *body = upload->body.data;
    /* One line, exactly two fields: a "|" inside the JSON would shift the session field, and a
     * line break would end the command early. */
    char *bar = body ? strchr(body, '|') : NULL;
    if (upload->tooLarge || body == NULL || strlen(body) != upload->body.length ||
        strpbrk(body, "\r\n") != NULL || bar == NULL || bar == body || bar[1] == '\0' ||
        strchr(bar + 1, '|') != NULL) {
        textAppend(answer, "expected: <node JSON>|<session value>\n");
        return MHD_HTTP_BAD_REQUEST;
    }
    char const *session = bar + 1;
    struct Text command = {0};
    textPrintf(&command, "SSO_NODE_VERIFY|%s", body);
    /* The node form of the user token ends with the session value, as the failure line does. */
    char *reply = channelRequest(command.data, session, replyTimeoutMs);
    free(command.data);
    char const *prefix = "SSO_NODE_VERIFY_OK|";
    unsigned status;
    if (reply == NULL) {
        textAppend(answer, "the library did not answer in time\n");
        status = MHD_HTTP_GATEWAY_TIMEOUT;
    } else if (strncmp(reply, prefix, strlen(prefix)) != 0 || strrchr(reply, '|') == NULL ||
               strrchr(reply, '|') == reply + strlen(prefix) - 1) {
        textAppend(answer, "not confirmed\n");
        status = MHD_HTTP_FORBIDDEN;
    } else {
        /* The user name may hold "|" itself: everything before the last field is the name. */
        *strrchr(reply, '|') = '\0';
        textAppend(answer, reply + strlen(prefix));
        status = MHD_HTTP_OK;
    }
    free(reply);
    return status;
}

static enum MHD_Result serve(void *unused, struct MHD_Connection *connection, char const *url,
                             char const *method, char const *version, char const *data,
                             size_t *dataSize, void **context) {
    (void)unused;
    (void)version;
    struct Upload *upload = *context;
    if (upload == NULL) {
        upload = calloc(1, sizeof *upload);
        *context = upload;
        return upload ? MHD_YES : MHD_NO;
    }
    if (*dataSize != 0) {
        if (upload->body.length + *dataSize > MAX_BODY) {
            upload->tooLarge = 1;
        } else {
            textAppendN(&upload->body, data, *dataSize);
        }
        *dataSize = 0;
        return MHD_YES;
    }
    struct Text answer = {0};
    unsigned status;
    if (strcmp(url, "/confirm") != 0) {
        textAppend(&answer, "not found\n");
        status = MHD_HTTP_NOT_FOUND;
    } else if (strcmp(method, "POST") != 0) {
        textAppend(&answer, "POST only\n");
        status = MHD_HTTP_METHOD_NOT_ALLOWED;
    } else if (!authorized(connection)) {
        textAppend(&answer, "who are you?\n");
        status = MHD_HTTP_UNAUTHORIZED;
    } else {
        status = confirm(upload, &answer);
    }
    struct MHD_Response *response =
        MHD_create_response_from_buffer(answer.length, answer.data, MHD_RESPMEM_MUST_FREE);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    enum MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

static void finished(void *unused, struct MHD_Connection *connection, void **context,
                     enum MHD_RequestTerminationCode code) {
    (void)unused;
    (void)connection;
    (void)code;
    struct Upload *upload = *context;
    if (upload) {
        free(upload->body.data);
        free(upload);
        *context = NULL;
    }
}

static int usage(char const *program) {
    fprintf(stderr,
            "usage: %s --secret-file FILE [--address IPv4] [--port N] [--timeout-ms N] "
            "[--log FILE]\n",
            program);
    return 2;
}

static struct MHD_Daemon *startServer(char const *address, int port) {
    struct sockaddr_in where = {0};
    where.sin_family = AF_INET;
    where.sin_port = htons((uint16_t)port);
    if (inet_pton(AF_INET, address, &where.sin_addr) != 1) {
        fprintf(stderr, "qxss-node-service: '%s' is no IPv4 address\n", address);
        return NULL;
    }
    struct MHD_Daemon *server = MHD_start_daemon(
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG,
        (uint16_t)port, NULL, NULL, serve, NULL, MHD_OPTION_SOCK_ADDR, &where,
        MHD_OPTION_NOTIFY_COMPLETED, finished, NULL, MHD_OPTION_CONNECTION_TIMEOUT, 30u,
        MHD_OPTION_CONNECTION_LIMIT, 64u, MHD_OPTION_END);
    if (server == NULL) {
        fprintf(stderr, "qxss-node-service: can't listen on %s:%d\n", address, port);
    }
    return server;
}

int main(int argc, char **argv) {
    char const *address = "127.0.0.1";
    int port = 0;
    char const *logPath = NULL;
    char const *secretPath = NULL;
    for (int i = 1; i < argc; i += 2) {
        char const *value = i + 1 < argc ? argv[i + 1] : NULL;
        if (value == NULL) {
            return usage(argv[0]);
        } else if (strcmp(argv[i], "--address") == 0) {
            address = value;
        } else if (strcmp(argv[i], "--port") == 0) {
            port = atoi(value);
        } else if (strcmp(argv[i], "--timeout-ms") == 0) {
            replyTimeoutMs = atoi(value);
        } else if (strcmp(argv[i], "--log") == 0) {
            logPath = value;
        } else if (strcmp(argv[i], "--secret-file") == 0) {
            secretPath = value;
        } else {
            return usage(argv[0]);
        }
    }
    if (secretPath == NULL || port < 0 || port > 65535 || replyTimeoutMs <= 0) {
        return usage(argv[0]);
    }
    if (secretRead(secretPath, secret) != 0) {
        return 1;
    }
    sigset_t stop;
    char *loaded;
    if (processStartLibrary(logPath, "qxss-node-service", &stop, &loaded) != 0) {
        return 1;
    }
    int status = 1;
    /* A node loads nothing and says so with the success line; a machine with an sso.cfg would
     * load it and offer sign-in options, which tells that it is a server, not a node. */
    char *options = SsoGetUserLoginOptions();
    int node = loaded != NULL && strcmp(loaded, "SSO_LOAD_CONFIGS_OK") == 0 && options == NULL;
    free(loaded);
    SsoFreeString(options);
    if (!node) {
        fprintf(stderr,
                "qxss-node-service: the library does not run as a node here: its "
                "configuration directory must exist and hold no sso.cfg\n");
        goto stopLibrary;
    }
    struct MHD_Daemon *server = startServer(address, port);
    if (server == NULL) {
        goto stopLibrary;
    }
    union MHD_DaemonInfo const *info = MHD_get_daemon_info(server, MHD_DAEMON_INFO_BIND_PORT);
    printf("qxss-node-service: listening on http://%s:%d/\n", address, info ? info->port : port);
    fflush(stdout);
    int signal;
    sigwait(&stop, &signal);
    MHD_stop_daemon(server);
    status = 0;
stopLibrary:
    processStopLibrary();
    return status;
}
