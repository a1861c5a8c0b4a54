/* The routes: "/" (the sign-in options, or the signed-in page), "/login" (starts a login at the
 * provider), "/cb" (where the provider sends the browser back), "/refresh" and "/logout" (forms
 * of the signed-in page), "/healthz" (whether the library's worker still answers), and "/node"
 * (the node-role service confirms the signed-in user, node.c). */
#include "web.h"

#include "channel.h"
#include "limit.h"
#include "node.h"
#include "pages.h"
#include "store.h"
#include "text.h"
#include "worker/libqxss.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* What a health check waits for the worker: a command that it answers at once, so anything
 * longer means the worker is stuck in something else or gone. */
#define HEALTH_TIMEOUT_MS 2000
/* The forms of this application send empty bodies; nothing else is posted here. */
#define BODY_LIMIT 1024
#define PEM_LIMIT (1024 * 1024)

static struct MHD_Daemon *server;
static struct WebSettings settings;
static char origin[512];
static char proxy[INET6_ADDRSTRLEN];
static char *certificate;
static char *key;
/* Over TLS (ours or the balancer's) the cookies are Secure and carry the __Host- prefix, which
 * a browser accepts only from a secure origin, only for the whole host, and never from a
 * sibling domain. */
static int secure;
static char const *loginCookie;
static char const *sessionCookie;

struct Reply {
    unsigned status;
    struct Text page;
    char const *contentType; /* null: HTML */
    char *location;          /* owned */
    char *cookies[2];        /* owned */
    int retryAfter;          /* seconds, 0: no such header */
    char const *allow;       /* the methods of a 405 */
};

static void setCookie(struct Reply *reply, char const *name, char const *value) {
    struct Text cookie = {0};
    /* The login cookie goes only to the callback, where it is needed; the __Host- prefix
     * demands the path "/". */
    char const *path = name == loginCookie && !secure ? "/cb" : "/";
    textPrintf(&cookie, "%s=%s; Path=%s; HttpOnly; SameSite=Lax%s%s", name, value, path,
               secure ? "; Secure" : "", *value ? "" : "; Max-Age=0");
    reply->cookies[reply->cookies[0] ? 1 : 0] = textTake(&cookie);
}

static void fail(struct Reply *reply, unsigned status, char const *title, char const *message) {
    reply->status = status;
    pageError(&reply->page, title, message);
}

static void redirect(struct Reply *reply, char const *location) {
    reply->status = MHD_HTTP_SEE_OTHER;
    reply->location = strdup(location);
    if (reply->location == NULL) {
        fail(reply, MHD_HTTP_INTERNAL_SERVER_ERROR, "Server error", "Please try again.");
        return;
    }
    pageError(&reply->page, "Redirecting", "Continue at the next page.");
}

static void noAnswer(struct Reply *reply) {
    fail(reply, MHD_HTTP_GATEWAY_TIMEOUT, "Sign-in unavailable",
         "The sign-in service did not answer in time. Please try again.");
}

/* Splits the last `count` "|" fields off `line`, last one first; what stays in `line` is the
 * front, which may hold "|" itself (a user name may). 0 when there were enough fields. */
static int splitTail(char *line, char **fields, int count) {
    for (int i = 0; i < count; ++i) {
        char *bar = strrchr(line, '|');
        if (bar == NULL) {
            return -1;
        }
        *bar = '\0';
        fields[i] = bar + 1;
    }
    return 0;
}

static char const *cookie(struct MHD_Connection *connection, char const *name) {
    char const *value = MHD_lookup_connection_value(connection, MHD_COOKIE_KIND, name);
    return value ? value : "";
}

static char const *argument(struct MHD_Connection *connection, char const *name) {
    return MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
}

/* The canonical text of an IPv4 or IPv6 address in `text`, or "" when it is none. */
static void canonicalAddress(char const *text, char out[INET6_ADDRSTRLEN]) {
    unsigned char binary[sizeof(struct in6_addr)];
    out[0] = '\0';
    if (inet_pton(AF_INET, text, binary) == 1) {
        inet_ntop(AF_INET, binary, out, INET6_ADDRSTRLEN);
    } else if (inet_pton(AF_INET6, text, binary) == 1) {
        inet_ntop(AF_INET6, binary, out, INET6_ADDRSTRLEN);
    }
}

