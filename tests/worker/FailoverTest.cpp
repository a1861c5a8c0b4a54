// Login commands whose background flow cannot start: the worker answers on the blocking road,
// with the same reply words, through the channel and against the local provider.
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/SsoChannel.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

bool allDigits(std::string const &text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "<word>|alice|<32-character session value>|<expiry>|<session>\n"; the session value, or "".
std::string sessionValueOf(std::string const &reply, std::string const &word,
                           std::string const &session) {
    auto parts = SsoChannel::split(reply);
    if (parts.size() != 5 || parts[0] != word || parts[1] != "alice" || parts[2].size() != 32 ||
        !allDigits(parts[3]) || parts[4] != session + "\n") {
        return std::string();
    }
    return parts[2];
}

class FailoverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
        FailureServer::Reply hang;
        hang.mode = FailureServer::Mode::Hang;
        hangs->on("/hang", hang);
    }
    void TearDown() override {
        host.stop();
        hangs.reset();
        // Records a test put in place for a worker that never started.
        SsoServer::getServer().clearConfigs();
        TestMachine::reset();
    }

    void startServer() {
        TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
        ASSERT_EQ(host.start(), 0);
        host.send("SSO_LOAD_CONFIGS\n");
        ASSERT_EQ(host.readLine(60000), "SSO_LOAD_CONFIGS_OK\n");
    }

    // A background flow for `session` that stays in flight: a node verification whose userinfo
    // endpoint never answers.
    void holdSession(WorkerHost &on, std::string const &session) {
        size_t before = hangs->requests().size();
        on.send(
            "SSO_NODE_VERIFY|{\"access_token\":\"held\",\"provider\":\"keycloak\","
            "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
            hangs->url("/hang") + "\"}|" + session + "\n");
        ASSERT_TRUE(
            log.waitFor("Sso: Started async node verify flow successfully for user session: '" +
                        session + "'.\n"));
        // The transfer has reached the endpoint, so that letting go of it ends the flow.
        ASSERT_TRUE(hangs->waitForRequests(before + 1));
        ASSERT_EQ(hangs->requests().size(), before + 1);
    }

    // Drops the endpoint that held the flow; the flow fails and answers for itself.
    void release(WorkerHost &on, std::string const &session) {
        hangs.reset();
        EXPECT_EQ(on.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
        EXPECT_EQ(on.strayReplies(log, LoginChannel::drained(session)), "");
    }

    // A whole login on the background road; the session value of its token.
    std::string login(std::string const &session) {
        auto authorization = LoginDriver::authorize(host, 0, session);
        EXPECT_TRUE(authorization.ok) << authorization.error;
        host.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
        std::string reply = host.readLine(10000);
        std::string value = sessionValueOf(reply, "SSO_VERIFY_OK", session);
        EXPECT_NE(value, "") << reply;
        EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
        return value;
    }

    std::unique_ptr<FailureServer> hangs = std::make_unique<FailureServer>();
    WorkerHost host;
    LogCapture log;
};

TEST_F(FailoverTest, VerifyOfASessionWithAFlowInFlightAnswersOnTheBlockingRoad) {
    startServer();
    std::string session = LoginDriver::newSession();
    auto authorization = LoginDriver::authorize(host, 0, session);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    holdSession(host, session);
    log.clear();
    host.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
    std::string reply = host.readLine(10000);
    std::string value = sessionValueOf(reply, "SSO_VERIFY_OK", session);
    EXPECT_NE(value, "") << reply;
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync verify login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async verify flow for user session: '" + session + "'.\n",
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: WARNING! Async verify flow failed to start. Falling back to sync path for user "
        "session: '" +
            session + "'.\n",
        "SsoServer: Push OAuth authz info for user session: '" + session + "' (failover restore)\n",
        "Sso: Executing sync verify login for user session: '" + session + "'.\n",
        "SsoActions: Start verify login. Received OAuth code: '" + authorization.code +
            "' and user session: '" + session + "'.\n",
        "Sso: Sync verify login succeeded (failover).\n",
    }));
    EXPECT_FALSE(log.contains("Started async verify flow successfully"));
    EXPECT_FALSE(log.contains("ERROR! Sync verify login also failed"));
    release(host, session);

    // The blocking road left a refresh record that the background road takes up.
    host.send("SSO_REFRESH|uuid-1|" + value + "\n");
    std::string refreshed = host.readLine(10000);
    EXPECT_NE(sessionValueOf(refreshed, "SSO_REFRESH_OK", value), "") << refreshed;
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(value)), "");
}

