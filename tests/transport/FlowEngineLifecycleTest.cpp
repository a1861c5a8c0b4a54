// The flow engine before its start and after its clean-up, and a worker stopped and started
// again while a flow still waits on the network.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "tests/transport/FlowEngineTest.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

TEST(FlowEngineIdleTest, PerformBeforeInitReturnsZeroAndTouchesNothing) {
    CurlRequest network;
    LogCapture log;
    EXPECT_EQ(network.perform(), 0);
    EXPECT_FALSE(network.startNodeVerifyFlow("s-early",
                                             FlowEngineTest::nodeConfig("http://127.0.0.1:1/me")));
    EXPECT_EQ(network.perform(), 0);
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Not initialized.\n"}));
    EXPECT_TRUE(network.requests.empty());
    EXPECT_TRUE(network.handlers.empty());
    EXPECT_TRUE(network.activeFlows.empty());
    EXPECT_TRUE(network.requestToSession.empty());
    EXPECT_EQ(network.nextRequestId, 1);
    EXPECT_EQ(network.multiHandle, nullptr);
}

TEST(FlowEngineIdleTest, PerformAfterCleanUpReturnsZero) {
    CurlRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    ASSERT_TRUE(
        network.startNodeVerifyFlow("s-cut", FlowEngineTest::nodeConfig("http://127.0.0.1:1/me")));
    network.cleanUp();
    LogCapture log;
    EXPECT_EQ(network.perform(), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(network.requests.empty());
    EXPECT_FALSE(network.hasActiveFlow("s-cut"));
    // The identifier goes on counting across a clean-up.
    EXPECT_EQ(network.nextRequestId, 2);
}

class WorkerRestartTest : public ::testing::Test {
protected:
    void SetUp() override { TestMachine::node(); }
    void TearDown() override { TestMachine::reset(); }
};

TEST_F(WorkerRestartTest, StopWithAFlowInFlightThenANewWorkerServes) {
    FailureServer server;
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server.on("/hang", hang);
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_NODE_VERIFY|" + FlowEngineTest::nodeConfig(server.url("/hang")) + "|s-held\n");
    ASSERT_TRUE(log.waitFor("CurlRequest: Starting node verify flow for session 's-held'.\n"));
    ASSERT_TRUE(log.waitForPiece(" now in flight.\n"));
    ASSERT_TRUE(server.waitForRequests(1));
    host.stop();
    // The held flow ends with the worker, without a reply: the old worker has ended, so the
    // first line after the restart is the new one's.
    EXPECT_TRUE(log.has("CurlRequest: Clean up.\n"));

    log.clear();
    ASSERT_EQ(host.start(), 0);
    EXPECT_TRUE(log.has("SsoActions: SsoRequest initialized successfully.\n"));
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    host.send("SSO_NODE_VERIFY|" + FlowEngineTest::nodeConfig(server.url("/me")) + "|s-again\n");
    EXPECT_EQ(host.readLine(), "SSO_NODE_VERIFY_OK|a@b|s-again\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained("s-again")), "");
    host.stop();
    EXPECT_EQ(server.requests().size(), 2u);
}

}  // namespace