static enum MHD_Result lastForwardedFor(void *last, enum MHD_ValueKind kind, char const *name,
                                        char const *value) {
    (void)kind;
    if (strcasecmp(name, "X-Forwarded-For") == 0 && value) {
        *(char const **)last = value;
    }
    return MHD_YES;
}

/* Who sent the request: the peer of the connection, unless the peer is the trusted balancer,
 * which names the client as the last entry of the last X-Forwarded-For (entries before it are
 * whatever the client claimed, and are ignored). */
static void clientAddress(struct MHD_Connection *connection, char out[INET6_ADDRSTRLEN]) {
    out[0] = '\0';
    union MHD_ConnectionInfo const *info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    struct sockaddr const *peer = info ? info->client_addr : NULL;
    if (peer && peer->sa_family == AF_INET) {
        inet_ntop(AF_INET, &((struct sockaddr_in const *)peer)->sin_addr, out, INET6_ADDRSTRLEN);
    } else if (peer && peer->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &((struct sockaddr_in6 const *)peer)->sin6_addr, out, INET6_ADDRSTRLEN);
    }
    if (proxy[0] == '\0' || strcmp(out, proxy) != 0) {
        return;
    }
    char const *forwarded = NULL;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, lastForwardedFor, &forwarded);
    if (forwarded == NULL) {
        return;
    }
    char const *entry = strrchr(forwarded, ',');
    entry = entry ? entry + 1 : forwarded;
    entry += strspn(entry, " \t");
    char trimmed[INET6_ADDRSTRLEN + 1];
    snprintf(trimmed, sizeof trimmed, "%.*s", (int)strcspn(entry, " \t"), entry);
    char named[INET6_ADDRSTRLEN];
    canonicalAddress(trimmed, named);
    if (named[0] != '\0') {
        memcpy(out, named, sizeof named);
    }
}

static void home(struct MHD_Connection *connection, struct Reply *reply) {
    struct Session session;
    if (storeSessionGet(cookie(connection, sessionCookie), &session) == 0) {
        pageSignedIn(&reply->page, &session);
        return;
    }
    char *options = SsoGetUserLoginOptions();
    pageLoginOptions(&reply->page, options);
    SsoFreeString(options);
}

/* Whether the worker still answers: a node configuration for a session that cannot exist is
 * refused at once, without a provider and without changing anything. */
static void health(struct Reply *reply) {
    reply->contentType = "text/plain; charset=utf-8";
    char probe[STORE_ID_SIZE];
    if (storeRandomId(probe) != 0) {
        reply->status = MHD_HTTP_SERVICE_UNAVAILABLE;
        textAppend(&reply->page, "no random source\n");
        return;
    }
    struct Text command = {0};
    textPrintf(&command, "SSO_GET_NODE_CONFIG|%s", probe);
    char *answer = command.failed ? NULL : channelRequest(command.data, probe, HEALTH_TIMEOUT_MS);
    free(command.data);
    reply->status = answer ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE;
    textAppend(&reply->page, answer ? "ok\n" : "the library's worker does not answer\n");
    free(answer);
}

/* Asks the library for the provider's client configuration under a new user session, and sends
 * the browser to the provider with a state and a nonce that only this server knows. */