TEST_F(FailoverTest, RefreshOfASessionWithAFlowInFlightAnswersOnTheBlockingRoad) {
    startServer();
    std::string value = login(LoginDriver::newSession());
    ASSERT_NE(value, "");
    holdSession(host, value);
    log.clear();
    host.send("SSO_REFRESH|uuid-1|" + value + "\n");
    std::string reply = host.readLine(10000);
    std::string next = sessionValueOf(reply, "SSO_REFRESH_OK", value);
    EXPECT_NE(next, "") << reply;
    EXPECT_NE(next, value);
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync refresh login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async refresh flow for user session: '" + value + "'.\n",
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: WARNING! Async refresh flow failed to start. Falling back to sync path for user "
        "session: '" +
            value + "'.\n",
        "SsoServer: Push OAuth refresh info for user session: '" + value + "' (failover restore)\n",
        "Sso: Executing sync refresh login for user session: '" + value + "'.\n",
        "SsoActions: Start refresh login. Received UUID: 'uuid-1' and user session: '" + value +
            "'.\n",
        "Sso: Sync refresh login succeeded (failover).\n",
    }));
    EXPECT_FALSE(log.contains("Started async refresh flow successfully"));
    release(host, value);

    // The old session value is dead; the new one refreshes on the background road.
    host.send("SSO_REFRESH|uuid-2|" + value + "\n");
    EXPECT_EQ(host.readLine(5000), "SSO_REFRESH_FAILURE|" + value + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noRefreshInfo(value)), "");
    host.send("SSO_REFRESH|uuid-3|" + next + "\n");
    std::string again = host.readLine(10000);
    EXPECT_NE(sessionValueOf(again, "SSO_REFRESH_OK", next), "") << again;
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(next)), "");
}

TEST_F(FailoverTest, NodeVerifyOfASessionWithAFlowInFlightAnswersOnTheBlockingRoad) {
    // A server issues the node configuration, as it would for a real node.
    std::string nodeConfig;
    {
        WorkerHost server;
        TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
        ASSERT_EQ(server.start(), 0);
        server.send("SSO_LOAD_CONFIGS\n");
        ASSERT_EQ(server.readLine(60000), "SSO_LOAD_CONFIGS_OK\n");
        std::string session = LoginDriver::newSession();
        auto authorization = LoginDriver::authorize(server, 0, session);
        ASSERT_TRUE(authorization.ok) << authorization.error;
        server.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
        std::string value = sessionValueOf(server.readLine(10000), "SSO_VERIFY_OK", session);
        ASSERT_NE(value, "");
        server.send("SSO_GET_NODE_CONFIG|" + value + "\n");
        std::string reply = server.readLine(5000);
        std::string const prefix = "SSO_GET_NODE_CONFIG_OK|";
        std::string const suffix = "|" + value + "\n";
        ASSERT_EQ(reply.compare(0, prefix.size(), prefix), 0) << reply;
        ASSERT_GT(reply.size(), prefix.size() + suffix.size());
        ASSERT_EQ(reply.compare(reply.size() - suffix.size(), suffix.size(), suffix), 0);
        nodeConfig = reply.substr(prefix.size(), reply.size() - prefix.size() - suffix.size());
        server.stop();
    }

    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    std::string const session = "node-session-1";
    holdSession(host, session);
    log.clear();
    host.send("SSO_NODE_VERIFY|" + nodeConfig + "|" + session + "\n");
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync node login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async node verify flow for user session: '" + session + "'.\n",
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: WARNING! Async node verify flow failed to start. Falling back to sync path for user "
        "session: '" +
            session + "'.\n",
        "Sso: Executing sync node login for user session: '" + session + "'.\n",
        "SsoActions: Start node login. Received node configuration: '" + nodeConfig +
            "' and user session: '" + session + "'.\n",
        "Sso: Sync node login succeeded (failover).\n",
    }));
    release(host, session);

    // The background road answers the same configuration with the same words.
    log.clear();
    host.send("SSO_NODE_VERIFY|" + nodeConfig + "|node-session-2\n");
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|alice|node-session-2\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained("node-session-2")), "");
    EXPECT_TRUE(log.has(
        "Sso: Started async node verify flow successfully for user session: 'node-session-2'.\n"));
}

