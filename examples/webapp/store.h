/* What the web application keeps on the server side: the logins under way, each tied to one
 * browser by a cookie and holding the state and nonce sent to the provider, and the signed-in
 * sessions with what the library's user token said. The browser sees nothing but the random ids.
 * All functions are safe from any thread. */
#ifndef QXSS_WEBAPP_STORE_H
#define QXSS_WEBAPP_STORE_H

#include <stddef.h>

#define STORE_ID_SIZE 44 /* 32 random bytes in base64url, and the terminator */

struct PendingLogin {
    char id[STORE_ID_SIZE]; /* the value of the browser's login cookie */
    char state[STORE_ID_SIZE];
    char nonce[STORE_ID_SIZE];
    char userSession[64]; /* from SsoGetUserSession; ties the verify reply to this login */
};

struct Session {
    char id[STORE_ID_SIZE]; /* the value of the browser's session cookie */
    char user[256];
    char value[64];   /* the token's session value: what SSO_REFRESH takes */
    long long expiry; /* what the library's token says */
    long long ends;   /* when this application forgets the session: the expiry, or earlier */
    int refreshes;
};

/* Makes room for `maxPending` logins under way, each kept `lifetime` seconds at most, and as
 * many sessions. 0, or -1 when the memory is not there. Main thread, before any other call. */
int storeStart(int maxPending, int lifetime);
/* Frees the tables. Main thread, after the last request. */
void storeStop(void);

/* Fills `out` with 32 bytes from the kernel's random source in base64url. 0, or -1 on failure. */
int storeRandomId(char out[STORE_ID_SIZE]);

/* Keeps `login` (its id, state and nonce already made). 0, or -1 when the store is full of
 * logins within their lifetime: none is pushed out for a new one. */
int storePendingAdd(struct PendingLogin const *login);
/* Takes the login with this id out of the store into `out`: a login is tried once. 0 if found. */
int storePendingTake(char const *id, struct PendingLogin *out);

/* Keeps a new session for `user`, making its id in `session->id`; it ends at its expiry, and
 * at the latest `lifetime` seconds from now. 0, or -1 on failure. */
int storeSessionAdd(struct Session *session, long long lifetime);
/* Copies the session with this id into `out`. 0 if found and not ended (an ended one is
 * forgotten). */
int storeSessionGet(char const *id, struct Session *out);
/* Replaces the session value and expiry after a refresh, and moves the end as a sign-in
 * does. 0 if the session still exists. */
int storeSessionRenew(char const *id, char const *value, long long expiry, long long lifetime);
/* Forgets the session with this id, if there is one. */
void storeSessionRemove(char const *id);

#endif
