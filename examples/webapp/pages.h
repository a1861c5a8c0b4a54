/* The HTML of the web application. Everything that comes from outside (provider names, user
 * names) is escaped; nothing secret (codes, tokens, state, nonce, session values) is ever put
 * into a page. */
#ifndef QXSS_WEBAPP_PAGES_H
#define QXSS_WEBAPP_PAGES_H

#include "store.h"
#include "text.h"

/* The sign-in page: one button per OAuth entry of the login options that
 * SsoGetUserLoginOptions returned (still percent-encoded; null when there are none). */
void pageLoginOptions(struct Text *page, char const *encodedOptions);

/* The page of a signed-in user. */
void pageSignedIn(struct Text *page, struct Session const *session);

/* The node service's page for a signed-in user: whom the node service confirmed (`confirmedUser`,
 * null before it was asked) and the form that asks it. */
void pageNodeConfirmed(struct Text *page, struct Session const *session, char const *confirmedUser);

/* A plain error page: a title and one sentence, and the way back to the start. */
void pageError(struct Text *page, char const *title, char const *message);

#endif