TEST_F(FailoverTest, RepeatedVerifyFindsTheRecordGoneAndAnswersAtOnce) {
    startServer();
    std::string session = LoginDriver::newSession();
    auto authorization = LoginDriver::authorize(host, 0, session);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    std::string const command = "SSO_VERIFY|" + authorization.code + "|" + session + "\n";
    // One write: the first starts its flow, the second finds the record popped.
    host.send(command + command);
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|" + session + "\n");
    std::string reply = host.readLine(10000);
    EXPECT_NE(sessionValueOf(reply, "SSO_VERIFY_OK", session), "") << reply;
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(log.count("Sso: Attempting async verify flow for user session: '" + session + "'.\n"),
              1u);
    EXPECT_TRUE(log.has(LoginChannel::noAuthInfo(session)));
}

TEST_F(FailoverTest, VerifyWithAConfigurationIdBeyondTheRecordsFailsOnBothRoads) {
    TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
    // Prepared before the worker runs; no configuration is loaded, so id 3 names nothing.
    SsoServer::getServer().authzInfoBySession["s-beyond"] =
        OAuthAuthzInfo{3, "verifier-0123456789", LocalProvider::redirectUri};
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_VERIFY|code-1|s-beyond\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|s-beyond\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: ERROR! Sync verify login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async verify flow for user session: 's-beyond'.\n",
        "CurlRequest: ERROR! Invalid config ID.\n",
        "CurlRequest: ERROR! Failed to queue token exchange request.\n",
        "Sso: WARNING! Async verify flow failed to start. Falling back to sync path for user "
        "session: 's-beyond'.\n",
        "SsoServer: Push OAuth authz info for user session: 's-beyond' (failover restore)\n",
        "Sso: Executing sync verify login for user session: 's-beyond'.\n",
        "SsoServer: ERROR! Config ID is invalid.\n",
        "SsoServer: ERROR! Login information validation failed.\n",
        "SsoActions: ERROR! Verify login failed.\n",
        "Sso: ERROR! Sync verify login also failed.\n",
    }));

    // The blocking road consumed the restored record: a repeat fails at the pop.
    log.clear();
    host.send("SSO_VERIFY|code-1|s-beyond\n");
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|s-beyond\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noAuthInfo("s-beyond")), "");
    EXPECT_TRUE(log.has(LoginChannel::noAuthInfo("s-beyond")));
    EXPECT_FALSE(log.contains("Attempting async verify flow"));
}

TEST_F(FailoverTest, VerifyWithAnEmptyConfigurationSlotFailsOnBothRoads) {
    TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
    SsoServer &server = SsoServer::getServer();
    server.configs.push_back(nullptr);
    server.authzInfoBySession["s-null"] =
        OAuthAuthzInfo{0, "verifier-0123456789", LocalProvider::redirectUri};
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_VERIFY|code-1|s-null\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|s-null\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: ERROR! Sync verify login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Config is null.\n",
        "CurlRequest: ERROR! Failed to queue token exchange request.\n",
        "Sso: WARNING! Async verify flow failed to start. Falling back to sync path for user "
        "session: 's-null'.\n",
        "Sso: Executing sync verify login for user session: 's-null'.\n",
        "SsoServer: ERROR! Config type is invalid.\n",
        "SsoServer: ERROR! Login information validation failed.\n",
        "Sso: ERROR! Sync verify login also failed.\n",
    }));
}

