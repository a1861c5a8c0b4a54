#pragma once

#include "bench/login/Timing.h"

#include "tests/harness/ChildProcess.h"

#include <string>
#include <vector>

// openid-client in its own node process (tests/servers/peer.js), started once against the
// provider at `base`: its authorization-code grant and userinfo call, timed by its own clock.
// Over HTTPS it trusts the test CA through NODE_EXTRA_CA_CERTS in its environment.
class PeerClient {
public:
    // False when the peer did not start.
    bool start(std::string const &base);
    void run(std::vector<Job> const &jobs, size_t parallel, Series &series);

private:
    ChildProcess node_;
};
