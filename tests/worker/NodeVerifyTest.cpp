// A cluster verifies a user on a node: the server hands out the node configuration of a login,
// the node confirms the user at the provider's userinfo endpoint with the access token in it.
// Bad node data falls back to the blocking road, which has checks of its own.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

class NodeVerifyTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
    }
    void TearDown() override {
        node.stop();
        server.stop();
        TestMachine::reset();
    }

    // Logs alice in on a server with `entry` and asks for her node configuration, as the
    // cluster's server does; then stops the server's worker. The node JSON and the session.
    std::pair<std::string, std::string> issueNodeConfig(LoginDriver::Entry const &entry) {
        EXPECT_EQ(LoginChannel::startServer(server, {entry}), "SSO_LOAD_CONFIGS_OK\n");
        std::string userSession = LoginDriver::newSession();
        std::string reply = LoginChannel::login(server, 0, userSession);
        auto token = LoginChannel::parse(reply);
        EXPECT_TRUE(token.ok) << reply;
        EXPECT_EQ(server.strayReplies(log, LoginChannel::drained(userSession)), "");
        server.send("SSO_GET_NODE_CONFIG|" + token.sessionValue + "\n");
        std::string line = server.readLine(5000);
        auto config = LoginChannel::nodeConfig(line);
        EXPECT_EQ(config.second, token.sessionValue) << line;
        EXPECT_EQ(server.strayReplies(log, "SsoServer: Finalizing node configuration.\n"), "");
        // Reading does not consume the record.
        EXPECT_EQ(SsoServer::getServer().refreshInfoBySession.count(token.sessionValue), 1u);
        server.stop();
        return config;
    }

    // This process becomes a node with a worker of its own.
    void becomeNode() {
        TestMachine::reset();
        TestMachine::node();
        ASSERT_EQ(node.start(), 0);
    }

    static std::string nodeJson(std::string const &userinfoUri, std::string const &accessToken,
                                std::string const &provider = "keycloak") {
        std::string text = "{";
        if (!provider.empty()) {
            text += "\"provider\":\"" + provider + "\",";
        }
        if (!userinfoUri.empty()) {
            text += "\"userinfo_uri\":\"" + userinfoUri + "\",";
        }
        return text + "\"access_token\":\"" + accessToken + "\",\"qx_user_type\":\"local\"}";
    }

    std::string lineStartingWith(std::string const &start) const {
        for (auto const &line : log.lines()) {
            if (line.compare(0, start.size(), start) == 0) {
                return line;
            }
        }
        return std::string();
    }

    WorkerHost server;
    WorkerHost node;
    LogCapture log;
};

TEST_F(NodeVerifyTest, NodeConfirmsTheUserOfTheServersLogin) {
    auto &provider = LocalProvider::shared();
    auto config = issueNodeConfig(LoginDriver::Entry());
    std::string const &json = config.first;
    std::string const &session = config.second;
    EXPECT_NE(json.find("\"userinfo_uri\":\"" + provider.baseUrl() + "/me\""), std::string::npos)
        << json;
    becomeNode();
    int userinfoRequests = provider.requestCount("/me");
    log.clear();
    node.send("SSO_NODE_VERIFY|" + json + "|" + session + "\n");
    // The node form: user and session, and no user session after it.
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(provider.requestCount("/me"), userinfoRequests + 1);
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async node verify flow for user session: '" + session + "'.\n",
        "CurlRequest: Starting node verify flow for session '" + session + "'.\n",
        "Sso: Started async node verify flow successfully for user session: '" + session + "'.\n",
        "CurlRequest: Node userinfo received processing with server operations.\n",
        "SsoServer: Completing async node flow for session: '" + session + "'.\n",
        "SsoServer: Async node flow completed. Result: 'alice|" + session + "'.\n",
        "CurlRequest: Node flow processed successfully.\n",
        "Sso: Processing completed async flow for session: '" + session + "'.\n",
    })) << log.text();
}

