#pragma once

#include <memory>
#include <string>

class FailureServer;
class LogCapture;
class WorkerHost;

// A background flow that keeps a session busy, so that the next login command of that session
// cannot start a flow of its own and takes the blocking road: a node verification whose
// userinfo endpoint never answers. Tests that send the blocking road a login use it.
class HeldSession {
public:
    HeldSession();
    ~HeldSession();
    HeldSession(HeldSession const &) = delete;
    HeldSession &operator=(HeldSession const &) = delete;

    // Starts the flow for `session` on `host` and waits until its request has reached the
    // endpoint (the flow's start is seen in `log`). False when either did not happen in time.
    bool hold(WorkerHost &host, LogCapture const &log, std::string const &session);
    // Lets go of the endpoint: the flow fails and its command gets its failure line, which the
    // caller reads.
    void release();

private:
    std::unique_ptr<FailureServer> hangs_;
};
