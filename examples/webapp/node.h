/* The node-role service (qxss-node-service) confirms a user who signed in here: the page
 * NODE_PATH offers it, and its form asks this server's library for the user's node
 * configuration (SSO_GET_NODE_CONFIG, which reads the login's refresh record and so works only
 * on the instance that holds it) and hands that to the service in a request that carries the
 * shared secret. The configuration holds the user's access token: it never goes to the browser
 * and never travels without the secret. */
#ifndef QXSS_WEBAPP_NODE_H
#define QXSS_WEBAPP_NODE_H

#include "store.h"
#include "text.h"

#define NODE_PATH "/node"

/* Takes the service's address ("http://127.0.0.1:8090") and the file whose first line is the
 * shared secret. 0, or -1 with a message on stderr. Main thread, before webStart; without this
 * call the page says that no node service is configured. */
int nodeConfigure(char const *serviceUrl, char const *secretFile);

/* Whether a node service is configured: the signed-in page links to NODE_PATH then. */
int nodeConfigured(void);

/* The page for the signed-in `session`: GET shows the form, POST (`confirming` 1) asks the service
 * and shows what it said, each request waiting at most `timeoutMs`. Fills `page` and returns
 * the HTTP status. Any request thread. */
unsigned nodePage(struct Session const *session, int confirming, struct Text *page, int timeoutMs);

#endif
