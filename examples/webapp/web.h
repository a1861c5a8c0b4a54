/* The HTTP side of the web application, on libmicrohttpd: one thread per connection, so that
 * a request may wait for its reply from the library without holding up the others. */
#ifndef QXSS_WEBAPP_WEB_H
#define QXSS_WEBAPP_WEB_H

/* Listens on `address`:`port` (0: any free port) and serves until webStop. Each request that
 * needs the library waits at most `timeoutMs` for its reply. Returns the port, or -1 on
 * failure (with a message on stderr). Main thread, once the channel runs. */
int webStart(char const *address, int port, int timeoutMs);

/* Stops listening and waits for the requests under way. Main thread. */
void webStop(void);

#endif
