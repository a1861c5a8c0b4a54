// A user logs in through the channel as a host does it: against the local provider, against
// providers that misbehave, several users at once, and on the blocking road when no flow can
// start. Every login command gets exactly one reply.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>

namespace {

constexpr int64_t kNow = 1750000000;
// How the local provider refuses a code exchange, whatever the reason.
std::string const kInvalidGrant =
    "{\"error\":\"invalid_grant\",\"error_description\":\"grant request is invalid\"}";

class LoginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
        // Fixed before any worker runs, so that expiries and record ages are exact.
        PlatformFakes::clock() = [] { return kNow; };
    }
    void TearDown() override {
        host.stop();
        LocalProvider::shared().setRevocationBody(false);
        TestMachine::reset();
    }

    void startServer(std::vector<LoginDriver::Entry> const &entries) {
        ASSERT_EQ(LoginChannel::startServer(host, entries), "SSO_LOAD_CONFIGS_OK\n");
    }

    static LoginDriver::Entry local(bool refresh = true) {
        LoginDriver::Entry entry;
        entry.refresh = refresh;
        entry.lifetime = 600;
        return entry;
    }

    WorkerHost host;
    LogCapture log;
};

TEST_F(LoginTest, RefreshOnGivesARandomSessionAndARecord) {
    startServer({local()});
    std::string session = LoginDriver::newSession();
    std::string reply = LoginChannel::login(host, 0, session);
    auto token = LoginChannel::parse(reply);
    ASSERT_TRUE(token.ok) << reply;
    EXPECT_EQ(token.user, "alice");
    EXPECT_EQ(token.sessionValue.size(), 32u);
    EXPECT_EQ(token.sessionValue.find('|'), std::string::npos);
    EXPECT_EQ(token.expiry, std::to_string(kNow + 600));
    EXPECT_EQ(token.userSession, session);
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");

    // The worker is idle after its reply: nothing else touches the stores now.
    auto &server = SsoServer::getServer();
    EXPECT_TRUE(server.authzInfoBySession.empty());
    ASSERT_EQ(server.refreshInfoBySession.size(), 1u);
    auto record = server.refreshInfoBySession.find(token.sessionValue);
    ASSERT_NE(record, server.refreshInfoBySession.end());
    EXPECT_EQ(record->second.configId, 0u);
    EXPECT_EQ(record->second.savedAt, kNow);
    EXPECT_FALSE(record->second.refreshToken.empty());
    EXPECT_FALSE(record->second.accessToken.empty());

    std::string result = "alice|" + token.sessionValue + "|" + token.expiry;
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Pop OAuth authz info for user session: '" + session + "'.\n",
        "Sso: Attempting async verify flow for user session: '" + session + "'.\n",
        "CurlRequest: Starting verify flow for session '" + session + "'.\n",
        "Sso: Started async verify flow successfully for user session: '" + session + "'.\n",
        "CurlRequest: Token exchange successful queuing userinfo request.\n",
        "CurlRequest: Userinfo received processing with SsoServer.\n",
        "SsoServer: Completing async login flow for configId: 0.\n",
        "SsoServer: Refresh flow set in configuration. Abort token revocation.\n",
        "SsoServer: New session token created: '" + token.sessionValue + "'.\n",
        "SsoServer: Async login flow completed. Result: '" + result + "'.\n",
        "CurlRequest: Login flow processed successfully.\n",
        "CurlRequest: Flow completed for session '" + session + "'.\n",
        "Sso: Processing completed async flow for session: '" + session + "'.\n",
        "Sso: Response is: " + reply + ".\n",
    }));
    // A login never replaces an old session.
    EXPECT_FALSE(log.contains("SsoServer: Refresh flow - replacing old session token"));
    EXPECT_FALSE(log.contains("Falling back to sync path"));
}

