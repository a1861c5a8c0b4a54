// The tail of a login, refresh or node verification that ran as a background flow, driven
// directly: what it hands back, what it leaves in the refresh store and where it stops.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

constexpr int64_t kNow = 1750000000;
std::string const kAlice = "{\"email\":\"alice@example.com\",\"preferred_username\":\"al\"}";

class AsyncCompletionTest : public EngineTest {
protected:
    void SetUp() override { stopClock(kNow); }

    SsoServerConfigOAuth *add(std::string const &provider, bool refresh) {
        return ProviderRecord(provider)
            .localUsers()
            .refresh(refresh, 600)
            .client("client", "secret")
            .addTo(server);
    }

    // The completion's result as a string ("<null>" for null), freeing the array.
    static std::string text(char *result) {
        std::unique_ptr<char[]> owned(result);
        return owned ? std::string(owned.get()) : std::string("<null>");
    }

    std::string login(std::string const &userInfo, std::string const &refreshToken,
                      uint32_t configId, std::string const &oldSession) {
        return text(server.completeAsyncLoginFlow(userInfo, "access-token", refreshToken, configId,
                                                  oldSession));
    }

    SsoServer server;
    LogCapture log;
};

TEST_F(AsyncCompletionTest, LoginIssuesASessionAndKeepsTheRecordWithoutLookingForAnOldOne) {
    add("keycloak", true);
    // A record under the empty key would be found by a lookup of the empty old session.
    server.refreshInfoBySession[""] = OAuthRefreshInfo{0, 1, "r", "a"};
    std::string token = login(kAlice, "refresh-token", 0, "");
    ASSERT_EQ(token.size(), std::string("alice||").size() + 32 + 10) << token;
    std::string session = token.substr(6, 32);
    EXPECT_EQ(token, "alice|" + session + "|" + std::to_string(kNow + 600));
    EXPECT_EQ(server.refreshInfoBySession.count(""), 1u);
    ASSERT_EQ(server.refreshInfoBySession.count(session), 1u);
    auto const &record = server.refreshInfoBySession[session];
    EXPECT_EQ(record.savedAt, kNow);
    EXPECT_EQ(record.refreshToken, "refresh-token");
    EXPECT_EQ(record.accessToken, "access-token");
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Completing async login flow for configId: 0.\n",
        "SsoServer: Final user is: 'alice'.\n",
        "SsoServer: New session token created: '" + session + "'.\n",
        "SsoServer: Async login flow completed. Result: '" + token + "'.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Refresh flow - replacing"));
    EXPECT_FALSE(log.contains("Old session token"));
}

TEST_F(AsyncCompletionTest, RefreshReplacesTheOldSession) {
    add("keycloak", true);
    std::string token = login(kAlice, "refresh-token", 0, "old-value");
    ASSERT_NE(token, "<null>");
    std::string session = token.substr(6, 32);
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count(session), 1u);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Completing async login flow for configId: 0.\n",
        "SsoServer: Refresh flow - replacing old session token: 'old-value'.\n",
        "SsoServer: Verified old session token removed from memory.\n",
        "SsoServer: Token replacement complete.\n",
        "SsoServer: Old session: 'old-value' New session: '" + session + "'.\n",
        "SsoServer: Async login flow completed. Result: '" + token + "'.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("SsoServer: New session token created"));
}

TEST_F(AsyncCompletionTest, LingeringOldRecordIsRemovedEvenWhenTheRefreshFails) {
    add("keycloak", true);
    server.refreshInfoBySession["old-value"] = OAuthRefreshInfo{0, kNow, "r", "a"};
    EXPECT_EQ(login("not json", "refresh-token", 0, "old-value"), "<null>");
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Refresh flow - replacing old session token: 'old-value'.\n",
        "SsoServer: WARNING! Old session token still in memory. Removing now.\n",
        "SsoServer: ERROR! Final username is empty.\n",
    })) << log.text();
}

TEST_F(AsyncCompletionTest, RefreshWithEmptyUserinfoLeavesNeitherRecord) {
    add("keycloak", true);
    server.refreshInfoBySession["old-value"] = OAuthRefreshInfo{0, kNow, "r", "a"};
    EXPECT_EQ(login("", "refresh-token", 0, "old-value"), "<null>");
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "SsoServer: ERROR! UserInfo is empty.\n");
}

