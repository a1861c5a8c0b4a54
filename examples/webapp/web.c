/* The routes: "/" (the sign-in options, or the signed-in page), "/login" (starts a login at the
 * provider), "/cb" (where the provider sends the browser back), "/refresh" and "/logout". */
#include "web.h"

#include "channel.h"
#include "node.h"
#include "pages.h"
#include "store.h"
#include "text.h"
#include "worker/libqxss.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define LOGIN_COOKIE "qxss_login"
#define SESSION_COOKIE "qxss_session"

static struct MHD_Daemon *server;
static int replyTimeoutMs;

struct Reply {
    unsigned status;
    struct Text page;
    char *location; /* owned */
    char *cookies[2];
};

static void setCookie(struct Reply *reply, char const *name, char const *path, char const *value) {
    struct Text cookie = {0};
    textPrintf(&cookie, "%s=%s; Path=%s; HttpOnly; SameSite=Lax%s", name, value, path,
               *value ? "" : "; Max-Age=0");
    reply->cookies[reply->cookies[0] ? 1 : 0] = cookie.data;
}

static void fail(struct Reply *reply, unsigned status, char const *title, char const *message) {
    reply->status = status;
    pageError(&reply->page, title, message);
}

static void redirect(struct Reply *reply, char const *location) {
    reply->status = MHD_HTTP_SEE_OTHER;
    reply->location = strdup(location);
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

static void home(struct MHD_Connection *connection, struct Reply *reply) {
    struct Session session;
    if (storeSessionGet(cookie(connection, SESSION_COOKIE), &session) == 0) {
        pageSignedIn(&reply->page, &session);
        return;
    }
    char *options = SsoGetUserLoginOptions();
    pageLoginOptions(&reply->page, options);
    SsoFreeString(options);
}

/* Asks the library for the provider's client configuration under a new user session, and sends
 * the browser to the provider with a state and a nonce that only this server knows. */
static void startLogin(struct MHD_Connection *connection, struct Reply *reply) {
    char const *option = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "option");
    /* Which IDs exist is the library's to say; this only keeps the command line well formed. */
    if (option == NULL || *option == '\0' || strlen(option) > 9 ||
        strspn(option, "0123456789") != strlen(option)) {
        fail(reply, MHD_HTTP_BAD_REQUEST, "Unknown sign-in option", "Choose one of the options.");
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

    struct Text command = {0};
    textPrintf(&command, "SSO_GET_CONFIG|%s|%s", option, login.userSession);
    char *answer = channelRequest(command.data, login.userSession, replyTimeoutMs);
    free(command.data);
    char *fields[2]; /* the user session, the code challenge; the client JSON stays in front */
    char const *prefix = "SSO_GET_CONFIG_OK|";
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
        textAppendPercentEncoded(&encoded, data.data);
        char *url = SsoLoginUrl(encoded.data);
        if (url == NULL || storePendingAdd(&login) != 0) {
            fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in unavailable",
                 "This sign-in option is not available now.");
        } else {
            setCookie(reply, LOGIN_COOKIE, "/cb", login.id);
            redirect(reply, url);
        }
        SsoFreeString(url);
        free(data.data);
        free(encoded.data);
    }
    free(answer);
}

/* The provider sends the browser back here. The login must be this browser's (its cookie), the
 * state must be the one that went out with it, and the code goes to the library once. */
static void finishLogin(struct MHD_Connection *connection, struct Reply *reply) {
    struct PendingLogin login;
    /* Taken out whatever follows: a refused or failed login cannot be tried again. */
    if (storePendingTake(cookie(connection, LOGIN_COOKIE), &login) != 0) {
        fail(reply, MHD_HTTP_BAD_REQUEST, "Sign-in failed",
             "This sign-in has expired or was already used. Please start again.");
        return;
    }
    setCookie(reply, LOGIN_COOKIE, "/cb", "");
    char const *state = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "state");
    char const *code = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "code");
    if (state == NULL || strcmp(state, login.state) != 0) {
        fail(reply, MHD_HTTP_FORBIDDEN, "Sign-in refused",
             "The answer from the provider does not belong to this sign-in.");
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
    char *answer = channelRequest(command.data, login.userSession, replyTimeoutMs);
    free(command.data);
    char *fields[3]; /* the user session, the expiry, the session value; the user in front */
    char const *prefix = "SSO_VERIFY_OK|";
    struct Session session = {0};
    if (answer == NULL) {
        noAnswer(reply);
    } else if (strncmp(answer, prefix, strlen(prefix)) != 0 || splitTail(answer, fields, 3) != 0) {
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Sign-in failed", "The sign-in was not confirmed.");
    } else {
        snprintf(session.user, sizeof session.user, "%s", answer + strlen(prefix));
        snprintf(session.value, sizeof session.value, "%s", fields[2]);
        session.expiry = strtoll(fields[1], NULL, 10);
        if (storeSessionAdd(&session) != 0) {
            fail(reply, MHD_HTTP_INTERNAL_SERVER_ERROR, "Sign-in failed", "Please try again.");
        } else {
            setCookie(reply, SESSION_COOKIE, "/", session.id);
            /* Away from the address that holds the code. */
            redirect(reply, "/");
        }
    }
    free(answer);
}