TEST_F(LoginTest, RefreshOffRevokesTheRefreshTokenAndGivesTheDefaultSession) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.setRevocationBody(true));
    startServer({local(false)});
    int revocations = provider.requestCount("/token/revocation");
    std::string session = LoginDriver::newSession();
    std::string reply = LoginChannel::login(host, 0, session);
    EXPECT_EQ(reply,
              "SSO_VERIFY_OK|alice|000|" + std::to_string(kNow + 600) + "|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(provider.requestCount("/token/revocation"), revocations + 1);
    EXPECT_TRUE(SsoServer::getServer().refreshInfoBySession.empty());
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Refresh flow NOT set in configuration. Continuation of token revocation.\n",
        "SsoServer: For config with ID: 0 refresh flow is not set. Generate default token..\n",
        "SsoServer: New session token created: '000'.\n",
    }));
}

TEST_F(LoginTest, RefreshOffFailsWhenTheProviderRevokesWithAnEmptyAnswer) {
    auto &provider = LocalProvider::shared();
    startServer({local(false)});
    int revocations = provider.requestCount("/token/revocation");
    std::string session = LoginDriver::newSession();
    EXPECT_EQ(LoginChannel::login(host, 0, session), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    // The token did reach the provider; only the empty answer fails the login.
    EXPECT_EQ(provider.requestCount("/token/revocation"), revocations + 1);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: ERROR! Revoke response is empty.\n",
        "SsoServer: ERROR! Tokens revocation failed.\n",
        "CurlRequest: ERROR! Failed to process login result.\n",
        "CurlRequest: ERROR! 'Failed to process login result' HTTP: 0.\n",
        "Sso: Processing completed async flow for session: '" + session + "'.\n",
        "Sso: Async flow failed: 'Failed to process login result' HTTP: 0.\n",
    }));
    EXPECT_TRUE(SsoServer::getServer().refreshInfoBySession.empty());
}

TEST_F(LoginTest, UserTypeUserNameAndProviderDecideTheName) {
    struct Row {
        std::string provider;
        std::string userType;
        std::string userName;
        std::string expected;
    };
    std::vector<Row> const rows = {
        {"keycloak", "local", "", "alice"},
        {"keycloak", "domain", "", "alice@example.com"},
        {"keycloak", "domain", "qx_login", "alice.local"},
        {"okta", "domain", "", "alice"},  // preferred_username, not the e-mail address
        {"google", "domain", "", "alice@example.com"},
    };
    std::vector<LoginDriver::Entry> entries;
    for (auto const &row : rows) {
        LoginDriver::Entry entry = local();
        entry.name = "Entry" + std::to_string(entries.size());
        entry.provider = row.provider;
        entry.userType = row.userType;
        entry.userName = row.userName;
        entries.push_back(entry);
    }
    startServer(entries);
    for (size_t id = 0; id < rows.size(); ++id) {
        std::string session = LoginDriver::newSession();
        std::string reply = LoginChannel::login(host, static_cast<int>(id), session);
        auto token = LoginChannel::parse(reply);
        ASSERT_TRUE(token.ok) << rows[id].provider << ": " << reply;
        EXPECT_EQ(token.user, rows[id].expected) << rows[id].provider << " " << rows[id].userType;
        EXPECT_EQ(token.userSession, session);
        EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    }
}

TEST_F(LoginTest, RepeatedVerifyForOneSessionFailsAtOnce) {
    startServer({local()});
    std::string session = LoginDriver::newSession();
    auto authorization = LoginDriver::authorize(host, 0, session);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    std::string command = "SSO_VERIFY|" + authorization.code + "|" + session + "\n";
    // One read: the first pops the record and starts its flow, the second finds nothing and is
    // answered within the same turn, ahead of the first.
    host.send(command + command);
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n");
    std::string reply = host.readLine(10000);
    EXPECT_TRUE(LoginChannel::parse(reply).ok) << reply;
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(log.count(LoginChannel::noAuthInfo(session)), 1u);

    // After the login the same command still finds nothing.
    host.send(command);
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noAuthInfo(session)), "");
}

