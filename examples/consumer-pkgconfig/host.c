/* The smallest host in C: takes a user session, builds a provider's authorization URL from
 * login data, and starts and stops the worker when this machine has a configuration
 * directory. Prints what it got; exits 0 when the library answered as it should. */
#include <libqxss.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static char lastError[1024];

/* The library's log goes here instead of syslog; only errors are kept. */
static void onLog(char const *text, void *context) {
    (void)context;
    if (strstr(text, "ERROR! ") != NULL) {
        snprintf(lastError, sizeof lastError, "%s", text);
    }
}

/* Every byte but A-Z a-z 0-9 - . _ ~ as %XX, as login data travel. */
static char *percentEncoded(char const *text) {
    static char const hex[] = "0123456789ABCDEF";
    char *out = malloc(strlen(text) * 3 + 1);
    char *cursor = out;
    if (out == NULL) {
        return NULL;
    }
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

int main(void) {
    SsoSetLogCallback(onLog, NULL);

    char *session = SsoGetUserSession();
    printf("user session: %s\n", session ? session : "(none)");
    int sessionOk = session != NULL && strlen(session) == 32;
    SsoFreeString(session);

    /* What an SSO_GET_CONFIG reply carries, with the host's own state and nonce. */
    char const *data =
        "OAuth|{\"auth_uri\":\"https://idp.example/auth\",\"client_id\":\"consumer\","
        "\"provider\":\"google\",\"qx_prompt_type\":\"\",\"redirect_uri\":"
        "\"https://host.example/cb\"}|consumer-state|consumer-nonce|"
        "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
    char *encoded = percentEncoded(data);
    char *url = encoded ? SsoLoginUrl(encoded) : NULL;
    free(encoded);
    printf("authorization URL: %s\n", url ? url : "(none)");
    int urlOk = url != NULL && strncmp(url, "https://idp.example/auth?", 25) == 0 &&
                strstr(url, "access_type=offline") != NULL;
    SsoFreeString(url);

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
        if (SsoInitialize(fds[1]) == 0) {
            printf("worker: started and stopped\n");
            SsoDestroy();
        } else {
            printf("worker: not started (no configuration directory on this machine)\n");
        }
        close(fds[0]);
        close(fds[1]);
    }

    if (!sessionOk || !urlOk) {
        printf("qxss consumer: FAILED %s", lastError);
        return 1;
    }
    printf("qxss consumer: ok\n");
    return 0;
}
