// What a finished login hands back and keeps: sessions, expiries, user tokens, refresh records,
// node configurations from them, and the clean-up of aged records.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/LocalGrant.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/SsoRequest.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

int64_t const kNow = 1700000000;

size_t fields(std::string const &token) {
    size_t count = 1;
    for (char c : token) {
        count += c == '|' ? 1 : 0;
    }
    return count;
}

std::vector<std::string> operator+(std::vector<std::string> head,
                                   std::vector<std::string> const &tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

class UserTokensTest : public EngineTest {
protected:
    void SetUp() override {
        fakeClock([this] { return now; });
        log.clear();
    }

    SsoServerConfigOAuth *addRecord(SsoServer &target, bool refresh, int64_t lifetime) {
        auto *config = ProviderRecord("keycloak")
                           .userinfoAt("https://idp.example/me")
                           .localUsers()
                           .refresh(refresh, lifetime)
                           .addTo(target);
        log.clear();  // the record's constructor has its own statement
        return config;
    }
    SsoServerConfigOAuth *addRecord(bool refresh = true, int64_t lifetime = 0) {
        return addRecord(server, refresh, lifetime);
    }

    OAuthRefreshInfo aged(uint32_t configId, int64_t age) {
        return OAuthRefreshInfo{configId, now - age, "rt", "at"};
    }

    int64_t now = kNow;
    SsoServer server;
    LogCapture log;
};

TEST_F(UserTokensTest, RefreshOnSessionsAreRandomAndDiffer) {
    addRecord(true);
    std::string first = server.generateUserSession(0);
    std::string second = server.generateUserSession(0);
    EXPECT_EQ(first.size(), 32u);
    EXPECT_EQ(second.size(), 32u);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.find('|'), std::string::npos);
    std::vector<std::string> const once = {
        "SsoServer: Generating user session for config ID: 0.\n",
        "SsoServer: For config with ID: 0 refresh flow is set. Generate new user session..\n"};
    EXPECT_EQ(log.lines(), once + once);
}

TEST_F(UserTokensTest, TwoLoginsGetTwoSessions) {
    addRecord(true);
    std::string const userinfo = "{\"email\":\"alice@example.com\"}";
    std::unique_ptr<char[]> first(server.completeAsyncLoginFlow(userinfo, "at1", "rt1", 0, ""));
    std::unique_ptr<char[]> second(server.completeAsyncLoginFlow(userinfo, "at2", "rt2", 0, ""));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    std::string const expiry = "|" + std::to_string(kNow + 0);
    std::string a = first.get();
    std::string b = second.get();
    ASSERT_EQ(a.size(), 6 + 32 + expiry.size()) << a;
    ASSERT_EQ(b.size(), 6 + 32 + expiry.size()) << b;
    EXPECT_EQ(a.compare(0, 6, "alice|"), 0);
    EXPECT_EQ(a.substr(38), expiry);
    EXPECT_NE(a.substr(6, 32), b.substr(6, 32));
    EXPECT_EQ(server.refreshInfoBySession.size(), 2u);
    EXPECT_EQ(server.refreshInfoBySession.count(a.substr(6, 32)), 1u);
}

TEST_F(UserTokensTest, RefreshOffSessionIsTheDefaultToken) {
    addRecord(false);
    EXPECT_EQ(server.generateUserSession(0), "000");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Generating user session for config ID: 0.\n",
                  "SsoServer: For config with ID: 0 refresh flow is not set. Generate default "
                  "token..\n"}));
}

TEST_F(UserTokensTest, ExpiryOverflowIsRefused) {
    addRecord(true, std::numeric_limits<int64_t>::max());
    now = 1;
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(0), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoServer: Getting token expiration for config ID: 0.\n",
                                        "SsoServer: ERROR! Value overflow..\n"}));
    // At the epoch itself the sum still fits.
    now = 0;
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(0), "9223372036854775807");
}

TEST_F(UserTokensTest, NegativeClockIsRefused) {
    addRecord(true, 10);
    now = -1;
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(0), "");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Timestamp is negative.\n");
}

TEST_F(UserTokensTest, ExpiryIsNowPlusTheLifetime) {
    addRecord(true, 100);
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(0), std::to_string(kNow + 100));
    addRecord(false, 100);
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(1), std::to_string(kNow + 100));
}

TEST_F(UserTokensTest, ZeroLifetimeExpiresNowButTheRecordLivesAnHour) {
    addRecord(true, 0);
    EXPECT_EQ(server.getTokenExpirationTimestampAsString(0), std::to_string(kNow));
    ASSERT_TRUE(server.saveRefreshInfo("rt", "at", 0, "s"));
    OAuthRefreshInfo const info = server.refreshInfoBySession.at("s");
    EXPECT_EQ(info.savedAt, kNow);
    now = kNow + 3600;
    EXPECT_TRUE(server.validateOAuthRefreshInfo(info));
    now = kNow + 3601;
    log.clear();
    EXPECT_FALSE(server.validateOAuthRefreshInfo(info));
    EXPECT_EQ(
        log.lines().back(),
        "SsoServer: ERROR! Information is expired. Time limit was3600s, but passed: 3601s.\n");
}