static void startLogin(struct MHD_Connection *connection, struct Reply *reply) {
    char const *option = argument(connection, "option");
    /* Which IDs exist is the library's to say; this only keeps the command line well formed. */
    if (option == NULL || *option == '\0' || strlen(option) > 9 ||
        strspn(option, "0123456789") != strlen(option)) {
        fail(reply, MHD_HTTP_BAD_REQUEST, "Unknown sign-in option", "Choose one of the options.");
        return;
    }
    /* Every login costs a pending record here and one in the library, which keeps its own
     * until the process ends: this limit is what bounds them. */
    char client[INET6_ADDRSTRLEN];
    clientAddress(connection, client);
    int wait = limitTake(client);
    if (wait > 0) {
        reply->retryAfter = wait;
        fail(reply, MHD_HTTP_TOO_MANY_REQUESTS, "Too many sign-ins",
             "Too many sign-ins were started from your address. Please wait a minute.");
        return;
    }
    struct PendingLogin login = {0};
    char *userSession = SsoGetUserSession();
    if (userSession == NULL || storeRandomId(login.id) != 0 || storeRandomId(login.state) != 0 ||
        storeRandomId(login.nonce) != 0) {
        SsoFreeString(userSession);
        fail(reply, MHD_HTTP_INTERNAL_SERVER_ERROR, "Sign-in unavailable", "Please try again.");
        return;
    }
    snprintf(login.userSession, sizeof login.userSession, "%s", userSession);
    SsoFreeString(userSession);
    /* Kept before the library is asked: when the store is full, nobody's sign-in is pushed
     * out, this one is refused. */
    if (storePendingAdd(&login) != 0) {
        reply->retryAfter = 60;
        fail(reply, MHD_HTTP_SERVICE_UNAVAILABLE, "Sign-in busy",
             "Too many sign-ins are under way. Please try again in a minute.");
        return;
    }

    struct Text command = {0};
    textPrintf(&command, "SSO_GET_CONFIG|%s|%s", option, login.userSession);
    char *answer =
        command.failed ? NULL : channelRequest(command.data, login.userSession, settings.timeoutMs);
    free(command.data);
    char *fields[2]; /* the user session, the code challenge; the client JSON stays in front */
    char const *prefix = "SSO_GET_CONFIG_OK|";
    int started = 0;
    if (answer == NULL) {
        noAnswer(reply);
    } else if (strncmp(answer, prefix, strlen(prefix)) != 0 || splitTail(answer, fields, 2) != 0) {
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in unavailable",
             "This sign-in option is not available now.");
    } else {
        struct Text data = {0};
        textPrintf(&data, "OAuth|%s|%s|%s|%s", answer + strlen(prefix), login.state, login.nonce,
                   fields[1]);
        struct Text encoded = {0};
        textAppendPercentEncoded(&encoded, data.failed ? "" : data.data);
        char *url = data.failed || encoded.failed ? NULL : SsoLoginUrl(encoded.data);
        if (url == NULL) {
            fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in unavailable",
                 "This sign-in option is not available now.");
        } else {
            setCookie(reply, loginCookie, login.id);
            redirect(reply, url);
            started = 1;
        }
        SsoFreeString(url);
        free(data.data);
        free(encoded.data);
    }
    free(answer);
    if (!started) {
        struct PendingLogin gone;
        storePendingTake(login.id, &gone);
    }
}

/* A provider's error code, shown only when it looks like one ("access_denied"): the query
 * is anybody's to write, and this page is ours. */
static int plainCode(char const *text) {
    size_t length = strlen(text);
    return length > 0 && length <= 40 && strspn(text, "abcdefghijklmnopqrstuvwxyz_") == length;
}

/* The provider sends the browser back here. The login must be this browser's (its cookie), the
 * state must be the one that went out with it, and the code goes to the library once. */
