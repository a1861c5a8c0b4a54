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

/* Frees a string that the library returned. Null is ignored. Any thread. */
QXSS_EXPORT void SsoFreeString(char *text);

/* Sends every later log statement to `callback` instead of syslog; a null callback restores
 * syslog. `text` is one whole statement exactly as the library words it, ending in its own line
 * end, valid during the call only. The callback may run on the host's threads and on the
 * worker thread, one statement at a time, and must not call back into the library. */
QXSS_EXPORT void SsoSetLogCallback(void (*callback)(char const *text, void *context),
                                   void *context);

#ifdef __cplusplus
}
#endif

#endif