TEST_F(LoginTest, WrongCodeFailsAndUsesUpThePendingLogin) {
    startServer({local()});
    std::string session = LoginDriver::newSession();
    auto authorization = LoginDriver::authorize(host, 0, session);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    host.send("SSO_VERIFY|not-a-code-" + authorization.code + "|" + session + "\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_TRUE(log.has("Sso: Async flow failed: 'HTTP error: " + kInvalidGrant + "' HTTP: 400.\n"))
        << log.text();

    // The pending login went with the failed exchange: the right code cannot follow.
    host.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noAuthInfo(session)), "");
    EXPECT_TRUE(log.has(LoginChannel::noAuthInfo(session)));
}

TEST_F(LoginTest, CodeThatWasAlreadyUsedFails) {
    // A fixed random source gives both pending logins the same code verifier, so that the
    // provider refuses the second exchange for the used code alone.
    PlatformFakes::random() = [](char *buffer, int length) {
        std::memset(buffer, 0x5a, static_cast<size_t>(length));
        return 1;
    };
    startServer({local()});
    std::string const first = LoginChannel::session("first-user-session");
    std::string const second = LoginChannel::session("second-user-session");
    auto authorization = LoginDriver::authorize(host, 0, first);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    host.send("SSO_VERIFY|" + authorization.code + "|" + first + "\n");
    std::string reply = host.readLine(10000);
    ASSERT_TRUE(LoginChannel::parse(reply).ok) << reply;
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(first)), "");

    host.send("SSO_GET_CONFIG|0|" + second + "\n");
    std::string config = host.readLine(5000);
    std::string sameChallenge =
        authorization.reply.substr(0, authorization.reply.size() - first.size() - 1) + second +
        "\n";
    ASSERT_EQ(config, sameChallenge);
    host.send("SSO_VERIFY|" + authorization.code + "|" + second + "\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + second + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(second)), "");
    EXPECT_TRUE(log.has("Sso: Async flow failed: 'HTTP error: " + kInvalidGrant + "' HTTP: 400.\n"))
        << log.text();
}