static void finishLogin(struct MHD_Connection *connection, struct Reply *reply) {
    struct PendingLogin login;
    /* Taken out whatever follows: a refused or failed login cannot be tried again, and no
     * answer from here on leaves it behind. */
    if (storePendingTake(cookie(connection, loginCookie), &login) != 0) {
        fail(reply, MHD_HTTP_BAD_REQUEST, "Sign-in failed",
             "This sign-in has expired or was already used. Please start again.");
        return;
    }
    setCookie(reply, loginCookie, "");
    char const *state = argument(connection, "state");
    char const *code = argument(connection, "code");
    char const *error = argument(connection, "error");
    if (state == NULL || strcmp(state, login.state) != 0) {
        fail(reply, MHD_HTTP_FORBIDDEN, "Sign-in refused",
             "The answer from the provider does not belong to this sign-in.");
        return;
    }
    if (error != NULL) {
        struct Text message = {0};
        textPrintf(&message, "The provider did not sign you in (%s).",
                   plainCode(error) ? error : "an error");
        fail(reply, MHD_HTTP_FORBIDDEN, "Sign-in cancelled",
             message.failed ? "The provider did not sign you in." : message.data);
        free(message.data);
        return;
    }
    if (code == NULL || *code == '\0') {
        fail(reply, MHD_HTTP_BAD_REQUEST, "Sign-in failed", "The provider did not sign you in.");
        return;
    }
    /* The library decodes the code once, as it stood in the redirect's query. */
    struct Text command = {0};
    textAppend(&command, "SSO_VERIFY|");
    textAppendPercentEncoded(&command, code);
    textPrintf(&command, "|%s", login.userSession);
    char *answer =
        command.failed ? NULL : channelRequest(command.data, login.userSession, settings.timeoutMs);
    free(command.data);
    char *fields[3]; /* the user session, the expiry, the session value; the user in front */
    char const *prefix = "SSO_VERIFY_OK|";
    struct Session session = {0};
    if (answer == NULL) {
        noAnswer(reply);
    } else if (strncmp(answer, prefix, strlen(prefix)) != 0 || splitTail(answer, fields, 3) != 0) {
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in failed", "The sign-in was not confirmed.");
    } else if (strlen(answer + strlen(prefix)) >= sizeof session.user ||
               strlen(fields[2]) >= sizeof session.value) {
        /* Cut short, the name could be somebody else's. */
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in refused",
             "Your user name is longer than this application can keep (255 bytes).");
    } else {
        snprintf(session.user, sizeof session.user, "%s", answer + strlen(prefix));
        snprintf(session.value, sizeof session.value, "%s", fields[2]);
        session.expiry = strtoll(fields[1], NULL, 10);
        if (storeSessionAdd(&session, settings.sessionLifetime) != 0) {
            fail(reply, MHD_HTTP_INTERNAL_SERVER_ERROR, "Sign-in failed", "Please try again.");
        } else {
            setCookie(reply, sessionCookie, session.id);
            /* Away from the address that holds the code. */
            redirect(reply, "/");
        }
    }
    free(answer);
}

/* Renews the login under a new session value; the old value is dead after the attempt, so a
 * refused refresh ends the session. */
static void refresh(struct MHD_Connection *connection, struct Reply *reply) {
    char const *id = cookie(connection, sessionCookie);
    struct Session session;
    if (storeSessionGet(id, &session) != 0) {
        redirect(reply, "/");
        return;
    }
    char uuid[STORE_ID_SIZE];
    if (strcmp(session.value, "000") == 0 || storeRandomId(uuid) != 0) {
        fail(reply, MHD_HTTP_CONFLICT, "Refresh unavailable",
             "This sign-in cannot be refreshed; sign out and in again.");
        return;
    }
    struct Text command = {0};
    textPrintf(&command, "SSO_REFRESH|%s|%s", uuid, session.value);
    char *answer =
        command.failed ? NULL : channelRequest(command.data, session.value, settings.timeoutMs);
    free(command.data);
    char *fields[3]; /* the old session value, the expiry, the new session value */
    char const *prefix = "SSO_REFRESH_OK|";
    if (answer == NULL) {
        noAnswer(reply);
    } else if (strncmp(answer, prefix, strlen(prefix)) != 0 || splitTail(answer, fields, 3) != 0 ||
               storeSessionRenew(id, fields[2], strtoll(fields[1], NULL, 10),
                                 settings.sessionLifetime) != 0) {
        storeSessionRemove(id);
        setCookie(reply, sessionCookie, "");
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Refresh failed",
             "The session could not be renewed. Please sign in again.");
    } else {
        redirect(reply, "/");
    }
    free(answer);
}

static void logout(struct MHD_Connection *connection, struct Reply *reply) {
    storeSessionRemove(cookie(connection, sessionCookie));
    setCookie(reply, sessionCookie, "");
    redirect(reply, "/");
}

/* The node-role service confirms the signed-in user (node.c). */
static void node(struct MHD_Connection *connection, struct Reply *reply, int confirming) {
    struct Session session;
    if (storeSessionGet(cookie(connection, sessionCookie), &session) != 0) {
        redirect(reply, "/");
        return;
    }
    reply->status = nodePage(&session, confirming, &reply->page, settings.timeoutMs);
}

/* A form sent from another site's page is not obeyed, whatever cookies came with it. Browsers
 * send Origin with every POST; a request without it must name a page of ours as Referer, and
 * one with neither is refused, as a request whose origin cannot be told. */