TEST_F(AsyncCompletionTest, ConfigIdBeyondTheRecordsFailsAfterTheOldSessionWasDealtWith) {
    add("keycloak", true);
    server.refreshInfoBySession["old-value"] = OAuthRefreshInfo{0, kNow, "r", "a"};
    EXPECT_EQ(login(kAlice, "refresh-token", 7, "old-value"), "<null>");
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Completing async login flow for configId: 7.\n",
        "SsoServer: WARNING! Old session token still in memory. Removing now.\n",
        "SsoServer: ERROR! Invalid config ID: 7.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Reading userinfo response"));

    server.configs.push_back(nullptr);
    log.clear();
    EXPECT_EQ(login(kAlice, "refresh-token", 1, ""), "<null>");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Config is null for ID: 1.\n");
}

TEST_F(AsyncCompletionTest, EmptyRefreshTokenFailsAtTheRevocationOrAtTheSave) {
    struct Row {
        std::string provider;
        bool refresh;
        std::vector<std::string> lines;
        bool tokenMade;
    };
    std::vector<Row> const rows = {
        {"keycloak",
         false,
         {"SsoServer: ERROR! Refresh token is empty.\n",
          "SsoServer: ERROR! Tokens revocation failed.\n"},
         false},
        {"keycloak",
         true,
         {"SsoServer: Refresh flow set in configuration. Abort token revocation.\n",
          "SsoServer: Saving information for later refresh process.\n",
          "SsoServer: ERROR! Refresh token is empty.\n",
          "SsoServer: ERROR! Can't save refresh information.\n"},
         true},
        {"microsoft",
         false,
         {"SsoServer: WARNING! Microsoft does not support token revocation. Abort token "
          "revocation.\n",
          "SsoServer: ERROR! Refresh token is empty.\n",
          "SsoServer: ERROR! Can't save refresh information.\n"},
         true},
    };
    for (auto const &row : rows) {
        server.clearConfigs();
        add(row.provider, row.refresh);
        log.clear();
        EXPECT_EQ(login(kAlice, "", 0, ""), "<null>") << row.provider;
        EXPECT_TRUE(log.hasInOrder(row.lines)) << row.provider << "\n" << log.text();
        EXPECT_EQ(log.lines().back(), row.lines.back()) << row.provider;
        EXPECT_EQ(log.contains("SsoServer: Creating user token"), row.tokenMade) << row.provider;
        EXPECT_TRUE(server.refreshInfoBySession.empty());
    }
}

TEST_F(AsyncCompletionTest, RefreshOffOnMicrosoftGivesTheDefaultSessionAndNoRecord) {
    add("microsoft", false);
    EXPECT_EQ(login(kAlice, "refresh-token", 0, ""), "alice|000|" + std::to_string(kNow + 600));
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_TRUE(log.has("SsoServer: New session token created: '000'.\n"));
}

TEST_F(AsyncCompletionTest, NodeCompletionGivesTheNodeFormAndTouchesNoStore) {
    server.refreshInfoBySession["kept"] = OAuthRefreshInfo{0, kNow, "r", "a"};
    EXPECT_EQ(text(server.completeAsyncNodeFlow(kAlice, "node-session", "okta", "", "domain")),
              "al|node-session");
    EXPECT_EQ(text(server.completeAsyncNodeFlow(kAlice, "node-session", "", "", "local")),
              "alice|node-session");
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Completing async node flow for session: 'node-session'.\n",
        "SsoServer: Async node flow completed. Result: 'alice|node-session'.\n",
    })) << log.text();
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_TRUE(server.configs.empty());
}

TEST_F(AsyncCompletionTest, NodeCompletionStopsAtTheFirstMissingPiece) {
    struct Row {
        std::string userInfo;
        std::string session;
        std::string last;
    };
    std::vector<Row> const rows = {
        {"", "s", "SsoServer: ERROR! UserInfo is empty.\n"},
        {"", "", "SsoServer: ERROR! UserInfo is empty.\n"},
        {kAlice, "", "SsoServer: ERROR! User session is empty.\n"},
        {"{\"name\":\"no mail\"}", "s", "SsoServer: ERROR! Final user is empty.\n"},
    };
    for (auto const &row : rows) {
        log.clear();
        EXPECT_EQ(
            text(server.completeAsyncNodeFlow(row.userInfo, row.session, "keycloak", "", "local")),
            "<null>");
        EXPECT_EQ(log.lines().back(), row.last) << row.userInfo << " " << row.session;
        // A missing session stops the completion before the userinfo is read.
        EXPECT_EQ(log.contains("SsoServer: Reading userinfo response"),
                  row.session == "s" && !row.userInfo.empty());
    }
}

}  // namespace
