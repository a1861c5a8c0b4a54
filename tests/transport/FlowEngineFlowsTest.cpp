// Flows side by side and their transfers: one flow per session, results in the order the flows
// ended, a transfer whose flow has gone, and transfers that cannot get a handle or options.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/transport/FlowEngineTest.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

TEST_F(FlowEngineTest, SecondStartForARunningFlowChangesNothing) {
    FailureServer server;
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server.on("/hang", hang);
    std::string first = nodeConfig(server.url("/hang"));
    ASSERT_TRUE(network.startNodeVerifyFlow("s-busy", first));
    network.perform();
    ASSERT_EQ(network.requests.size(), 1u);
    ASSERT_EQ(network.requests[0]->state, RequestInFlight);
    int32_t nextId = network.nextRequestId;
    AsyncFlowContext before = network.activeFlows["s-busy"];

    LogCapture log;
    EXPECT_FALSE(network.startNodeVerifyFlow("s-busy", nodeConfig(server.url("/other"))));
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Session already has active flow.\n"}));
    EXPECT_TRUE(network.hasActiveFlow("s-busy"));
    AsyncFlowContext const &after = network.activeFlows["s-busy"];
    EXPECT_EQ(after.nodeConfig, first);
    EXPECT_EQ(after.state, before.state);
    EXPECT_EQ(after.currentRequestId, before.currentRequestId);
    EXPECT_EQ(network.nextRequestId, nextId);
    ASSERT_EQ(network.requests.size(), 1u);
    EXPECT_EQ(network.requests[0]->state, RequestInFlight);
    EXPECT_EQ(network.requestToSession.size(), 1u);
    EXPECT_TRUE(network.completedFlows.empty());
}

TEST_F(FlowEngineTest, TwoFlowsComeOutInTheOrderTheyEnded) {
    auto slow = std::make_unique<FailureServer>();
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    slow->on("/me", hang);
    FailureServer fast;
    fast.on("/me", 200, "{\"email\":\"fast@b\"}");

    // The first to start is the last to end: its server holds the answer back.
    ASSERT_TRUE(network.startNodeVerifyFlow("s-started-first", nodeConfig(slow->url("/me"))));
    ASSERT_TRUE(network.startNodeVerifyFlow("s-started-second", nodeConfig(fast.url("/me"))));
    ASSERT_GT(turnsUntilResults(1), 0);
    ASSERT_EQ(network.completedFlows.size(), 1u);
    EXPECT_EQ(network.completedFlows[0].sessionId, "s-started-second");
    ASSERT_TRUE(slow->waitForRequests(1));
    EXPECT_TRUE(network.hasActiveFlow("s-started-first"));
    slow.reset();  // closes the held connection: that flow ends now, with a libcurl error
    ASSERT_GT(turnsUntilResults(2), 0);

    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-started-second");
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.data, "fast@b|s-started-second");
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-started-first");
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage.compare(0, 12, "Curl error: "), 0) << result.errorMessage;
    EXPECT_FALSE(network.getCompletedFlow(result));
}

TEST_F(FlowEngineTest, FinishedTransferWhoseFlowHasGoneLeavesNoResult) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    ASSERT_TRUE(network.startNodeVerifyFlow("s-gone", nodeConfig(server.url("/me"))));
    network.perform();
    ASSERT_EQ(network.requests.size(), 1u);
    ASSERT_EQ(network.requests[0]->state, RequestInFlight);
    int32_t requestId = network.requests[0]->requestId;
    network.activeFlows.erase("s-gone");
    ASSERT_EQ(network.requestToSession.count(requestId), 1u);

    LogCapture log;
    ASSERT_TRUE(turnsUntilNoRequests());
    EXPECT_EQ(log.startingWith("CurlRequest: "),
              (Lines{"CurlRequest: Transfer completed, HTTP 200.\n",
                     "CurlRequest: Released handler.\n"}));
    EXPECT_TRUE(network.requestToSession.empty());
    EXPECT_TRUE(network.completedFlows.empty());
    AsyncFlowResult result;
    EXPECT_FALSE(network.getCompletedFlow(result));
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_FALSE(network.handlers[0]->inUse);
    EXPECT_EQ(server.requests().size(), 1u);
    // The released handle was taken off the multi handle: it serves the next flow.
    LogCapture next;
    AsyncFlowResult again = runNodeFlow("s-after", server.url("/me"));
    EXPECT_TRUE(again.success);
    EXPECT_FALSE(next.has("CurlRequest: Created handler for config 0.\n"));
}