static int sameOrigin(struct MHD_Connection *connection) {
    char const *from = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Origin");
    if (from != NULL) {
        return strcmp(from, origin) == 0;
    }
    char const *referer = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Referer");
    size_t length = strlen(origin);
    return referer != NULL && strncmp(referer, origin, length) == 0 && referer[length] == '/';
}

static enum MHD_Result respond(struct MHD_Connection *connection, struct Reply *reply) {
    if (reply->page.failed) {
        /* Out of memory while writing the answer: a fixed one. */
        static char const broken[] = "server error\n";
        free(reply->page.data);
        reply->page = (struct Text){0};
        reply->status = MHD_HTTP_INTERNAL_SERVER_ERROR;
        reply->contentType = "text/plain; charset=utf-8";
        textAppend(&reply->page, "");
        if (reply->page.failed) {
            struct MHD_Response *response = MHD_create_response_from_buffer(
                sizeof broken - 1, (void *)broken, MHD_RESPMEM_PERSISTENT);
            enum MHD_Result result =
                response ? MHD_queue_response(connection, reply->status, response) : MHD_NO;
            MHD_destroy_response(response);
            free(reply->location);
            free(reply->cookies[0]);
            free(reply->cookies[1]);
            return result;
        }
        textAppend(&reply->page, broken);
    }
    struct MHD_Response *response = MHD_create_response_from_buffer(
        reply->page.length, reply->page.data, MHD_RESPMEM_MUST_FREE);
    if (response == NULL) {
        free(reply->page.data);
        free(reply->location);
        free(reply->cookies[0]);
        free(reply->cookies[1]);
        return MHD_NO;
    }
    reply->page.data = NULL;
    MHD_add_response_header(response, "Content-Type",
                            reply->contentType ? reply->contentType : "text/html; charset=utf-8");
    MHD_add_response_header(response, "Cache-Control", "no-store");
    MHD_add_response_header(
        response, "Content-Security-Policy",
        "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    /* No address of ours (the callback's holds the code) goes to another site; "no-referrer"
     * would also blank the Referer of our own forms, which sameOrigin may need. */
    MHD_add_response_header(response, "Referrer-Policy", "same-origin");
    if (secure) {
        MHD_add_response_header(response, "Strict-Transport-Security", "max-age=31536000");
    }
    if (reply->location) {
        MHD_add_response_header(response, "Location", reply->location);
    }
    if (reply->retryAfter > 0) {
        char seconds[16];
        snprintf(seconds, sizeof seconds, "%d", reply->retryAfter);
        MHD_add_response_header(response, "Retry-After", seconds);
    }
    if (reply->allow) {
        MHD_add_response_header(response, "Allow", reply->allow);
    }
    for (int i = 0; i < 2; ++i) {
        if (reply->cookies[i]) {
            MHD_add_response_header(response, "Set-Cookie", reply->cookies[i]);
        }
    }
    enum MHD_Result result = MHD_queue_response(connection, reply->status, response);
    MHD_destroy_response(response);
    free(reply->location);
    free(reply->cookies[0]);
    free(reply->cookies[1]);
    return result;
}

static enum MHD_Result serve(void *unused, struct MHD_Connection *connection, char const *url,
                             char const *method, char const *version, char const *upload,
                             size_t *uploadSize, void **context) {
    (void)unused;
    (void)version;
    (void)upload;
    /* The context counts the body's bytes (plus one, so that it is set from the first call,
     * which only announces the request). A body is read and ignored, up to a limit: one that
     * announces more is answered at once, and one that turns out longer loses its
     * connection. */
    uintptr_t received = (uintptr_t)*context;
    struct Reply reply = {MHD_HTTP_OK, {0}, NULL, NULL, {NULL, NULL}, 0, NULL};
    if (received == 0) {
        *context = (void *)(uintptr_t)1;
        char const *length =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Content-Length");
        if (length == NULL || strtoull(length, NULL, 10) <= BODY_LIMIT) {
            return MHD_YES;
        }
        fail(&reply, MHD_HTTP_CONTENT_TOO_LARGE, "Too large", "This request is too large.");
        return respond(connection, &reply);
    }
    if (*uploadSize != 0) {
        received += *uploadSize;
        *uploadSize = 0;
        *context = (void *)received;
        return received - 1 <= BODY_LIMIT ? MHD_YES : MHD_NO;
    }
    int get = strcmp(method, "GET") == 0;
    int head = strcmp(method, "HEAD") == 0;
    int post = strcmp(method, "POST") == 0;
    int signIn = strcmp(url, "/login") == 0 || strcmp(url, "/cb") == 0;
    if ((get || head) && strcmp(url, "/") == 0) {
        home(connection, &reply);
    } else if ((get || head) && strcmp(url, "/healthz") == 0) {
        health(&reply);
    } else if (head && signIn) {
        /* A link checker or preview must not start or use up a sign-in. */
        reply.allow = "GET";
        fail(&reply, MHD_HTTP_METHOD_NOT_ALLOWED, "Not allowed", "Open this page with GET.");
    } else if (get && strcmp(url, "/login") == 0) {
        startLogin(connection, &reply);
    } else if (get && strcmp(url, "/cb") == 0) {
        finishLogin(connection, &reply);
    } else if (post && !sameOrigin(connection)) {
        fail(&reply, MHD_HTTP_FORBIDDEN, "Refused", "This form was not sent from this site.");
    } else if (post && strcmp(url, "/refresh") == 0) {
        refresh(connection, &reply);
    } else if (post && strcmp(url, "/logout") == 0) {
        logout(connection, &reply);
    } else if ((get || post) && strcmp(url, NODE_PATH) == 0) {
        node(connection, &reply, post);
    } else {
        fail(&reply, MHD_HTTP_NOT_FOUND, "Not found", "There is no such page.");
    }
    return respond(connection, &reply);
}

/* The whole of a PEM file, or null (with a message on stderr). */
static char *readPem(char const *path) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status;
    char *text = NULL;
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        status.st_size > PEM_LIMIT || (text = malloc((size_t)status.st_size + 1)) == NULL) {
        fprintf(stderr, "qxss-webapp: can't read '%s'\n", path);
        if (fd >= 0) {
            close(fd);
        }
        return NULL;
    }
    size_t used = 0;
    while (used < (size_t)status.st_size) {
        ssize_t got = read(fd, text + used, (size_t)status.st_size - used);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        used += (size_t)got;
    }
    close(fd);
    text[used] = '\0';
    return text;
}