TEST_F(FailoverTest, RefreshWithABrokenConfigurationReferenceEndsBeforeAnyRoad) {
    TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
    SsoServer::getServer().refreshInfoBySession["v-beyond"] =
        OAuthRefreshInfo{3, static_cast<int64_t>(std::time(nullptr)), "rt", "at"};
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_REFRESH|uuid-1|v-beyond\n");
    EXPECT_EQ(host.readLine(5000), "SSO_REFRESH_FAILURE|v-beyond\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: Refresh token expired.\n"), "");
    EXPECT_TRUE(log.hasInOrder(
        {"SsoServer: ERROR! Config ID is invalid.\n", "Sso: Refresh token expired.\n"}));
    EXPECT_FALSE(log.contains("Attempting async refresh flow"));
    EXPECT_FALSE(log.contains("sync refresh login"));

    // The record was dropped, not restored.
    log.clear();
    host.send("SSO_REFRESH|uuid-1|v-beyond\n");
    EXPECT_EQ(host.readLine(5000), "SSO_REFRESH_FAILURE|v-beyond\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noRefreshInfo("v-beyond")), "");
    EXPECT_TRUE(log.has(LoginChannel::noRefreshInfo("v-beyond")));
}

TEST_F(FailoverTest, BadNodeDataFailsOnBothRoadsOfANode) {
    struct Row {
        std::string node;
        std::vector<std::string> flowLines;
        std::string blockingLine;
    };
    std::string const uri = LocalProvider::shared().baseUrl() + "/me";
    std::vector<Row> const rows = {
        {"{\"provider\":\"keycloak\",\"qx_user_type\":\"local\",\"userinfo_uri\":\"" + uri + "\"}",
         {"CurlRequest: ERROR! Node config missing required fields.\n"},
         "SsoServer: ERROR! Field 'access_token' is not set in config.\n"},
        {"{\"access_token\":\"at\",\"provider\":\"keycloak\",\"qx_user_type\":\"local\"}",
         {"CurlRequest: ERROR! Node config missing required fields.\n"},
         "SsoServer: ERROR! Field 'userinfo_uri' is not set in config.\n"},
        {"{\"access_token\":\"at\",\"provider\":\"keycloak\",",
         {"CurlRequest: ERROR! Failed to parse node config JSON.\n"},
         "SsoServer: ERROR! Parsing config string to JSON object failed.\n"},
    };
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    int turn = 0;
    for (auto const &row : rows) {
        SCOPED_TRACE(row.node);
        std::string session = "node-" + std::to_string(++turn);
        log.clear();
        host.send("SSO_NODE_VERIFY|" + row.node + "|" + session + "\n");
        EXPECT_EQ(host.readLine(5000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
        EXPECT_EQ(host.strayReplies(log, "Sso: ERROR! Sync node login also failed.\n"), "");
        std::vector<std::string> expected = {
            "Sso: Attempting async node verify flow for user session: '" + session + "'.\n"};
        expected.insert(expected.end(), row.flowLines.begin(), row.flowLines.end());
        std::vector<std::string> const tail = {
            "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
            "Sso: WARNING! Async node verify flow failed to start. Falling back to sync path for "
            "user session: '" +
                session + "'.\n",
            "Sso: Executing sync node login for user session: '" + session + "'.\n",
            "SsoActions: Start node login. Received node configuration: '" + row.node +
                "' and user session: '" + session + "'.\n",
            row.blockingLine,
            "SsoActions: ERROR! Node login failed.\n",
            "Sso: ERROR! Sync node login also failed.\n",
        };
        expected.insert(expected.end(), tail.begin(), tail.end());
        EXPECT_TRUE(log.hasInOrder(expected)) << log.text();
    }
}

TEST_F(FailoverTest, NodeVerifyFailingOverOnAServerIsRefusedByTheGuard) {
    startServer();
    host.send("SSO_NODE_VERIFY|{\"provider\":\"keycloak\",\"qx_user_type\":\"local\"}|s-node\n");
    EXPECT_EQ(host.readLine(5000), "SSO_NODE_VERIFY_FAILURE|s-node\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: ERROR! Sync node login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
        "Sso: Executing sync node login for user session: 's-node'.\n",
        "SsoActions: WARNING! Machine type is not node. Can not perform node login.\n",
        "Sso: ERROR! Sync node login also failed.\n",
    }));
    EXPECT_FALSE(log.contains("SsoServer: Received node configure"));
}

}  // namespace