TEST_F(LoginTest, ProviderFailuresEndInTheFailureLine) {
    struct Row {
        std::string what;
        std::string tokenPath;  // what "/token" answers
        int tokenStatus;
        std::string tokenBody;
        int userinfoStatus;
        std::vector<std::string> lines;
        bool asksUserinfo;
    };
    std::string const ok = LoginChannel::tokens("at-1", "it-1", "rt-1");
    std::string const userinfo = "{\"email\":\"bob@example.com\"}";
    std::vector<Row> const rows = {
        {"400",
         "/token",
         400,
         "{\"error\":\"invalid_grant\"}",
         200,
         {"CurlRequest: ERROR! HTTP error 400 response: '{\"error\":\"invalid_grant\"}'.\n",
          "Sso: Async flow failed: 'HTTP error: {\"error\":\"invalid_grant\"}' HTTP: 400.\n"},
         false},
        {"500",
         "/token",
         500,
         "upstream down",
         200,
         {"CurlRequest: ERROR! HTTP error 500 response: 'upstream down'.\n",
          "Sso: Async flow failed: 'HTTP error: upstream down' HTTP: 500.\n"},
         false},
        {"not JSON",
         "/token",
         200,
         "<html>busy</html>",
         200,
         {"CurlRequest: ERROR! Failed to parse token response.\n",
          "Sso: Async flow failed: 'Failed to parse token response' HTTP: 200.\n"},
         false},
        {"no id_token",
         "/token",
         200,
         LoginChannel::tokens("at-1", "-", "rt-1"),
         200,
         {"CurlRequest: ERROR! Token response missing required fields.\n",
          "Sso: Async flow failed: 'Token response missing required fields' HTTP: 200.\n"},
         false},
        {"userinfo 401",
         "/token",
         200,
         ok,
         401,
         {"CurlRequest: Token exchange successful queuing userinfo request.\n",
          "CurlRequest: ERROR! HTTP error 401 response: '{\"error\":\"invalid_token\"}'.\n",
          "Sso: Async flow failed: 'HTTP error: {\"error\":\"invalid_token\"}' HTTP: 401.\n"},
         true},
    };
    std::vector<std::unique_ptr<FailureServer>> providers;
    std::vector<LoginDriver::Entry> entries;
    for (auto const &row : rows) {
        providers.push_back(std::make_unique<FailureServer>());
        FailureServer &idp = *providers.back();
        LoginChannel::serveDiscovery(idp);
        idp.on(row.tokenPath, row.tokenStatus, row.tokenBody);
        idp.on("/me", row.userinfoStatus,
               row.userinfoStatus == 200 ? userinfo : "{\"error\":\"invalid_token\"}");
        entries.push_back(LoginChannel::entryFor(idp, "keycloak"));
        entries.back().name = "Scripted" + std::to_string(entries.size());
    }
    startServer(entries);
    for (size_t id = 0; id < rows.size(); ++id) {
        std::string session = LoginChannel::session("failing-session-" + std::to_string(id));
        host.send("SSO_GET_CONFIG|" + std::to_string(id) + "|" + session + "\n");
        std::string config = host.readLine(5000);
        ASSERT_EQ(config.compare(0, 18, "SSO_GET_CONFIG_OK|"), 0) << config;
        log.clear();
        host.send("SSO_VERIFY|anycode|" + session + "\n");
        EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n") << rows[id].what;
        EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "") << rows[id].what;
        EXPECT_TRUE(log.hasInOrder(rows[id].lines)) << rows[id].what << "\n" << log.text();
        auto requests = providers[id]->requests();
        ASSERT_FALSE(requests.empty());
        EXPECT_EQ(requests.back().target, rows[id].asksUserinfo ? "/me" : "/token")
            << rows[id].what;
        EXPECT_NE(
            requests[requests.size() - (rows[id].asksUserinfo ? 2 : 1)].body.find("&code=anycode&"),
            std::string::npos);
    }
}

TEST_F(LoginTest, FlowThatCannotStartTakesTheBlockingRoadAndUsesUpTheRecord) {
    // A pending login for a configuration that does not exist, put in place before the worker
    // runs; no configuration is loaded, so the flow cannot queue its first request.
    TestMachine::server(LoginDriver::file({local()}));
    std::string const session = "failover-session";
    SsoServer::getServer().authzInfoBySession[session] =
        OAuthAuthzInfo{5, "verifier-verifier-verifier-verifier-verifier-xyz", "http://r/cb"};
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_VERIFY|code|" + session + "\n");
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, "Sso: ERROR! Sync verify login also failed.\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Attempting async verify flow for user session: '" + session + "'.\n",
        "CurlRequest: Starting verify flow for session '" + session + "'.\n",
        "CurlRequest: ERROR! Invalid config ID.\n",
        "CurlRequest: ERROR! Failed to queue token exchange request.\n",
        "Sso: WARNING! Async verify flow failed to start. Falling back to sync path for user "
        "session: '" +
            session + "'.\n",
        "SsoServer: Push OAuth authz info for user session: '" + session + "' (failover restore)\n",
        "SsoServer: Login info restored. Size: 1.\n",
        "Sso: Executing sync verify login for user session: '" + session + "'.\n",
        "SsoServer: Get information for verification process based on user session: '" + session +
            "'. Login info size: 1.\n",
        "SsoServer: ERROR! Config ID is invalid.\n",
        "Sso: ERROR! Sync verify login also failed.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Sso: Started async verify flow"));
    EXPECT_TRUE(SsoServer::getServer().authzInfoBySession.empty());

    // The blocking road consumed the restored record.
    host.send("SSO_VERIFY|code|" + session + "\n");
    EXPECT_EQ(host.readLine(5000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::noAuthInfo(session)), "");
    EXPECT_TRUE(log.has(LoginChannel::noAuthInfo(session)));
}