/* "scheme://host[:port]" with nothing behind it but one optional "/", which is dropped. */
static int setPublicOrigin(char const *text) {
    size_t scheme = strncmp(text, "https://", 8) == 0  ? 8
                    : strncmp(text, "http://", 7) == 0 ? 7
                                                       : 0;
    size_t length = strlen(text);
    if (length > 0 && text[length - 1] == '/') {
        --length;
    }
    if (scheme == 0 || length <= scheme || length >= sizeof origin ||
        memchr(text + scheme, '/', length - scheme) != NULL ||
        strcspn(text + scheme, "?#@ ") < length - scheme) {
        fprintf(stderr, "qxss-webapp: '%s' is no origin (https://host[:port])\n", text);
        return -1;
    }
    snprintf(origin, sizeof origin, "%.*s", (int)length, text);
    return 0;
}

/* The listening address into `where`, the public origin and the trusted proxy, each read and
 * checked. 0 when all are good; else -1, with what is wrong on standard error. */
static int readAddresses(struct sockaddr_in *where) {
    where->sin_family = AF_INET;
    where->sin_port = htons((uint16_t)settings.port);
    if (inet_pton(AF_INET, settings.address, &where->sin_addr) != 1) {
        fprintf(stderr, "qxss-webapp: '%s' is no IPv4 address\n", settings.address);
        return -1;
    }
    if (settings.publicOrigin && setPublicOrigin(settings.publicOrigin) != 0) {
        return -1;
    }
    if (settings.publicOrigin == NULL && where->sin_addr.s_addr == htonl(INADDR_ANY)) {
        fprintf(stderr,
                "qxss-webapp: on 0.0.0.0 the browsers' origin is unknown: give "
                "--public-origin\n");
        return -1;
    }
    if (settings.trustedProxy) {
        canonicalAddress(settings.trustedProxy, proxy);
        if (proxy[0] == '\0') {
            fprintf(stderr, "qxss-webapp: '%s' is no IP address\n", settings.trustedProxy);
            return -1;
        }
    }
    return 0;
}

