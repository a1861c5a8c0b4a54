// Pending logins and refresh records: consumed, restored, validated, aged.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"

#include <gtest/gtest.h>

namespace {

// The clock stands still during each test, so that an age computed here is the age the
// server computes, whenever the second turns.
constexpr int64_t kNow = 1700000000;

class StoresTest : public EngineTest {
protected:
    void SetUp() override {
        stopClock(kNow);
        ProviderRecord("").addTo(server);
        log.clear();
    }

    SsoServerConfigOAuth &record() {
        return *static_cast<SsoServerConfigOAuth *>(server.configs[0]);
    }

    OAuthRefreshInfo refreshAged(int64_t age) {
        return OAuthRefreshInfo{0, kNow - age, "rt", "at"};
    }

    SsoServer server;
    LogCapture log;
};

TEST_F(StoresTest, GetConsumesTheRecord) {
    server.authzInfoBySession["s1"] = OAuthAuthzInfo{0, "verifier", "https://r"};
    OAuthAuthzInfo info;
    EXPECT_TRUE(server.getOAuthAuthzInfo("s1", info));
    EXPECT_EQ(info.codeVerifier, "verifier");
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Get information for verification process based on user "
                               "session: 's1'. Login info size: 1.\n",
                               "SsoServer: Information found. Copying information for later.\n",
                               "SsoServer: Removing information from memory.\n",
                               "SsoServer: Login info size: 0.\n"}));
}

TEST_F(StoresTest, UnknownKeyChangesNothing) {
    server.refreshInfoBySession["other"] = refreshAged(0);
    OAuthRefreshInfo info{9, 42, "keep", "me"};
    EXPECT_FALSE(server.getOAuthRefreshInfo("missing", info));
    EXPECT_EQ(info.configId, 9u);
    EXPECT_EQ(info.savedAt, 42);
    EXPECT_EQ(info.refreshToken, "keep");
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Get information for refresh process based on user session: "
                  "'missing'. Refresh info size: 1.\n",
                  "SsoServer: WARNING! Information not found.\n"}));
}

TEST_F(StoresTest, PopLogsThenGets) {
    server.refreshInfoBySession["t"] = refreshAged(0);
    OAuthRefreshInfo info;
    EXPECT_TRUE(server.popOAuthRefreshInfo("t", info));
    EXPECT_EQ(log.lines().front(), "SsoServer: Pop OAuth refresh info for user session: 't'.\n");
    OAuthAuthzInfo authz;
    EXPECT_FALSE(server.popOAuthAuthzInfo("t", authz));
    EXPECT_TRUE(log.has("SsoServer: Pop OAuth authz info for user session: 't'.\n"));
}

TEST_F(StoresTest, PushOverwritesAndRefusesAnEmptyKey) {
    server.authzInfoBySession["s"] = OAuthAuthzInfo{0, "old", "https://old"};
    EXPECT_TRUE(server.pushOAuthAuthzInfo("s", OAuthAuthzInfo{0, "new", "https://new"}));
    EXPECT_EQ(server.authzInfoBySession["s"].codeVerifier, "new");
    EXPECT_FALSE(server.pushOAuthAuthzInfo("", OAuthAuthzInfo{0, "x", "y"}));
    EXPECT_FALSE(server.pushOAuthRefreshInfo("", refreshAged(0)));
    EXPECT_EQ(server.authzInfoBySession.size(), 1u);
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Push OAuth authz info for user session: 's' (failover "
                               "restore)\n",
                               "SsoServer: Login info restored. Size: 1.\n",
                               "SsoServer: Push OAuth authz info for user session: '' (failover "
                               "restore)\n",
                               "SsoServer: ERROR! User session is empty.\n",
                               "SsoServer: Push OAuth refresh info for user session: '' (failover "
                               "restore)\n",
                               "SsoServer: ERROR! Session token is empty.\n"}));
}

TEST_F(StoresTest, RestoredRefreshRecordKeepsItsAge) {
    OAuthRefreshInfo info = refreshAged(100);
    ASSERT_TRUE(server.pushOAuthRefreshInfo("t", info));
    EXPECT_EQ(server.refreshInfoBySession["t"].savedAt, info.savedAt);
    EXPECT_TRUE(log.has("SsoServer: Refresh info restored. Size: 1.\n"));
}

