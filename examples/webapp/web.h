/* The HTTP side of the web application, on libmicrohttpd: a thread per connection, so that a
 * request may wait for its reply from the library without holding up the others, and a bound
 * on the connections, so that the threads are bounded too. */
#ifndef QXSS_WEBAPP_WEB_H
#define QXSS_WEBAPP_WEB_H

struct WebSettings {
    char const *address; /* IPv4 address to listen on */
    int port;            /* 0: any free port */
    int timeoutMs;       /* longest wait for a reply of the library */
    /* The origin ("https://sso.example.com") that browsers see. Null: the application's own
     * scheme, address and port. Forms are obeyed only when they come from this origin. */
    char const *publicOrigin;
    /* The address of the one load balancer whose X-Forwarded-For names the client. Null: the
     * peer of the connection is the client, whatever a header says. */
    char const *trustedProxy;
    /* PEM files of the certificate chain and its key: the application then serves TLS itself.
     * Both null: plain HTTP. */
    char const *certificateFile;
    char const *keyFile;
    int sessionLifetime; /* seconds a session lasts at most after a sign-in or refresh */
    int loginsPerMinute; /* sign-ins a client address may start per minute */
    int maxConnections;  /* open connections in all (each has its thread) */
    int maxPerAddress;   /* open connections from one address (0: no limit of its own) */
};

/* Listens and serves until webStop. Returns the port, or -1 on failure (with a message on
 * stderr). Main thread, once the channel runs. */
int webStart(struct WebSettings const *settings);

/* The origin that the forms must come from: the public origin, or the application's own. */
char const *webOrigin(void);

/* Stops listening and waits for the requests under way. Main thread. */
void webStop(void);

#endif
