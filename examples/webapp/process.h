/* What both programs of the example (qxss-webapp and qxss-node-service) do as processes: start
 * the library the same way, keep its log in a private file, and leave the stop signals to their
 * main thread. */
#ifndef QXSS_WEBAPP_PROCESS_H
#define QXSS_WEBAPP_PROCESS_H

#include <signal.h>

/* Sends the library's log to `path`, appended to, created readable by its owner alone, never
 * through a symbolic link and never handed to a child process; each statement is one line, its
 * control characters escaped. The log holds secrets, codes and tokens in the clear. `program`
 * names the process in its own complaints. 0, or -1 with a message on stderr. Main thread,
 * before the worker starts. */
int processLogStart(char const *path, char const *program);

/* Gives the log back to syslog and closes the file, if one was opened. Main thread, after the
 * worker stopped. */
void processLogStop(void);

/* Blocks SIGINT and SIGTERM in the calling thread, and so in every thread it starts from here
 * on, and fills `stop` with them for sigwait. Main thread, before any other thread starts. */
void processBlockStopSignals(sigset_t *stop);

/* Starts the library as both programs do: its log to `logPath` when one is given (else to
 * syslog; `program` as in processLogStart), SIGINT and SIGTERM blocked into `stop` before the
 * library's threads start, the command channel, and then "SSO_LOAD_CONFIGS". 0 with the reply
 * line in `*loaded` (to free; NULL when none came within a minute) for the program to judge,
 * and processStopLibrary to call when done; -1 with a message on stderr when the log or the
 * channel would not start, with nothing left running. Main thread, before any other thread
 * starts. */
int processStartLibrary(char const *logPath, char const *program, sigset_t *stop, char **loaded);

/* Stops the channel with the library's worker, then gives the log back. Main thread, after the
 * last request. */
void processStopLibrary(void);

#endif
