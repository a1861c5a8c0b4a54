#pragma once

#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// What the HTTPS tests share: the world of scripts/with-test-ca.sh (skipped outside it), a
// server loaded on `host`, whole logins at the HTTPS provider, and a way onto the blocking
// road: a session whose background flow hangs, so that the next command for it cannot start a
// flow of its own.
class HttpsRoads : public ::testing::Test {
protected:
    static constexpr int64_t kNow = 1750000000;

    void SetUp() override;
    void TearDown() override;

    // An entry for the HTTPS provider, through the local proxy when `viaProxy`.
    static LoginDriver::Entry providerEntry(bool refresh, bool viaProxy);
    // Makes this process a server with `entries` and loads them on `on`; the reply.
    static std::string load(WorkerHost &on, std::vector<LoginDriver::Entry> const &entries);
    // Sends "SSO_GET_CONFIG" and signs alice in at the HTTPS provider: the code, or "".
    std::string authorize(WorkerHost &on, int id, std::string const &session);
    // The session value of a "<word>|<user>|<value>|<expiry>|<session>\n" reply, or "".
    static std::string valueOf(std::string const &reply, std::string const &word,
                               std::string const &session, std::string const &user = "alice");

    // Starts a background node verification for `session` on `on` whose userinfo call never
    // gets an answer, and waits until that call has reached the server.
    void holdSession(WorkerHost &on, std::string const &session);
    // Lets the held call go: the held flow fails and answers for itself.
    void releaseSession(WorkerHost &on, std::string const &session);

    WorkerHost host;
    LogCapture log;
    std::unique_ptr<FailureServer> hangs;
};