TEST_F(NodeVerifyTest, QxProxyInTheNodeConfigIsNotUsedButProxyIs) {
    auto &proxy = LocalProxy::shared();
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    LoginDriver::Entry entry;
    entry.proxy = proxy.url();
    auto config = issueNodeConfig(entry);
    std::string const &json = config.first;
    std::string const &session = config.second;
    ASSERT_NE(json.find("\"qx_proxy\":\"" + proxy.url() + "\""), std::string::npos) << json;
    becomeNode();

    int before = proxy.connections();
    node.send("SSO_NODE_VERIFY|" + json + "|" + session + "\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(proxy.connections(), before);

    // The key this road reads is "proxy".
    std::string withProxy = "{\"proxy\":\"" + proxy.url() + "\"," + json.substr(1);
    node.send("SSO_NODE_VERIFY|" + withProxy + "|" + session + "\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(proxy.connections(), before + 1);
}

TEST_F(NodeVerifyTest, AccessTokenTheProviderRefusesFails) {
    becomeNode();
    std::string const session = "node-user-session";
    node.send("SSO_NODE_VERIFY|" +
              nodeJson(LocalProvider::shared().baseUrl() + "/me", "not-a-real-token") + "|" +
              session + "\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
    std::string failed = lineStartingWith("Sso: Async flow failed: 'HTTP error: ");
    EXPECT_NE(failed.find("invalid_token"), std::string::npos) << log.text();
    EXPECT_NE(failed.find("' HTTP: 401.\n"), std::string::npos) << failed;
}

TEST_F(NodeVerifyTest, NodeConfigThatIsNotJsonFailsOnBothRoads) {
    becomeNode();
    std::string const session = "node-user-session";
    node.send("SSO_NODE_VERIFY|not json at all|" + session + "\n");
    EXPECT_EQ(node.readLine(5000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, "Sso: ERROR! Sync node login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async node verify flow for user session: '" + session + "'.\n",
        "CurlRequest: Starting node verify flow for session '" + session + "'.\n",
        "CurlRequest: ERROR! Failed to parse node config JSON.\n",
        "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
        "Sso: WARNING! Async node verify flow failed to start. Falling back to sync path for "
        "user session: '" +
            session + "'.\n",
        "Sso: Executing sync node login for user session: '" + session + "'.\n",
        "SsoServer: ERROR! Parsing config string to JSON object failed.\n",
        "Sso: ERROR! Sync node login also failed.\n",
    })) << log.text();
}

TEST_F(NodeVerifyTest, NodeConfigWithoutUserinfoUriLeavesNoFlowBehind) {
    FailureServer idp;
    idp.on("/me", 200, "{\"email\":\"carol@example.com\"}");
    becomeNode();
    std::string const session = "node-user-session";
    node.send("SSO_NODE_VERIFY|" + nodeJson("", "token") + "|" + session + "\n");
    EXPECT_EQ(node.readLine(5000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, "Sso: ERROR! Sync node login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Node config missing required fields.\n",
        "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
        "Sso: Executing sync node login for user session: '" + session + "'.\n",
        "SsoServer: ERROR! Field 'userinfo_uri' is not set in config.\n",
        "Sso: ERROR! Sync node login also failed.\n",
    })) << log.text();
    EXPECT_TRUE(idp.requests().empty());

    // The session has no flow left: the next one starts.
    log.clear();
    node.send("SSO_NODE_VERIFY|" + nodeJson(idp.url("/me"), "token") + "|" + session + "\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|carol|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_TRUE(log.has("Sso: Started async node verify flow successfully for user session: '" +
                        session + "'.\n"));
}

TEST_F(NodeVerifyTest, NodeConfigWithoutProviderReadsTheDefaultClaim) {
    FailureServer idp;
    idp.on("/me", 200, "{\"email\":\"carol@example.com\",\"preferred_username\":\"cc\"}");
    becomeNode();
    node.send("SSO_NODE_VERIFY|" + nodeJson(idp.url("/me"), "token", "") + "|s-1\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|carol|s-1\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained("s-1")), "");
    EXPECT_TRUE(
        log.has("SsoServer: Reading userinfo response. Provider: '' , user name "
                "preference: '' , user type preference: 'local'.\n"))
        << log.text();
    // The same document read for "okta" gives its preferred name.
    node.send("SSO_NODE_VERIFY|" + nodeJson(idp.url("/me"), "token", "okta") + "|s-2\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|cc|s-2\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained("s-2")), "");
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE((requests[0].headers + "\r\n").find("Authorization: Bearer token\r\n"),
              std::string::npos);
}

TEST_F(NodeVerifyTest, OnAServerAFlowThatCannotStartFails) {
    ASSERT_EQ(LoginChannel::startServer(server, {LoginDriver::Entry()}), "SSO_LOAD_CONFIGS_OK\n");
    std::string const session = "server-user-session";
    server.send("SSO_NODE_VERIFY|not json|" + session + "\n");
    EXPECT_EQ(server.readLine(5000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(server.strayReplies(log, "Sso: ERROR! Sync node login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: WARNING! Async node verify flow failed to start. Falling back to sync path for "
        "user session: '" +
            session + "'.\n",
        "Sso: Executing sync node login for user session: '" + session + "'.\n",
        "SsoActions: WARNING! Machine type is not node. Can not perform node login.\n",
        "Sso: ERROR! Sync node login also failed.\n",
    })) << log.text();
}

TEST_F(NodeVerifyTest, BlockingRoadVerifiesWhenTheSessionHasAFlow) {
    auto stuck = std::make_unique<FailureServer>();
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    stuck->on("/me", hang);
    FailureServer idp;
    idp.on("/me", 200, "{\"email\":\"carol@example.com\"}");
    becomeNode();
    std::string const session = "node-user-session";
    node.send("SSO_NODE_VERIFY|" + nodeJson(stuck->url("/me"), "t-1") + "|" + session + "\n");
    ASSERT_TRUE(log.waitFor("Sso: Started async node verify flow successfully for user session: '" +
                            session + "'.\n"));

    node.send("SSO_NODE_VERIFY|" + nodeJson(idp.url("/me"), "t-2") + "|" + session + "\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_OK|carol|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, "Sso: Sync node login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: WARNING! Async node verify flow failed to start. Falling back to sync path for "
        "user session: '" +
            session + "'.\n",
        "Sso: Executing sync node login for user session: '" + session + "'.\n",
        "SsoServer: WARNING! Field 'qx_proxy' is not set in config.\n",
        "SsoServer: WARNING! Field 'qx_user_name' is not set in config.\n",
        "Sso: Sync node login succeeded (failover).\n",
    })) << log.text();

    stuck.reset();
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(node.strayReplies(log, LoginChannel::drained(session)), "");
}

}  // namespace