TEST_F(UserTokensTest, BarInAUserNameStaysInTheToken) {
    EXPECT_EQ(server.createUserToken("carol|x", "s", "123"), "carol|x|s|123");
    EXPECT_EQ(server.createUserTokenFromNode("carol|x", "s"), "carol|x|s");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Creating user token for username: 'carol|x' user session: 's' "
                  "expiration: '123'.\n",
                  "SsoServer: Token is: 'carol|x|s|123'.\n",
                  "SsoServer: Creating user token for username: 'carol|x' user session: 's' from "
                  "node.\n",
                  "SsoServer: Token is: 'carol|x|s'.\n"}));
}

TEST_F(UserTokensTest, EmptyTokenFieldsInOrder) {
    struct Row {
        std::string user, session, expiry, error;
    } const rows[] = {
        {"", "", "", "SsoServer: ERROR! Username is empty.\n"},
        {"u", "", "", "SsoServer: ERROR! User session is empty.\n"},
        {"u", "s", "", "SsoServer: ERROR! Expiration is empty.\n"},
    };
    for (auto const &row : rows) {
        log.clear();
        EXPECT_EQ(server.createUserToken(row.user, row.session, row.expiry), "");
        ASSERT_EQ(log.lines().size(), 2u);
        EXPECT_EQ(log.lines()[1], row.error);
    }
    log.clear();
    EXPECT_EQ(server.createUserTokenFromNode("u", ""), "");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! User session is empty.\n");
}

TEST_F(UserTokensTest, DefaultSessionStoresNothing) {
    addRecord(true);
    EXPECT_TRUE(server.saveRefreshInfo("rt", "at", 0, "000"));
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Saving information for later refresh process.\n",
                  "SsoServer: Refresh flow NOT set in configuration. Abort saving token "
                  "information.\n"}));
}

TEST_F(UserTokensTest, SavedRecordAndItsChecks) {
    addRecord(true);
    addRecord(false);
    EXPECT_TRUE(server.saveRefreshInfo("rt", "at", 0, "s"));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Saving information for later refresh process.\n",
                  "SsoServer: Refresh info size: 0.\n", "SsoServer: Refresh info size: 1.\n"}));
    OAuthRefreshInfo const &info = server.refreshInfoBySession.at("s");
    EXPECT_EQ(info.configId, 0u);
    EXPECT_EQ(info.savedAt, kNow);
    EXPECT_EQ(info.refreshToken, "rt");
    EXPECT_EQ(info.accessToken, "at");
    // A second save under the same session keeps the first record.
    now = kNow + 5;
    EXPECT_TRUE(server.saveRefreshInfo("rt2", "at2", 0, "s"));
    EXPECT_EQ(server.refreshInfoBySession.at("s").refreshToken, "rt");
    EXPECT_EQ(server.refreshInfoBySession.at("s").savedAt, kNow);
    // With the refresh flow off, empty tokens still fail before anything else.
    log.clear();
    EXPECT_FALSE(server.saveRefreshInfo("", "at", 1, "000"));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Refresh token is empty.\n");
    EXPECT_FALSE(server.saveRefreshInfo("rt", "", 1, "000"));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Access token is empty.\n");
    EXPECT_FALSE(server.saveRefreshInfo("rt", "at", 1, ""));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! User session is empty.\n");
    EXPECT_TRUE(server.saveRefreshInfo("rt", "at", 1, "t"));
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
}

TEST_F(UserTokensTest, CleanupKeepsAnAgeOfExactlyTheLimit) {
    addRecord(true, 100);
    server.refreshInfoBySession["keep"] = aged(0, 100);
    server.refreshInfoBySession["old"] = aged(0, 101);
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Clearing up old tokens.\n",
                  "SsoServer: Removing expired refresh token for session: 'old' (age: 101s, "
                  "limit: 100s).\n",
                  "SsoServer: Token cleanup complete. Remaining tokens: 1.\n"}));
    EXPECT_EQ(server.refreshInfoBySession.count("keep"), 1u);
}

TEST_F(UserTokensTest, CleanupTakesAnHourForAZeroLifetime) {
    addRecord(true, 0);
    server.refreshInfoBySession["keep"] = aged(0, 3600);
    server.refreshInfoBySession["old"] = aged(0, 3601);
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_TRUE(
        log.has("SsoServer: Removing expired refresh token for session: 'old' (age: "
                "3601s, limit: 3600s).\n"));
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count("keep"), 1u);
}

