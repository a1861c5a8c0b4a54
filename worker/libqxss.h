/* libqxss: OpenID Connect logins for Linux server processes.
 *
 * A host starts the library's worker on one descriptor with SsoInitialize, writes
 * newline-terminated "SSO_..." commands to it and reads reply lines from it; SsoDestroy stops
 * the worker. The remaining functions run on the caller's thread.
 *
 * Every char * returned is a new array owned by the caller: free it with SsoFreeString. */
#ifndef LIBQXSS_H
#define LIBQXSS_H

#include <stdint.h>

#if defined(__GNUC__)
#define QXSS_EXPORT __attribute__((visibility("default")))
#else
#define QXSS_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Starts the worker thread on `fd`, a descriptor the host keeps owning (the library never closes
 * it). Returns 0 on success, -1 on failure (also while a worker exists, until SsoDestroy). Host's
 * thread; not concurrently with SsoDestroy. Call SsoDestroy before the process exits, also when
 * the worker ended by itself (end of file on `fd`). */
QXSS_EXPORT int SsoInitialize(int fd);

/* Stops the worker, waits for it, and tears everything down. Safe without a worker (it only
 * logs a warning). Host's thread: on the worker's own thread (inside the log callback, say) it
 * returns at once and does nothing. */
QXSS_EXPORT void SsoDestroy(void);

/* One housekeeping tick; the worker calls it once per turn. */
QXSS_EXPORT void TimedOperations(void);

/* The worker thread's body (argument: the library's worker record). Always returns null. */
QXSS_EXPORT void *loop(void *info);

/* Worker turns counted by TimedOperations. */
extern QXSS_EXPORT int32_t ticks;

/* The provider list as percent-encoded "id=.. name=.. desc=.. type=.. provider=.." items joined
 * by "|", or null (on a node, or before a configuration was loaded). Free with SsoFreeString. */
QXSS_EXPORT char *SsoGetUserLoginOptions(void);

/* A new 32-character user session, or null. Free with SsoFreeString. */
QXSS_EXPORT char *SsoGetUserSession(void);

/* The provider's authorization URL for percent-encoded login data
 * "OAuth|<client JSON>|<state>|<nonce>|<code challenge>", or null. Free with SsoFreeString. */
QXSS_EXPORT char *SsoLoginUrl(char const *data);

/* The same URL handed to `callback` (valid during the call only). 0 if the callback was called,
 * -1 otherwise. */
QXSS_EXPORT int SsoLogin(char const *data, void (*callback)(char const *));

/* Frees a string that the library returned. Null is ignored. Any thread. */
QXSS_EXPORT void SsoFreeString(char *text);

/* Sends every later log statement to `callback` instead of syslog; a null callback restores
 * syslog. `text` is one whole statement exactly as the library words it, ending in its own line
 * end, valid during the call only; provider answers stand in it as they came, control
 * characters included, so a callback that writes to a file should escape them. The callback
 * may run on the host's threads and on the worker thread, one statement at a time, and must not
 * call back into the library. An exception it throws is dropped. */
QXSS_EXPORT void SsoSetLogCallback(void (*callback)(char const *text, void *context),
                                   void *context);

#ifdef __cplusplus
}
#endif

#endif
