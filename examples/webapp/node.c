/* The page "/node": this server hands the signed-in user's node configuration to the node-role
 * service and shows whom the service confirmed. */
#include "node.h"

#include "channel.h"
#include "pages.h"
#include "secret.h"

#include <curl/curl.h>
#include <microhttpd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define MAX_ANSWER 4096

static char confirmUrl[1024];
static char secret[SECRET_SIZE];

int nodeConfigure(char const *serviceUrl, char const *secretFile) {
    size_t length = strlen(serviceUrl);
    while (length > 0 && serviceUrl[length - 1] == '/') {
        --length;
    }
    if ((strncmp(serviceUrl, "http://", 7) != 0 && strncmp(serviceUrl, "https://", 8) != 0) ||
        length + sizeof "/confirm" > sizeof confirmUrl) {
        fprintf(stderr, "qxss-webapp: '%s' is no http:// or https:// address\n", serviceUrl);
        return -1;
    }
    if (secretRead(secretFile, secret) != 0) {
        return -1;
    }
    snprintf(confirmUrl, sizeof confirmUrl, "%.*s/confirm", (int)length, serviceUrl);
    return 0;
}

static size_t collect(char *data, size_t size, size_t count, void *answer) {
    struct Text *text = answer;
    if (text->length + size * count > MAX_ANSWER) {
        return 0; /* no user name is that long: not the service we expect */
    }
    textAppendN(text, data, size * count);
    return size * count;
}

/* POSTs the two fields of SSO_GET_NODE_CONFIG_OK to the service with the secret. Returns the
 * service's HTTP status, 0 when it did not answer; its answer goes to `answer`. */
static long askService(char const *nodeFields, struct Text *answer, int timeoutMs) {
    CURL *curl = curl_easy_init();
    if (curl == NULL) {
        return 0;
    }
    struct Text authorization = {0};
    textPrintf(&authorization, "Authorization: Bearer %s", secret);
    struct curl_slist *headers = curl_slist_append(NULL, authorization.data);
    struct curl_slist *both =
        headers ? curl_slist_append(headers, "Content-Type: text/plain") : NULL;
    long status = 0;
    if (both != NULL) {
        curl_easy_setopt(curl, CURLOPT_URL, confirmUrl);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, (long)timeoutMs);
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, both);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, nodeFields);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, answer);
        if (curl_easy_perform(curl) == CURLE_OK) {
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        }
    }
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    free(authorization.data);
    return status;
}

/* Gets the node configuration from this server's library and has the service confirm it. */
static unsigned confirm(struct Session const *session, struct Text *page, int timeoutMs) {
    if (strcmp(session->value, "000") == 0) {
        pageError(page, "Not confirmed",
                  "This sign-in keeps no refresh record, so no node can confirm it.");
        return MHD_HTTP_CONFLICT;
    }
    struct Text command = {0};
    textPrintf(&command, "SSO_GET_NODE_CONFIG|%s", session->value);
    char *reply = channelRequest(command.data, session->value, timeoutMs);
    free(command.data);
    char const *prefix = "SSO_GET_NODE_CONFIG_OK|";
    if (reply == NULL) {
        pageError(page, "Sign-in unavailable",
                  "The sign-in service did not answer in time. Please try again.");
        return MHD_HTTP_GATEWAY_TIMEOUT;
    }
    if (strncmp(reply, prefix, strlen(prefix)) != 0) {
        free(reply);
        pageError(page, "Not confirmed",
                  "This server holds no record of your sign-in any more. Please sign in again.");
        return MHD_HTTP_CONFLICT;
    }
    struct Text answer = {0};
    long status = askService(reply + strlen(prefix), &answer, timeoutMs);
    free(reply);
    unsigned result = MHD_HTTP_OK;
    if (status == MHD_HTTP_OK && answer.length > 0) {
        pageNodeConfirmed(page, session, answer.data);
    } else if (status == MHD_HTTP_FORBIDDEN) {
        pageError(page, "Not confirmed", "The node service did not confirm you.");
        result = MHD_HTTP_FORBIDDEN;
    } else {
        pageError(page, "Node service unavailable",
                  "The node service did not answer as expected. Please try again.");
        result = MHD_HTTP_BAD_GATEWAY;
    }
    free(answer.data);
    return result;
}

int nodeConfigured(void) {
    return confirmUrl[0] != '\0';
}

unsigned nodePage(struct Session const *session, int confirming, struct Text *page, int timeoutMs) {
    if (confirmUrl[0] == '\0') {
        pageError(page, "Not found", "No node service is configured for this application.");
        return MHD_HTTP_NOT_FOUND;
    }
    if (!confirming) {
        pageNodeConfirmed(page, session, NULL);
        return MHD_HTTP_OK;
    }
    return confirm(session, page, timeoutMs);
}
