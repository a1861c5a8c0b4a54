/* A host as a server product would embed libqxss: it starts the worker on a socketpair, loads
 * the configuration, starts a login for a new user session, builds the authorization URL,
 * lets a scripted user sign in at the provider, hands the code back for verification and
 * refreshes the login once.
 *
 *   demo_host <command that plays the user: given the URL as its argument it prints the
 *              redirect's JSON {"code":...,"state":...}>
 */
#include "worker/libqxss.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static FILE *logFile;

static void toLogFile(char const *text, void *context) {
    (void)context;
    fputs(text, logFile);
}

static void sendLine(int fd, char const *line) {
    printf("host > %s", line);
    if (send(fd, line, strlen(line), MSG_NOSIGNAL) < 0) {
        perror("send");
    }
}

/* One reply line, or an empty string after `ms` milliseconds. */
static char const *readLine(int fd, int ms) {
    static char line[16384];
    size_t used = 0;
    struct pollfd polled = {fd, POLLIN, 0};
    while (used + 1 < sizeof line && poll(&polled, 1, ms) > 0) {
        if (read(fd, line + used, 1) != 1) {
            break;
        }
        if (line[used++] == '\n') {
            break;
        }
    }
    line[used] = '\0';
    printf("host < %s%s", used ? line : "(no reply)", used ? "" : "\n");
    return line;
}

/* Percent-encodes the whole text, as the login data travel. */
static char *percentEncoded(char const *text) {
    static char const hex[] = "0123456789ABCDEF";
    char *out = malloc(strlen(text) * 3 + 1);
    char *cursor = out;
    for (unsigned char const *p = (unsigned char const *)text; *p; ++p) {
        if ((*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z') || (*p >= '0' && *p <= '9') ||
            *p == '-' || *p == '.' || *p == '_' || *p == '~') {
            *cursor++ = (char)*p;
        } else {
            *cursor++ = '%';
            *cursor++ = hex[*p >> 4];
            *cursor++ = hex[*p & 15];
        }
    }
    *cursor = '\0';
    return out;
}

/* The value of "key":"value" in a flat JSON text. */
static int jsonString(char const *json, char const *key, char *out, size_t size) {
    char pattern[64];
    snprintf(pattern, sizeof pattern, "\"%s\":\"", key);
    char const *start = strstr(json, pattern);
    if (start == NULL) {
        return 0;
    }
    start += strlen(pattern);
    char const *end = strchr(start, '"');
    if (end == NULL || (size_t)(end - start) >= size) {
        return 0;
    }
    memcpy(out, start, (size_t)(end - start));
    out[end - start] = '\0';
    return 1;
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s <user command>\n", argv[0]);
        return 2;
    }
    logFile = fopen("demo-library.log", "w");
    SsoSetLogCallback(toLogFile, NULL);

    int fds[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
    if (SsoInitialize(fds[1]) != 0) {
        fprintf(stderr, "SsoInitialize failed (see demo-library.log)\n");
        return 1;
    }
    int ok = 0;
    sendLine(fds[0], "SSO_LOAD_CONFIGS\n");
    if (strcmp(readLine(fds[0], 60000), "SSO_LOAD_CONFIGS_OK\n") != 0) {
        goto done;
    }
    char *options = SsoGetUserLoginOptions();
    printf("login options (encoded): %s\n", options ? options : "(none)");
    SsoFreeString(options);

    char *session = SsoGetUserSession();
    printf("user session: %s\n", session);
    char command[1024];
    snprintf(command, sizeof command, "SSO_GET_CONFIG|0|%s\n", session);
    sendLine(fds[0], command);
    char reply[16384];
    snprintf(reply, sizeof reply, "%s", readLine(fds[0], 5000));
    if (strncmp(reply, "SSO_GET_CONFIG_OK|", 18) != 0) {
        goto done;
    }
    /* SSO_GET_CONFIG_OK|<client JSON>|<code challenge>|<user session> */
    char *json = reply + 18;
    char *challenge = strchr(json, '}') + 1;
    *challenge++ = '\0';
    char *bar = strchr(challenge, '|');
    *bar = '\0';

    char data[20000];
    snprintf(data, sizeof data, "OAuth|%s|demo-state|demo-nonce|%s", json, challenge);
    char *encoded = percentEncoded(data);
    char *url = SsoLoginUrl(encoded);
    free(encoded);
    printf("authorization URL: %s\n", url ? url : "(none)");
    if (url == NULL) {
        goto done;
    }

    char player[24000];
    snprintf(player, sizeof player, "%s '%s'", argv[1], url);
    SsoFreeString(url);
    FILE *browser = popen(player, "r");
    char redirect[4096] = "";
    if (browser == NULL || fgets(redirect, sizeof redirect, browser) == NULL) {
        redirect[0] = '\0';
    }
    if (browser != NULL) {
        pclose(browser);
    }
    char code[512];
    char state[128];
    if (!jsonString(redirect, "code", code, sizeof code) ||
        !jsonString(redirect, "state", state, sizeof state)) {
        printf("the user's sign-in failed: %s\n", redirect);
        goto done;
    }
    printf("provider redirected with state %s and a code\n", state);
    snprintf(command, sizeof command, "SSO_VERIFY|%s|%s\n", code, session);
    sendLine(fds[0], command);
    if (strcmp(state, "demo-state") != 0) {
        printf("the state that came back is not ours: refusing the code\n");
        SsoFreeString(session);
        goto done;
    }
    char verified[4096];
    snprintf(verified, sizeof verified, "%s", readLine(fds[0], 10000));
    /* SSO_VERIFY_OK|<user>|<session value>|<expiry>|<user session> */
    if (strncmp(verified, "SSO_VERIFY_OK|", 14) != 0) {
        printf("the login failed (see demo-library.log)\n");
        SsoFreeString(session);
        goto done;
    }
    char user[256] = "";
    char value[64] = "";
    long long expiry = 0;
    sscanf(verified + 14, "%255[^|]|%63[^|]|%lld", user, value, &expiry);
    printf("signed in as %s, session value %s, valid until %lld\n", user, value, expiry);

    /* A refresh renews the login under a new session value; the old one is dead after it. */
    snprintf(command, sizeof command, "SSO_REFRESH|demo-uuid|%s\n", value);
    sendLine(fds[0], command);
    ok = strncmp(readLine(fds[0], 10000), "SSO_REFRESH_OK|", 15) == 0;
    SsoFreeString(session);
done:
    SsoDestroy();
    close(fds[0]);
    close(fds[1]);
    SsoSetLogCallback(NULL, NULL);
    fclose(logFile);
    printf("demo %s (library log: demo-library.log)\n", ok ? "finished" : "FAILED");
    return ok ? 0 : 1;
}