TEST_F(FlowEngineTest, ThirdFailureToGetAHandlerFailsTheFlowAndKeepsTheMapping) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    ASSERT_TRUE(network.handlers.empty());
    network.failHandlerCreations = 3;
    ASSERT_TRUE(network.startNodeVerifyFlow("s-starved", nodeConfig(server.url("/me"))));
    ASSERT_EQ(network.requests.size(), 1u);
    int32_t requestId = network.requests[0]->requestId;
    Lines attempt{"CurlRequest: No free handler creating dynamic handler for config 0.\n",
                  "CurlRequest: ERROR! Failed to create handler.\n",
                  "CurlRequest: ERROR! Failed to acquire handler for config 0.\n"};
    for (int tried = 1; tried <= 2; ++tried) {
        SCOPED_TRACE(tried);
        LogCapture log;
        EXPECT_EQ(network.perform(), 0);
        EXPECT_EQ(log.lines(), attempt);
        ASSERT_EQ(network.requests.size(), 1u);
        EXPECT_EQ(network.requests[0]->state, RequestQueued);
        EXPECT_EQ(network.requests[0]->retryCount, tried);
        EXPECT_TRUE(network.hasActiveFlow("s-starved"));
    }
    LogCapture log;
    EXPECT_EQ(network.perform(), 1);
    Lines last = attempt;
    last.push_back("CurlRequest: ERROR! 'Failed to acquire handler' HTTP: 0.\n");
    EXPECT_EQ(log.lines(), last);
    EXPECT_EQ(network.failHandlerCreations, 0);
    EXPECT_TRUE(network.requests.empty());
    EXPECT_FALSE(network.hasActiveFlow("s-starved"));
    // Only a finished transfer erases its mapping; this one never ran.
    ASSERT_EQ(network.requestToSession.count(requestId), 1u);
    EXPECT_EQ(network.requestToSession[requestId], "s-starved");
    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-starved");
    EXPECT_EQ(result.flowType, FlowNodeVerify);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.data, "");
    EXPECT_EQ(result.errorMessage, "Failed to acquire handler");
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_FALSE(network.getCompletedFlow(result));
    EXPECT_TRUE(network.handlers.empty());
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(FlowEngineTest, ThirdSetterFailureDropsTheTransferAndLeavesTheFlowWaiting) {
    LogCapture log;
    ASSERT_TRUE(network.startNodeVerifyFlow("s-nourl", nodeConfig("")));
    ASSERT_EQ(network.requests.size(), 1u);
    int32_t requestId = network.requests[0]->requestId;
    Lines failed{"CurlRequest: ERROR! Failed to set URL.\n", "CurlRequest: Released handler.\n"};
    for (int tried = 1; tried <= 3; ++tried) {
        SCOPED_TRACE(tried);
        log.clear();
        EXPECT_EQ(network.perform(), 0);
        Lines expected;
        if (tried == 1) {
            expected = {"CurlRequest: No free handler creating dynamic handler for config 0.\n",
                        "CurlRequest: Created handler for config 0.\n"};
        }
        expected.insert(expected.end(), failed.begin(), failed.end());
        EXPECT_EQ(log.lines(), expected);
        EXPECT_EQ(network.requests.size(), tried < 3 ? 1u : 0u);
    }
    EXPECT_TRUE(network.hasActiveFlow("s-nourl"));
    EXPECT_TRUE(network.completedFlows.empty());
    EXPECT_EQ(network.requestToSession.count(requestId), 1u);
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_FALSE(network.handlers[0]->inUse);
    // Nothing is left to drive the flow, and the session can't start another one.
    log.clear();
    EXPECT_EQ(network.perform(), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(network.startNodeVerifyFlow("s-nourl", nodeConfig("http://127.0.0.1:1/me")));
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Session already has active flow.\n"}));
}

}  // namespace
