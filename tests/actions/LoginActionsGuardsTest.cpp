// The machine-type guards of the three blocking login operations, and what passes them.
#include "actions/SsoActions.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>

namespace {

std::string taken(char *token) {
    std::unique_ptr<char[]> owned(token);
    return owned ? std::string(owned.get()) : std::string();
}

class LoginActionsGuardsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(idp.port, 0);
        ASSERT_TRUE(SsoRequest::getNetwork().init(CURL_GLOBAL_ALL));
        saved = server.machineType;
        idp.on("/token", 200,
               "{\"access_token\":\"at-1\",\"id_token\":\"id-1\",\"refresh_token\":\"rt-1\"}");
        idp.on("/me", 200, "{\"email\":\"alice@example.com\"}");
        ASSERT_TRUE(server.configs.empty());
        ProviderRecord("keycloak")
            .client("cid", "secret")
            .tokenAt(idp.url("/token"))
            .userinfoAt(idp.url("/me"))
            .localUsers()
            .with([](SsoServerConfigOAuth &record) { record.refresh = true; })
            .addTo(server);
        server.authzInfoBySession["sess"] = OAuthAuthzInfo{0, "verifier", "http://127.0.0.1/cb"};
        server.refreshInfoBySession["value"] =
            OAuthRefreshInfo{0, static_cast<int64_t>(std::time(nullptr)), "rt-0", "at-0"};
        log.clear();
    }
    void TearDown() override {
        server.machineType = saved;
        server.clearConfigs();
        SsoRequest::getNetwork().cleanUp();
    }

    std::string node() const {
        return "{\"access_token\":\"at-n\",\"provider\":\"keycloak\",\"qx_user_type\":\"local\","
               "\"userinfo_uri\":\"" +
               idp.url("/me") + "\"}";
    }

    FailureServer idp;
    SsoServer &server = SsoServer::getServer();
    int32_t saved = -1;
    LogCapture log;
};

TEST_F(LoginActionsGuardsTest, NodeRefusesVerifyAndRefreshBeforeTheEngine) {
    server.machineType = SsoServer::kMachineNode;
    EXPECT_EQ(SsoActions::verifyLogin("code", "sess"), nullptr);
    EXPECT_EQ(SsoActions::refreshLogin("uuid", "value"), nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoActions: WARNING! Machine type is node. Can not perform verify login.\n",
                  "SsoActions: WARNING! Machine type is node. Can't perform refresh login.\n"}));
    // The records were not touched and no request went out.
    EXPECT_EQ(server.authzInfoBySession.count("sess"), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count("value"), 1u);
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(LoginActionsGuardsTest, NodeLoginIsRefusedOnAServerAndWhenTheTypeIsNotSet) {
    for (int32_t type : {SsoServer::kMachineServer, SsoServer::kMachineUnset}) {
        SCOPED_TRACE(type);
        server.machineType = type;
        log.clear();
        EXPECT_EQ(SsoActions::nodeLogin(node().c_str(), "s"), nullptr);
        EXPECT_EQ(log.lines(), (std::vector<std::string>{
                                   "SsoActions: WARNING! Machine type is not node. Can not "
                                   "perform node login.\n"}));
    }
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(LoginActionsGuardsTest, NodeLoginPassesOnANode) {
    server.machineType = SsoServer::kMachineNode;
    std::string const config = node();
    EXPECT_EQ(taken(SsoActions::nodeLogin(config.c_str(), "s")), "alice|s");
    EXPECT_EQ(log.lines().front(), "SsoActions: Start node login. Received node configuration: '" +
                                       config + "' and user session: 's'.\n");
    EXPECT_FALSE(log.contains("SsoActions: WARNING!"));
    EXPECT_FALSE(log.contains("SsoActions: ERROR!"));
}

TEST_F(LoginActionsGuardsTest, VerifyAndRefreshPassTheirGuardsWhenTheTypeIsNotSet) {
    server.machineType = SsoServer::kMachineUnset;
    std::string token = taken(SsoActions::verifyLogin("code-1", "sess"));
    EXPECT_EQ(token.compare(0, 6, "alice|"), 0) << token;
    EXPECT_EQ(log.lines().front(),
              "SsoActions: Start verify login. Received OAuth code: 'code-1'"
              " and user session: 'sess'.\n");
    std::string refreshed = taken(SsoActions::refreshLogin("uuid-1", "value"));
    EXPECT_EQ(refreshed.compare(0, 6, "alice|"), 0) << refreshed;
    EXPECT_TRUE(
        log.has("SsoActions: Start refresh login. Received UUID: 'uuid-1' and user "
                "session: 'value'.\n"));
    EXPECT_FALSE(log.contains("SsoActions: WARNING!"));
    EXPECT_FALSE(log.contains("SsoActions: ERROR!"));
    EXPECT_EQ(idp.requests().size(), 4u);
}

TEST_F(LoginActionsGuardsTest, AFailedEngineCallAddsTheOperationsOwnLine) {
    server.machineType = SsoServer::kMachineServer;
    EXPECT_EQ(SsoActions::verifyLogin("code", "nobody"), nullptr);
    EXPECT_EQ(SsoActions::refreshLogin("uuid", "nobody"), nullptr);
    server.machineType = SsoServer::kMachineNode;
    EXPECT_EQ(SsoActions::nodeLogin("{}", "s"), nullptr);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: ERROR! Login information doesn't exist for specified session token.\n",
        "SsoActions: ERROR! Verify login failed.\n",
        "SsoServer: ERROR! Refresh information doesn't exist for specified session token.\n",
        "SsoActions: ERROR! Refresh login failed.\n",
        "SsoServer: ERROR! JSON object is empty.\n",
        "SsoActions: ERROR! Node login failed.\n",
    }));
}

TEST_F(LoginActionsGuardsTest, WithoutTheBlockingTransportEveryRoadEndsInFailure) {
    SsoRequest::getNetwork().cleanUp();
    server.machineType = SsoServer::kMachineServer;
    log.clear();
    EXPECT_EQ(SsoActions::verifyLogin("code", "sess"), nullptr);
    EXPECT_TRUE(log.hasInOrder({
        "SsoRequest: ERROR! Curl is not initialize.\n",
        "SsoServer: ERROR! Parsing string exchange to JSON object failed.\n",
        "SsoServer: ERROR! Tokens validation failed.\n",
        "SsoActions: ERROR! Verify login failed.\n",
    }));
    EXPECT_EQ(SsoActions::refreshLogin("uuid", "value"), nullptr);
    EXPECT_TRUE(log.has("SsoActions: ERROR! Refresh login failed.\n"));
    server.machineType = SsoServer::kMachineNode;
    EXPECT_EQ(SsoActions::nodeLogin(node().c_str(), "s"), nullptr);
    EXPECT_TRUE(log.hasInOrder(
        {"SsoServer: ERROR! Final user is empty.\n", "SsoActions: ERROR! Node login failed.\n"}));
    EXPECT_TRUE(idp.requests().empty());
    // Put back for TearDown, which cleans up after every test.
    ASSERT_TRUE(SsoRequest::getNetwork().init(CURL_GLOBAL_ALL));
}

}  // namespace
