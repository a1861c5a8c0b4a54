#pragma once

#include "tests/harness/LogCapture.h"

#include <chrono>
#include <string>

// A host as tests need one: a socketpair whose library end is handed to SsoInitialize. The
// destructor stops the worker (SsoDestroy) if the test did not, and closes both ends.
class WorkerHost {
public:
    WorkerHost();
    ~WorkerHost();
    WorkerHost(WorkerHost const &) = delete;
    WorkerHost &operator=(WorkerHost const &) = delete;

    // SsoInitialize on the library's end; its result.
    int start();
    // SsoDestroy, once.
    void stop();
    // Writes `text` as one write on the host's end.
    void send(std::string const &text) const;
    // Reads one reply line (up to and including "\n"), waiting up to `ms`; empty on time-out.
    std::string readLine(int ms = 5000);
    // Everything that arrives within `ms`. Not a proof that no reply follows (a late one passes
    // it): strayReplies is.
    std::string readFor(int ms);
    // Sends a command that every role answers at once, "SSO_GET_NODE_CONFIG|qxss-fence", and
    // returns what arrived before its reply: the replies of the commands sent earlier, which the
    // worker answers in order. So "" proves that they got no reply, without waiting for a time
    // that might be too short. Ends with "<no fence reply>" when the fence is not answered
    // within `ms`.
    std::string repliesBeforeFence(int ms = 5000);
    // The check that the commands answered so far get no further reply, which cannot pass
    // just because a stray reply is late: waits until `log` holds `closing`, the statement
    // after which the commands do no more work that could write (for a background login,
    // LoginChannel::drained(session); for the blocking road, its last statement; for a command
    // answered at once, the statement of its answer), then sends the fence, whose reply must
    // be the next line. "" when it is; otherwise the lines that came first, or
    // "<no closing statement: ...>" when `closing` did not come within `ms`.
    std::string strayReplies(LogCapture const &log, std::string const &closing, int ms = 10000);
    // Closes the host's end (end of file for the worker).
    void closeHostEnd();

    int hostFd = -1;
    int libraryFd = -1;
    bool started = false;

private:
    // Reads what arrives before `deadline` into pending_; false at the deadline or the end.
    bool receive(std::chrono::steady_clock::time_point deadline);
    std::string pending_;
};

// The worker's thread id as its log statements show it, taken from the host's line
// "Sso: Thread <id> created with I/O FD#..." (logged before SsoInitialize returns); "" when the
// capture holds no such line.
std::string workerThreadId(LogCapture const &log);
