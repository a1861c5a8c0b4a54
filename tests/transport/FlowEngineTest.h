#pragma once

#include "server/SsoServer.h"
#include "tests/harness/EngineTest.h"
#include "transport/CurlRequest.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

// The flow engine of the test's own, driven turn by turn as the worker drives it, with real
// transfers against loopback servers.
class FlowEngineTest : public EngineTest {
public:
    // A node configuration as the node verify flow reads it.
    static std::string nodeConfig(std::string const &userinfoUri) {
        return "{\"access_token\":\"t\",\"userinfo_uri\":\"" + userinfoUri + "\"}";
    }

protected:
    void SetUp() override {
        // Built before any capture, so that its first use logs nothing into a test's lines.
        SsoServer::getServer();
        ASSERT_TRUE(startNetwork(network));
    }

    // One turn as the worker makes it, then a wait of at most 50 ms for libcurl's sockets.
    int32_t turn() {
        int32_t waiting = network.perform();
        if (waiting == 0 && network.multiHandle != nullptr) {
            curl_multi_poll(network.multiHandle, nullptr, 0, 50, nullptr);
        }
        return waiting;
    }
    // Turns until `count` results wait; the number of turns, or -1 after `limit` turns.
    int turnsUntilResults(size_t count = 1, int limit = 200) {
        for (int turns = 1; turns <= limit; ++turns) {
            if (static_cast<size_t>(turn()) >= count) {
                return turns;
            }
        }
        return -1;
    }
    // Turns until no transfer record is left; false after `limit` turns.
    bool turnsUntilNoRequests(int limit = 200) {
        for (int turns = 0; turns < limit; ++turns) {
            turn();
            if (network.requests.empty()) {
                return true;
            }
        }
        return false;
    }
    // Starts a node verify flow of `session` against `url` and runs it to its result.
    AsyncFlowResult runNodeFlow(std::string const &session, std::string const &url) {
        AsyncFlowResult result;
        EXPECT_TRUE(network.startNodeVerifyFlow(session, nodeConfig(url)));
        EXPECT_GT(turnsUntilResults(), 0);
        EXPECT_TRUE(network.getCompletedFlow(result));
        return result;
    }

    CurlRequest network;
};
