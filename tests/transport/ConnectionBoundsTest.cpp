// The flow engine's connections are bounded per provider host: transfers past the bound wait
// in libcurl's queue instead of opening more, and a few requests that a provider never answers
// leave room for the other logins.
#include "server/SsoServer.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/FlowPump.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string nodeConfig(std::string const &userinfoUri) {
    return "{\"access_token\":\"t\",\"userinfo_uri\":\"" + userinfoUri + "\"}";
}

class ConnectionBoundsTest : public EngineTest {
protected:
    void SetUp() override {
        SsoServer::getServer();
        ASSERT_TRUE(startNetwork(network, 3));
    }

    // Turns the engine until the server holds `count` requests; false after `limit` turns.
    bool turnsUntilReceived(FailureServer const &server, size_t count, int limit = 500) {
        for (int turns = 0; turns < limit; ++turns) {
            if (server.requests().size() >= count) {
                return true;
            }
            pumpTurns(network, 1);
        }
        return server.requests().size() >= count;
    }

    CurlRequest network;
};

TEST_F(ConnectionBoundsTest, TransfersPastTheHostBoundWaitInLibcurlsQueue) {
    FailureServer server;
    server.on("/hang", FailureServer::Mode::Hang);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(
            network.startNodeVerifyFlow("s-" + std::to_string(i), nodeConfig(server.url("/hang"))));
    }
    // The server answers one request per connection: each request it holds is a connection.
    ASSERT_TRUE(turnsUntilReceived(server, 64));
    pumpTurns(network, 50);
    EXPECT_EQ(server.requests().size(), 64u);
    // Every transfer was handed to libcurl; the rest wait there.
    size_t inFlight = 0;
    for (curlRequest const *request : network.requests) {
        inFlight += request->state == RequestInFlight ? 1 : 0;
    }
    EXPECT_EQ(inFlight, 100u);
}

TEST_F(ConnectionBoundsTest, AFewHungRequestsLeaveRoomForOtherLogins) {
    FailureServer server;
    server.on("/hang", FailureServer::Mode::Hang);
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(network.startNodeVerifyFlow("hung-" + std::to_string(i),
                                                nodeConfig(server.url("/hang"))));
    }
    ASSERT_TRUE(turnsUntilReceived(server, 40));
    ASSERT_TRUE(network.startNodeVerifyFlow("other", nodeConfig(server.url("/me"))));
    AsyncFlowResult result;
    ASSERT_TRUE(pumpUntilFinished(network, result, 10000));
    EXPECT_EQ(result.sessionId, "other");
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_TRUE(network.hasActiveFlow("hung-0"));
}

}  // namespace
