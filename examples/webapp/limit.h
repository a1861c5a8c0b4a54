/* How many sign-ins one client address may start: a bucket of tokens per address that fills
 * again at an even pace, so a burst is allowed and a flood is held to the pace. Every sign-in
 * started costs a pending record here and one in the library that nothing frees before the
 * process ends, so this is what keeps a flood of anonymous requests from growing the server.
 * Safe from any thread. */
#ifndef QXSS_WEBAPP_LIMIT_H
#define QXSS_WEBAPP_LIMIT_H

/* Sets the pace: `perMinute` sign-ins a minute, and as many at once. Main thread, before any
 * request. */
void limitStart(int perMinute);

/* Takes one sign-in for `address`. 0 when it may start one; otherwise the whole seconds until
 * it may. */
int limitTake(char const *address);

#endif