TEST_F(UserTokensTest, CleanupRemovesRecordsPastTheEnd) {
    addRecord(true, 100);
    server.refreshInfoBySession["keep"] = aged(0, 0);
    server.refreshInfoBySession["gone"] = aged(1, 0);
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Clearing up old tokens.\n",
                  "SsoServer: ERROR! Invalid config ID in refresh info. Removing entry.\n",
                  "SsoServer: Token cleanup complete. Remaining tokens: 1.\n"}));
    EXPECT_EQ(server.refreshInfoBySession.count("keep"), 1u);
}

TEST_F(UserTokensTest, NullSlotShiftsLaterRecordsOntoTheirNeighbour) {
    server.configs.push_back(nullptr);
    addRecord(true, 100);   // id 1
    addRecord(true, 1000);  // id 2
    // Measured against record 2's limit, as the list has moved down a place.
    server.refreshInfoBySession["shifted"] = aged(1, 500);
    // Past the end of the shortened list, although record 2 exists.
    server.refreshInfoBySession["lost"] = aged(2, 0);
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Clearing up old tokens.\n",
                  "SsoServer: Failed to get config and clear tokens!.\n",
                  "SsoServer: ERROR! Invalid config ID in refresh info. Removing entry.\n",
                  "SsoServer: Token cleanup complete. Remaining tokens: 1.\n"}));
    EXPECT_EQ(server.refreshInfoBySession.count("shifted"), 1u);
    // Its own record would have refused it.
    EXPECT_FALSE(server.validateOAuthRefreshInfo(server.refreshInfoBySession.at("shifted")));
}

TEST_F(UserTokensTest, NodeConfigurationFromARecord) {
    addRecord(true, 100);
    server.refreshInfoBySession["s"] = aged(0, 100);
    std::unique_ptr<char[]> node(server.getNodeConfig("s"));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(std::string(node.get()),
              "{\"access_token\":\"at\",\"provider\":\"keycloak\",\"qx_user_type\":\"local\","
              "\"userinfo_uri\":\"https://idp.example/me\"}|s");
    EXPECT_EQ(server.refreshInfoBySession.count("s"), 1u);
    log.clear();
    EXPECT_EQ(server.getNodeConfig("000"), nullptr);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Get configuration for node based on user session: "
                               "'000'.\n",
                               "SsoServer: ERROR! Refresh information not found.\n"}));
}

TEST_F(UserTokensTest, AgedRecordServesNoNodeAndGoesAtTheNextCleanup) {
    addRecord(true, 100);
    server.refreshInfoBySession["s"] = aged(0, 101);
    EXPECT_EQ(server.getNodeConfig("s"), nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Get configuration for node based on user session: 's'.\n",
                  "SsoServer: Refresh information found.\n",
                  "SsoServer: Validating information for refresh process with config ID: 0.\n",
                  "SsoServer: ERROR! Information is expired. Time limit was100s, but passed: "
                  "101s.\n",
                  "SsoServer: ERROR! Refresh information validation failed.\n"}));
    EXPECT_EQ(server.refreshInfoBySession.count("s"), 1u);
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_TRUE(server.refreshInfoBySession.empty());
}

// The housekeeping tick reaches the process's engine, not a private one.
TEST_F(UserTokensTest, TimedOperationsCleansAtTick30001) {
    SsoServer &engine = SsoServer::getServer();
    ASSERT_TRUE(engine.configs.empty());
    ASSERT_TRUE(engine.refreshInfoBySession.empty());
    addRecord(engine, true, 100);
    engine.refreshInfoBySession["old"] = aged(0, 101);
    int32_t const saved = ticks;

    ticks = 29999;
    TimedOperations();
    EXPECT_EQ(ticks, 30000);
    EXPECT_EQ(engine.refreshInfoBySession.count("old"), 1u);

    log.clear();
    TimedOperations();
    EXPECT_EQ(ticks, 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Clearing up old tokens.\n",
                  "SsoServer: Removing expired refresh token for session: 'old' (age: 101s, "
                  "limit: 100s).\n",
                  "SsoServer: Token cleanup complete. Remaining tokens: 0.\n"}));
    EXPECT_TRUE(engine.refreshInfoBySession.empty());

    engine.clearConfigs();
    ticks = saved;
}

// A real login as a user whose name holds a bar, on the blocking road.
TEST_F(UserTokensTest, RealLoginOfABarredName) {
    PlatformFakes::reset();  // the provider's tokens live in real time
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    SsoRequest &network = SsoRequest::getNetwork();
    network.cleanUp();
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    LocalGrant::addRecord(server)->userName = "preferred_username";
    auto code = LocalGrant::authorize(server, 0, "carol|x");
    std::unique_ptr<char[]> token(code.ok ? server.loginFlow(code.code, code.session) : nullptr);
    network.cleanUp();
    ASSERT_TRUE(code.ok) << code.error;
    ASSERT_NE(token, nullptr);
    std::string text = token.get();
    EXPECT_EQ(fields(text), 4u) << text;
    EXPECT_EQ(text.compare(0, 8, "carol|x|"), 0) << text;
    EXPECT_EQ(text.find('|', 8), 8u + 32u) << text;
}

}  // namespace