TEST_F(LoginTest, BlockingRoadAnswersWithTheSameWordsWhenTheSessionHasAFlow) {
    // Configuration 0 never answers its token request, so that the session keeps a running
    // flow; configuration 1 is the local provider.
    auto stuck = std::make_unique<FailureServer>();
    LoginChannel::serveDiscovery(*stuck);
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    stuck->on("/token", hang);
    LoginDriver::Entry stuckEntry = LoginChannel::entryFor(*stuck, "keycloak");
    startServer({stuckEntry, local()});
    std::string session = LoginDriver::newSession();
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    host.send("SSO_VERIFY|stuck-code|" + session + "\n");
    ASSERT_TRUE(log.waitFor("Sso: Started async verify flow successfully for user session: '" +
                            session + "'.\n"));

    // The record of the first login is gone, so the session can ask anew.
    std::string reply = LoginChannel::login(host, 1, session);
    auto token = LoginChannel::parse(reply);
    ASSERT_TRUE(token.ok) << reply;
    EXPECT_EQ(token.user, "alice");
    EXPECT_EQ(token.userSession, session);
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync verify login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: WARNING! Async verify flow failed to start. Falling back to sync path for user "
        "session: '" +
            session + "'.\n",
        "SsoServer: Push OAuth authz info for user session: '" + session + "' (failover restore)\n",
        "Sso: Executing sync verify login for user session: '" + session + "'.\n",
        "Sso: Sync verify login succeeded (failover).\n",
    })) << log.text();

    // The first flow ends when its provider goes away, with its own reply.
    stuck.reset();
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_TRUE(log.contains("Sso: Async flow failed: 'Curl error: "));
}

TEST_F(LoginTest, LoginsInFlightTogetherFinishOutOfOrderWithTheirOwnSessions) {
    auto slow = std::make_unique<FailureServer>();
    LoginChannel::serveDiscovery(*slow);
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    slow->on("/token", hang);
    FailureServer quick;
    LoginChannel::serveDiscovery(quick);
    quick.on("/token", 200, LoginChannel::tokens("at-bob", "it-bob", "rt-bob"));
    quick.on("/me", 200, "{\"email\":\"bob@example.com\"}");
    LoginDriver::Entry slowEntry = LoginChannel::entryFor(*slow, "keycloak");
    LoginDriver::Entry quickEntry = LoginChannel::entryFor(quick, "keycloak");
    quickEntry.name = "Quick";
    startServer({slowEntry, quickEntry, local()});

    std::string const slowSession = LoginChannel::session("slow-user-session");
    std::string const quickSession = LoginChannel::session("quick-user-session");
    std::string const localSession = LoginDriver::newSession();
    host.send("SSO_GET_CONFIG|0|" + slowSession + "\nSSO_GET_CONFIG|1|" + quickSession + "\n");
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    auto authorization = LoginDriver::authorize(host, 2, localSession);
    ASSERT_TRUE(authorization.ok) << authorization.error;

    host.send("SSO_VERIFY|slow-code|" + slowSession + "\nSSO_VERIFY|quick-code|" + quickSession +
              "\nSSO_VERIFY|" + authorization.code + "|" + localSession + "\n");
    std::set<std::string> users;
    for (int i = 0; i < 2; ++i) {
        std::string reply = host.readLine(10000);
        auto token = LoginChannel::parse(reply);
        ASSERT_TRUE(token.ok) << reply;
        EXPECT_EQ(token.userSession, token.user == "bob" ? quickSession : localSession) << reply;
        users.insert(token.user);
    }
    EXPECT_EQ(users, (std::set<std::string>{"alice", "bob"}));
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(localSession)), "");

    // The first command's reply comes last.
    slow.reset();
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + slowSession + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(slowSession)), "");
}

}  // namespace