TEST_F(StoresTest, AgeEqualToTheLimitIsValidOneMoreIsNot) {
    record().refreshLifetime = 100;
    EXPECT_TRUE(server.validateOAuthRefreshInfo(refreshAged(100)));
    log.clear();
    EXPECT_FALSE(server.validateOAuthRefreshInfo(refreshAged(101)));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Validating information for refresh process with config "
                               "ID: 0.\n",
                               "SsoServer: ERROR! Information is expired. Time limit was100s, but "
                               "passed: 101s.\n"}));
}

TEST_F(StoresTest, ZeroLifetimeMeansAnHour) {
    EXPECT_TRUE(server.validateOAuthRefreshInfo(refreshAged(3600)));
    EXPECT_FALSE(server.validateOAuthRefreshInfo(refreshAged(3601)));
    EXPECT_TRUE(log.has(
        "SsoServer: ERROR! Information is expired. Time limit was3600s, but passed: 3601s.\n"));
}

TEST_F(StoresTest, UnknownConfigIsReportedBeforeTheAge) {
    OAuthRefreshInfo info = refreshAged(999999);
    info.configId = 1;
    EXPECT_FALSE(server.validateOAuthRefreshInfo(info));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Config ID is invalid.\n");
}

TEST_F(StoresTest, RefreshValidationOrder) {
    OAuthRefreshInfo info = refreshAged(0);
    info.refreshToken.clear();
    EXPECT_FALSE(server.validateOAuthRefreshInfo(info));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Refresh token is empty.\n");
    info = refreshAged(0);
    info.accessToken.clear();
    EXPECT_FALSE(server.validateOAuthRefreshInfo(info));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Access token is empty.\n");
}

TEST_F(StoresTest, AuthorizationValidation) {
    EXPECT_TRUE(server.validateOAuthAuthzInfo(OAuthAuthzInfo{0, "v", "r"}));
    EXPECT_FALSE(server.validateOAuthAuthzInfo(OAuthAuthzInfo{1, "v", "r"}));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Config ID is invalid.\n");
    EXPECT_FALSE(server.validateOAuthAuthzInfo(OAuthAuthzInfo{0, "", "r"}));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Code verifier is empty.\n");
    EXPECT_FALSE(server.validateOAuthAuthzInfo(OAuthAuthzInfo{0, "v", ""}));
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Redirect uri is empty.\n");
    EXPECT_EQ(log.count("SsoServer: Validating information for verification process with config "
                        "ID: 0.\n"),
              3u);
}

TEST_F(StoresTest, TokensNeedAllThree) {
    EXPECT_TRUE(server.validateOAuthTokens(OAuthTokens{"a", "i", "r"}));
    EXPECT_FALSE(server.validateOAuthTokens(OAuthTokens{"", "i", "r"}));
    EXPECT_FALSE(server.validateOAuthTokens(OAuthTokens{"a", "", "r"}));
    EXPECT_FALSE(server.validateOAuthTokens(OAuthTokens{"a", "i", ""}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StoresTest, PendingAuthorizationHasNoAge) {
    server.authzInfoBySession["old"] = OAuthAuthzInfo{0, "v", "r"};
    record().refreshLifetime = 1;
    server.cleanTokens();
    EXPECT_EQ(server.authzInfoBySession.size(), 1u);
}

TEST_F(StoresTest, CleanTokensForgetsAgedAndOrphanedRecords) {
    record().refreshLifetime = 50;
    server.refreshInfoBySession["fresh"] = refreshAged(50);
    server.refreshInfoBySession["aged"] = refreshAged(51);
    OAuthRefreshInfo orphan = refreshAged(0);
    orphan.configId = 4;
    server.refreshInfoBySession["orphan"] = orphan;
    log.clear();
    EXPECT_TRUE(server.cleanTokens());
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count("fresh"), 1u);
    EXPECT_TRUE(
        log.has("SsoServer: Removing expired refresh token for session: 'aged' (age: 51s, "
                "limit: 50s).\n"));
    EXPECT_TRUE(log.has("SsoServer: ERROR! Invalid config ID in refresh info. Removing entry.\n"));
    EXPECT_EQ(log.lines().front(), "SsoServer: Clearing up old tokens.\n");
    EXPECT_EQ(log.lines().back(), "SsoServer: Token cleanup complete. Remaining tokens: 1.\n");
}

}  // namespace
