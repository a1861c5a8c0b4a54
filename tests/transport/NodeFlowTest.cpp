// The node verify flow on the engine, without a worker and without any provider record: which
// node data starts it, and what an empty address does to it.
#include "server/SsoServer.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/FlowPump.h"
#include "tests/harness/LogCapture.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

namespace {

class NodeFlowTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(restartNetwork(network));
        // No provider record at all, as on a node.
        SsoServer::getServer().clearConfigs();
        idp.on("/me", 200, "{\"email\":\"carol@example.com\"}");
    }

    CurlRequest &network = CurlRequest::getNetwork();
    FailureServer idp;
    LogCapture log;
};

TEST_F(NodeFlowTest, RunsWithoutAnyProviderRecordAndIgnoresQxProxy) {
    // Nothing listens at the proxy: the flow only succeeds on a direct connection.
    std::string config =
        "{\"access_token\":\"t\",\"qx_proxy\":\"http://127.0.0.1:1\","
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        idp.url("/me") + "\"}";
    ASSERT_TRUE(network.startNodeVerifyFlow("node-session", config));
    AsyncFlowResult result;
    ASSERT_TRUE(pumpUntilFinished(network, result));
    EXPECT_TRUE(result.success) << result.errorMessage;
    EXPECT_EQ(result.flowType, 3);
    EXPECT_EQ(result.data, "carol|node-session");
    EXPECT_EQ(idp.requests().size(), 1u);
    // Without "provider" the completion reads the default claim.
    EXPECT_TRUE(
        log.has("SsoServer: Reading userinfo response. Provider: '' , user name "
                "preference: '' , user type preference: 'local'.\n"));
}

TEST_F(NodeFlowTest, DataThatIsNotUsableKeepsTheFlowFromStarting) {
    for (std::string config : {std::string("not json"), std::string("{\"access_token\":\"t\"}"),
                               std::string("{\"userinfo_uri\":\"" + idp.url("/me") + "\"}")}) {
        log.clear();
        EXPECT_FALSE(network.startNodeVerifyFlow("node-session", config)) << config;
        EXPECT_FALSE(network.hasActiveFlow("node-session")) << config;
        EXPECT_TRUE(log.has("CurlRequest: ERROR! Failed to queue node userinfo request.\n"));
    }
    EXPECT_TRUE(network.requests.empty());
}

TEST_F(NodeFlowTest, EmptyAddressStartsButItsTransferNeverDoes) {
    ASSERT_TRUE(network.startNodeVerifyFlow("node-session",
                                            "{\"access_token\":\"t\",\"userinfo_uri\":\"\"}"));
    pumpTurns(network, 5);
    EXPECT_EQ(log.count("CurlRequest: ERROR! Failed to set URL.\n"), 3u);
    EXPECT_TRUE(network.requests.empty());
    AsyncFlowResult none;
    EXPECT_FALSE(network.getCompletedFlow(none));
    // No result ever comes, and the session stays busy.
    EXPECT_TRUE(network.hasActiveFlow("node-session"));
    EXPECT_FALSE(network.startNodeVerifyFlow(
        "node-session", "{\"access_token\":\"t\",\"userinfo_uri\":\"" + idp.url("/me") + "\"}"));
    EXPECT_TRUE(idp.requests().empty());
}

}  // namespace