/* Each connection has a thread, which may wait for the library: so the connections are
 * bounded, in all and per address (behind a balancer every connection comes from it, and
 * only the total counts), and so is what one request may make the server hold. Fills
 * `options` (room for 10) up to its MHD_OPTION_END. */
static void daemonOptions(struct MHD_OptionItem *options, struct sockaddr_in *where) {
    size_t used = 0;
    options[used++] = (struct MHD_OptionItem){MHD_OPTION_SOCK_ADDR, 0, where};
    options[used++] = (struct MHD_OptionItem){MHD_OPTION_CONNECTION_TIMEOUT, 30, NULL};
    options[used++] =
        (struct MHD_OptionItem){MHD_OPTION_CONNECTION_LIMIT, settings.maxConnections, NULL};
    options[used++] = (struct MHD_OptionItem){MHD_OPTION_CONNECTION_MEMORY_LIMIT, 16 * 1024, NULL};
    options[used++] = (struct MHD_OptionItem){MHD_OPTION_LISTEN_BACKLOG_SIZE, 64, NULL};
    if (settings.maxPerAddress > 0) {
        options[used++] = (struct MHD_OptionItem){MHD_OPTION_PER_IP_CONNECTION_LIMIT,
                                                  settings.maxPerAddress, NULL};
    }
    if (settings.certificateFile) {
        options[used++] = (struct MHD_OptionItem){MHD_OPTION_HTTPS_MEM_CERT, 0, certificate};
        options[used++] = (struct MHD_OptionItem){MHD_OPTION_HTTPS_MEM_KEY, 0, key};
    }
    options[used] = (struct MHD_OptionItem){MHD_OPTION_END, 0, NULL};
}

int webStart(struct WebSettings const *chosen) {
    settings = *chosen;
    struct sockaddr_in where = {0};
    if (readAddresses(&where) != 0) {
        return -1;
    }
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG;
    if (settings.certificateFile) {
        if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
            fprintf(stderr, "qxss-webapp: this libmicrohttpd has no TLS\n");
            return -1;
        }
        certificate = readPem(settings.certificateFile);
        key = certificate ? readPem(settings.keyFile) : NULL;
        if (key == NULL) {
            webStop();
            return -1;
        }
        flags |= MHD_USE_TLS;
    }
    secure = settings.certificateFile != NULL ||
             (settings.publicOrigin && strncmp(origin, "https://", 8) == 0);
    loginCookie = secure ? "__Host-qxss_login" : "qxss_login";
    sessionCookie = secure ? "__Host-qxss_session" : "qxss_session";
    limitStart(settings.loginsPerMinute);

    struct MHD_OptionItem options[10];
    daemonOptions(options, &where);
    server = MHD_start_daemon(flags, (uint16_t)settings.port, NULL, NULL, serve, NULL,
                              MHD_OPTION_ARRAY, options, MHD_OPTION_END);
    if (server == NULL) {
        fprintf(stderr, "qxss-webapp: can't listen on %s:%d\n", settings.address, settings.port);
        webStop();
        return -1;
    }
    union MHD_DaemonInfo const *info = MHD_get_daemon_info(server, MHD_DAEMON_INFO_BIND_PORT);
    int port = info ? info->port : settings.port;
    if (settings.publicOrigin == NULL) {
        /* As a browser writes it: no port when it is the scheme's own. */
        int length =
            snprintf(origin, sizeof origin, "%s://%s", secure ? "https" : "http", settings.address);
        if (port != (secure ? 443 : 80)) {
            snprintf(origin + length, sizeof origin - (size_t)length, ":%d", port);
        }
    }
    return port;
}

char const *webOrigin(void) {
    return origin;
}

void webStop(void) {
    if (server) {
        MHD_stop_daemon(server);
        server = NULL;
    }
    free(certificate);
    free(key);
    certificate = NULL;
    key = NULL;
}
