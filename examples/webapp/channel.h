/* The one command channel between the web application and libqxss, shared by every request
 * thread. One reader thread takes the reply lines off the channel and hands each to the request
 * that waits for it: a reply names its command ("SSO_VERIFY_OK" answers "SSO_VERIFY") and ends
 * with the session element of that command, and the pair ties it to its waiter. Replies may come
 * in any order, and the library sends none for a command it cannot serve, so every wait is
 * bounded. */
#ifndef QXSS_WEBAPP_CHANNEL_H
#define QXSS_WEBAPP_CHANNEL_H

/* Starts the library's worker on a new socket pair and the reader thread on the other end.
 * 0 on success, -1 on failure (with a message on stderr). Main thread, once. */
int channelStart(void);

/* Stops the worker and the reader and closes the channel. Main thread, after the last request. */
void channelStop(void);

/* Sends `command` (one line without its newline; no field may hold "|" or a line break other
 * than as the command intends) and waits at most `timeoutMs` for its reply, the one whose last
 * field is `key`. Returns the reply line without its newline, a new string that the caller
 * frees with free(); null when no reply came in time, when another request already waits for
 * the same reply, or when the channel is closed. Any thread. */
char *channelRequest(char const *command, char const *key, int timeoutMs);

#endif
