#include "pages.h"

#include "node.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

static void begin(struct Text *page, char const *title) {
    textAppend(page,
               "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
               "<meta name=\"viewport\" content=\"width=device-width\"><title>");
    textAppendHtml(page, title);
    textAppend(page,
               "</title><style>"
               "body{font-family:sans-serif;max-width:36em;margin:3em auto;padding:0 1em}"
               "button{font-size:1em;padding:.5em 1em;margin:.25em 0}"
               "form{display:inline-block;margin-right:.5em}.note{color:#555}"
               "#user{overflow-wrap:anywhere}"
               "</style></head><body>\n<h1>");
    textAppendHtml(page, title);
    textAppend(page, "</h1>\n");
}

static void end(struct Text *page) {
    textAppend(page, "</body></html>\n");
}

/* The value of "<key>=" in an item "id=.. name=.. desc=.. type=.. provider=..": from behind the
 * key to the blank before `nextKey`, or to the end of the item. Values may hold blanks. */
static char *itemValue(char const *item, char const *key, char const *nextKey) {
    char const *start = strstr(item, key);
    if (start == NULL) {
        return NULL;
    }
    start += strlen(key);
    char const *stop = nextKey ? strstr(start, nextKey) : NULL;
    return strndup(start, stop ? (size_t)(stop - start) : strlen(start));
}

static void optionButton(struct Text *page, char const *item) {
    char *id = itemValue(item, "id=", " name=");
    char *name = itemValue(item, " name=", " desc=");
    char *desc = itemValue(item, " desc=", " type=");
    char *type = itemValue(item, " type=", " provider=");
    /* SAML entries are listed too, but only OAuth ones can be signed in with. */
    if (id && name && desc && type && strcmp(type, "OAuth") == 0 &&
        strspn(id, "0123456789") == strlen(id) && *id) {
        textAppend(page,
                   "<li><form method=\"get\" action=\"/login\">"
                   "<button type=\"submit\" name=\"option\" value=\"");
        textAppendHtml(page, id);
        textAppend(page, "\">Sign in with ");
        textAppendHtml(page, name);
        textAppend(page, "</button></form> <span class=\"note\">");
        textAppendHtml(page, desc);
        textAppend(page, "</span></li>\n");
    }
    free(id);
    free(name);
    free(desc);
    free(type);
}

void pageLoginOptions(struct Text *page, char const *encodedOptions) {
    begin(page, "Sign in");
    if (encodedOptions == NULL || *encodedOptions == '\0') {
        textAppend(page, "<p>No sign-in option is configured.</p>\n");
        end(page);
        return;
    }
    char *options = strdup(encodedOptions);
    if (options == NULL) {
        page->failed = 1;
        return;
    }
    percentDecode(options);
    textAppend(page, "<ul class=\"options\">\n");
    char *rest = options;
    for (char *item = strsep(&rest, "|"); item; item = strsep(&rest, "|")) {
        optionButton(page, item);
    }
    textAppend(page, "</ul>\n");
    free(options);
    end(page);
}

void pageSignedIn(struct Text *page, struct Session const *session) {
    begin(page, "Welcome");
    textAppend(page, "<p id=\"user\">Signed in as <strong>");
    textAppendHtml(page, session->user);
    textAppend(page, "</strong></p>\n");
    time_t ends = (time_t)session->ends;
    struct tm utc;
    char when[64] = "";
    if (gmtime_r(&ends, &utc) != NULL) {
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
    }
    textPrintf(page, "<p id=\"expiry\">The session is valid until %s (%lld).</p>\n", when,
               session->ends);
    if (session->refreshes > 0) {
        textPrintf(page, "<p id=\"refreshes\">Refreshed %d time%s.</p>\n", session->refreshes,
                   session->refreshes == 1 ? "" : "s");
    }
    textAppend(page,
               "<form method=\"post\" action=\"/refresh\">"
               "<button type=\"submit\" id=\"refresh\">Refresh the session</button></form>"
               "<form method=\"post\" action=\"/logout\">"
               "<button type=\"submit\" id=\"logout\">Sign out</button></form>\n");
    if (nodeConfigured()) {
        textAppend(page, "<p><a href=\"" NODE_PATH
                         "\" id=\"node\">Have the node service "
                         "confirm you</a></p>\n");
    }
    end(page);
}

void pageNodeConfirmed(struct Text *page, struct Session const *session,
                       char const *confirmedUser) {
    begin(page, "Node service");
    textAppend(page, "<p>Signed in here as <strong>");
    textAppendHtml(page, session->user);
    textAppend(page,
               "</strong>. The node service trusts a user only when the server that holds "
               "the sign-in vouches for it.</p>\n");
    if (confirmedUser) {
        textAppend(page, "<p id=\"confirmed\">The node service confirmed you as <strong>");
        textAppendHtml(page, confirmedUser);
        textAppend(page, "</strong>.</p>\n");
    }
    textAppend(page,
               "<form method=\"post\" action=\"/node\">"
               "<button type=\"submit\" id=\"confirm\">Confirm at the node service</button>"
               "</form>\n<p><a href=\"/\">Back to the start</a></p>\n");
    end(page);
}

void pageError(struct Text *page, char const *title, char const *message) {
    begin(page, title);
    textAppend(page, "<p id=\"error\">");
    textAppendHtml(page, message);
    textAppend(page, "</p>\n<p><a href=\"/\">Back to the start</a></p>\n");
    end(page);
}