/* Renews the login under a new session value; the old value is dead after the attempt, so a
 * refused refresh ends the session. */
static void refresh(struct MHD_Connection *connection, struct Reply *reply) {
    char const *id = cookie(connection, SESSION_COOKIE);
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
    char *answer = channelRequest(command.data, session.value, replyTimeoutMs);
    free(command.data);
    char *fields[3]; /* the old session value, the expiry, the new session value */
    char const *prefix = "SSO_REFRESH_OK|";
    if (answer == NULL) {
        noAnswer(reply);
    } else if (strncmp(answer, prefix, strlen(prefix)) != 0 || splitTail(answer, fields, 3) != 0 ||
               storeSessionRenew(id, fields[2], strtoll(fields[1], NULL, 10)) != 0) {
        storeSessionRemove(id);
        setCookie(reply, SESSION_COOKIE, "/", "");
        fail(reply, MHD_HTTP_BAD_GATEWAY, "Refresh failed",
             "The session could not be renewed. Please sign in again.");
    } else {
        redirect(reply, "/");
    }
    free(answer);
}

static void logout(struct MHD_Connection *connection, struct Reply *reply) {
    storeSessionRemove(cookie(connection, SESSION_COOKIE));
    setCookie(reply, SESSION_COOKIE, "/", "");
    redirect(reply, "/");
}

/* The node-role service confirms the signed-in user (node.c). */
static void node(struct MHD_Connection *connection, struct Reply *reply, int confirming) {
    struct Session session;
    if (storeSessionGet(cookie(connection, SESSION_COOKIE), &session) != 0) {
        redirect(reply, "/");
        return;
    }
    reply->status = nodePage(&session, confirming, &reply->page, replyTimeoutMs);
}

/* A form sent from another site's page is not obeyed, whatever cookies came with it. */
static int sameOrigin(struct MHD_Connection *connection) {
    char const *origin = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Origin");
    char const *host = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Host");
    if (origin == NULL) {
        return 1;
    }
    return host != NULL && strncmp(origin, "http://", 7) == 0 && strcmp(origin + 7, host) == 0;
}

static enum MHD_Result respond(struct MHD_Connection *connection, struct Reply *reply) {
    struct MHD_Response *response = MHD_create_response_from_buffer(
        reply->page.length, reply->page.data, MHD_RESPMEM_MUST_FREE);
    reply->page.data = NULL;
    MHD_add_response_header(response, "Content-Type", "text/html; charset=utf-8");
    MHD_add_response_header(response, "Cache-Control", "no-store");
    MHD_add_response_header(response, "Content-Security-Policy",
                            "default-src 'none'; style-src 'unsafe-inline'; frame-ancestors 'none'");
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    /* No address of ours (the callback's holds the code) goes to another site; "no-referrer"
     * would also blank the Origin of our own forms, which sameOrigin checks. */
    MHD_add_response_header(response, "Referrer-Policy", "same-origin");
    if (reply->location) {
        MHD_add_response_header(response, "Location", reply->location);
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
    static int started;
    /* The first call only announces the request; a body, if any, is read and ignored. */
    if (*context == NULL) {
        *context = &started;
        return MHD_YES;
    }
    if (*uploadSize != 0) {
        *uploadSize = 0;
        return MHD_YES;
    }
    struct Reply reply = {MHD_HTTP_OK, {0}, NULL, {NULL, NULL}};
    int get = strcmp(method, "GET") == 0 || strcmp(method, "HEAD") == 0;
    int post = strcmp(method, "POST") == 0;
    if (get && strcmp(url, "/") == 0) {
        home(connection, &reply);
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

int webStart(char const *address, int port, int timeoutMs) {
    replyTimeoutMs = timeoutMs;
    struct sockaddr_in where = {0};
    where.sin_family = AF_INET;
    where.sin_port = htons((uint16_t)port);
    if (inet_pton(AF_INET, address, &where.sin_addr) != 1) {
        fprintf(stderr, "qxss-webapp: '%s' is no IPv4 address\n", address);
        return -1;
    }
    server = MHD_start_daemon(
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG,
        (uint16_t)port, NULL, NULL, serve, NULL, MHD_OPTION_SOCK_ADDR, &where,
        MHD_OPTION_CONNECTION_TIMEOUT, 30u, MHD_OPTION_END);
    if (server == NULL) {
        fprintf(stderr, "qxss-webapp: can't listen on %s:%d\n", address, port);
        return -1;
    }
    union MHD_DaemonInfo const *info = MHD_get_daemon_info(server, MHD_DAEMON_INFO_BIND_PORT);
    return info ? info->port : port;
}

void webStop(void) {
    if (server) {
        MHD_stop_daemon(server);
        server = NULL;
    }
}
