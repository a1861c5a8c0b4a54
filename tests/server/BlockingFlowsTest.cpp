// The blocking login, refresh and node verification, each as one call against a provider whose
// token, userinfo and revocation endpoints record what they were sent.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/SsoRequest.h"
#include "worker/SsoChannel.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int64_t kNow = 1700000000;
std::string const kTokens =
    "{\"access_token\":\"at-1\",\"id_token\":\"id-1\",\"refresh_token\":\"rt-new\"}";
std::string const kUserInfo =
    "{\"email\":\"alice@example.com\",\"preferred_username\":\"alice\",\"sub\":\"alice\"}";

// Takes the array a flow returns; "" for null.
std::string taken(char *token) {
    std::unique_ptr<char[]> owned(token);
    return owned ? std::string(owned.get()) : std::string();
}

class BlockingFlowsTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_NE(idp.port, 0);
        ASSERT_TRUE(startNetwork(SsoRequest::getNetwork()));
        clearRecordsAfter(server);
        idp.on("/token", 200, kTokens);
        idp.on("/me", 200, kUserInfo);
        idp.on("/revoke", 200, "{}");
        stopClock(kNow);
        addConfig("keycloak", true);
    }

    SsoServerConfigOAuth &addConfig(std::string const &provider, bool refresh) {
        return *ProviderRecord(provider)
                    .client("cid", "secret")
                    .tokenAt(idp.url("/token"))
                    .userinfoAt(idp.url("/me"))
                    .revokeAt(idp.url("/revoke"))
                    .localUsers()
                    .refresh(refresh, 600)
                    .addTo(server);
    }

    SsoServerConfigOAuth &config(size_t id = 0) {
        return *static_cast<SsoServerConfigOAuth *>(server.configs[id]);
    }

    void pend(std::string const &session, uint32_t configId = 0) {
        server.authzInfoBySession[session] =
            OAuthAuthzInfo{configId, "verifier-0123456789", "http://127.0.0.1:18080/cb"};
    }

    void keep(std::string const &session, int64_t age = 100, uint32_t configId = 0) {
        server.refreshInfoBySession[session] =
            OAuthRefreshInfo{configId, kNow - age, "rt-old", "at-old"};
    }

    std::vector<std::string> targets() {
        std::vector<std::string> seen;
        for (auto const &request : idp.requests()) {
            seen.push_back(request.method + " " + request.target);
        }
        return seen;
    }

    FailureServer idp;
    SsoServer server;
    LogCapture log;
};

TEST_F(BlockingFlowsTest, LoginWithRefreshOnKeepsARecordUnderARandomSession) {
    pend("sess");
    log.clear();
    std::string token = taken(server.loginFlow("code-1", "sess"));
    auto parts = SsoChannel::split(token);
    ASSERT_EQ(parts.size(), 3u) << token;
    EXPECT_EQ(parts[0], "alice");
    EXPECT_EQ(parts[1].size(), 32u);
    EXPECT_EQ(parts[2], "1700000600");
    EXPECT_TRUE(server.authzInfoBySession.empty());
    ASSERT_EQ(server.refreshInfoBySession.count(parts[1]), 1u);
    OAuthRefreshInfo const &saved = server.refreshInfoBySession[parts[1]];
    EXPECT_EQ(saved.configId, 0u);
    EXPECT_EQ(saved.savedAt, kNow);
    EXPECT_EQ(saved.refreshToken, "rt-new");
    EXPECT_EQ(saved.accessToken, "at-1");
    EXPECT_EQ(targets(), (std::vector<std::string>{"POST /token", "GET /me"}));
    auto requests = idp.requests();
    EXPECT_TRUE(requests[1].hasHeader("Authorization: Bearer at-1"));
    EXPECT_TRUE(requests[1].body.empty());
    EXPECT_EQ(log.lines().front(),
              "SsoServer: Received OAuth code: 'code-1' and user session: "
              "'sess' for login flow..\n");
    EXPECT_TRUE(log.startingWith("SsoServer: ERROR!").empty());
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Exchanging code: code-1' for config ID: 0 for tokens.\n",
        "SsoServer: Final user is: 'alice'.\n",
        "SsoServer: Refresh flow set in configuration. Abort token revocation.\n",
        "SsoServer: Token is: '" + token + "'.\n",
        "SsoServer: Saving information for later refresh process.\n",
    }));
}

TEST_F(BlockingFlowsTest, LoginWithRefreshOffRevokesAndGivesTheFixedSession) {
    config().refresh = false;
    server.refreshInfoBySession["other"] = OAuthRefreshInfo{0, kNow, "r", "a"};
    pend("sess");
    EXPECT_EQ(taken(server.loginFlow("code-1", "sess")), "alice|000|1700000600");
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count("other"), 1u);
    EXPECT_EQ(targets(), (std::vector<std::string>{"POST /token", "GET /me", "POST /revoke"}));
    EXPECT_EQ(idp.requests()[2].body, "token=rt-new&token_type_hint=refresh_token");
    EXPECT_TRUE(
        log.has("SsoServer: Refresh flow NOT set in configuration. Abort saving token"
                " information.\n"));
}

TEST_F(BlockingFlowsTest, RefreshOffWithoutARevocationEndpointFailsUnlessMicrosoft) {
    config().refresh = false;
    config().revokeUri.clear();
    pend("sess");
    log.clear();
    EXPECT_EQ(server.loginFlow("code-1", "sess"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Revoke response is empty.\n",
                                        "SsoServer: ERROR! Tokens revocation failed.\n"}));
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_TRUE(server.refreshInfoBySession.empty());

    config().provider = "microsoft";
    pend("sess");
    log.clear();
    EXPECT_EQ(taken(server.loginFlow("code-1", "sess")), "alice|000|1700000600");
    EXPECT_TRUE(
        log.has("SsoServer: WARNING! Microsoft does not support token revocation. Abort "
                "token revocation.\n"));
    for (auto const &target : targets()) {
        EXPECT_NE(target, "POST /revoke");
    }
}

TEST_F(BlockingFlowsTest, EmptyArgumentsFailBeforeAnyStoreIsTouched) {
    pend("sess");
    keep("value");
    log.clear();
    EXPECT_EQ(server.loginFlow("", "sess"), nullptr);
    EXPECT_EQ(server.loginFlow("code", ""), nullptr);
    EXPECT_EQ(server.refreshFlow("", "value"), nullptr);
    EXPECT_EQ(server.refreshFlow("uuid", ""), nullptr);
    EXPECT_EQ(server.nodeFlow("", "sess"), nullptr);
    EXPECT_EQ(server.nodeFlow("{\"provider\":\"keycloak\"}", ""), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Login flow arguments are empty.\n",
                  "SsoServer: ERROR! Login flow arguments are empty.\n",
                  "SsoServer: ERROR! Refresh flow arguments are empty.\n",
                  "SsoServer: ERROR! Refresh flow arguments are empty.\n",
                  "SsoServer: ERROR! Node flow arguments are empty.\n",
                  "SsoServer: ERROR! Node flow arguments are empty.\n",
              }));
    EXPECT_FALSE(log.contains("Get information for"));
    EXPECT_EQ(server.authzInfoBySession.count("sess"), 1u);
    EXPECT_EQ(server.refreshInfoBySession.count("value"), 1u);
    EXPECT_TRUE(idp.requests().empty());
    // Both records still serve a flow with proper arguments.
    EXPECT_NE(taken(server.loginFlow("code", "sess")), "");
    EXPECT_NE(taken(server.refreshFlow("uuid", "value")), "");
}

TEST_F(BlockingFlowsTest, LoginWithoutAPendingRecordOrWithABadOneFails) {
    log.clear();
    EXPECT_EQ(server.loginFlow("code", "nobody"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Login information doesn't exist for "
                                        "specified session token.\n"}));
    pend("sess", 4);
    log.clear();
    EXPECT_EQ(server.loginFlow("code", "sess"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Config ID is invalid.\n",
                                        "SsoServer: ERROR! Login information validation "
                                        "failed.\n"}));
    // Consumed and lost: nothing is rolled back.
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(BlockingFlowsTest, TokenAnswerWithoutOneOfTheThreeTokensIsRefused) {
    std::vector<std::string> const answers = {
        "{\"id_token\":\"i\",\"refresh_token\":\"r\"}",
        "{\"access_token\":\"a\",\"refresh_token\":\"r\"}",
        "{\"access_token\":\"a\",\"id_token\":\"i\"}",
    };
    for (auto const &answer : answers) {
        SCOPED_TRACE(answer);
        idp.on("/token", 200, answer);
        pend("sess");
        size_t before = idp.requests().size();
        log.clear();
        EXPECT_EQ(server.loginFlow("code", "sess"), nullptr);
        auto errors = log.startingWith("SsoServer: ERROR!");
        ASSERT_EQ(errors.size(), 2u);
        EXPECT_EQ(errors[1], "SsoServer: ERROR! Tokens validation failed.\n");
        // No userinfo request after a refused answer.
        EXPECT_EQ(idp.requests().size(), before + 1);
        EXPECT_TRUE(server.authzInfoBySession.empty());
    }
}

TEST_F(BlockingFlowsTest, BodiesAreJudgedWhateverTheStatus) {
    idp.on("/token", 500, kTokens);
    idp.on("/me", 500, kUserInfo);
    pend("sess");
    EXPECT_EQ(SsoChannel::split(taken(server.loginFlow("code", "sess")))[0], "alice");
    keep("value");
    EXPECT_EQ(SsoChannel::split(taken(server.refreshFlow("uuid", "value")))[0], "alice");
    EXPECT_EQ(taken(server.nodeFlow("{\"access_token\":\"at-n\",\"provider\":\"keycloak\","
                                    "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
                                        idp.url("/me") + "\"}",
                                    "s")),
              "alice|s");

    // A 200 with an unusable userinfo document fails the login at the user name.
    idp.on("/token", 200, kTokens);
    idp.on("/me", 200, "{\"sub\":\"alice\"}");
    pend("sess");
    log.clear();
    EXPECT_EQ(server.loginFlow("code", "sess"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Can't get user from userinfo "
                                        "response.\n",
                                        "SsoServer: ERROR! Final username is empty.\n"}));
}

TEST_F(BlockingFlowsTest, RefreshMovesTheRecordToTheNewSession) {
    keep("value");
    log.clear();
    std::string token = taken(server.refreshFlow("uuid-1", "value"));
    auto parts = SsoChannel::split(token);
    ASSERT_EQ(parts.size(), 3u) << token;
    EXPECT_EQ(parts[0], "alice");
    EXPECT_EQ(parts[1].size(), 32u);
    EXPECT_NE(parts[1], "value");
    EXPECT_EQ(parts[2], "1700000600");
    EXPECT_EQ(server.refreshInfoBySession.count("value"), 0u);
    ASSERT_EQ(server.refreshInfoBySession.count(parts[1]), 1u);
    EXPECT_EQ(server.refreshInfoBySession[parts[1]].savedAt, kNow);
    EXPECT_EQ(server.refreshInfoBySession[parts[1]].refreshToken, "rt-new");
    EXPECT_EQ(targets(), (std::vector<std::string>{"POST /token", "GET /me"}));
    EXPECT_EQ(idp.requests()[0].body,
              "grant_type=refresh_token&refresh_token=rt-old&scope=openid%20email%20profile");
    EXPECT_EQ(log.lines().front(),
              "SsoServer: Received uuid: 'uuid-1' and session token: 'value'"
              " for refresh flow.\n");
    EXPECT_TRUE(log.startingWith("SsoServer: ERROR!").empty());
    // The old session value is dead.
    log.clear();
    EXPECT_EQ(server.refreshFlow("uuid-1", "value"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Refresh information doesn't exist for "
                                        "specified session token.\n"}));
}

TEST_F(BlockingFlowsTest, GoogleRefreshKeepsTheOldRefreshTokenInTheNewRecord) {
    config().provider = "google";
    idp.on("/token", 200, "{\"access_token\":\"at-2\",\"id_token\":\"id-2\"}");
    keep("value");
    auto parts = SsoChannel::split(taken(server.refreshFlow("uuid", "value")));
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(server.refreshInfoBySession[parts[1]].refreshToken, "rt-old");
    EXPECT_EQ(server.refreshInfoBySession[parts[1]].accessToken, "at-2");

    idp.on("/token", 200, kTokens);
    auto again = SsoChannel::split(taken(server.refreshFlow("uuid", parts[1])));
    ASSERT_EQ(again.size(), 3u);
    EXPECT_EQ(server.refreshInfoBySession[again[1]].refreshToken, "rt-old");
}

TEST_F(BlockingFlowsTest, RefreshWithAnAgedRecordConsumesIt) {
    keep("value", 601);
    log.clear();
    EXPECT_EQ(server.refreshFlow("uuid", "value"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Information is expired. Time limit was600s, but passed: "
                  "601s.\n",
                  "SsoServer: ERROR! Refresh information validation failed.\n"}));
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(BlockingFlowsTest, RefreshNamesItsSessionAndExpiryFailuresApart) {
    PlatformFakes::random() = [](char *, int) { return 0; };
    keep("value");
    log.clear();
    EXPECT_EQ(server.refreshFlow("uuid", "value"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! New user session is empty.\n",
                                        "SsoServer: ERROR! Generating new session token "
                                        "failed.\n"}));
    PlatformFakes::random() = nullptr;

    // A clock before the epoch: the record is young against it, the expiry cannot be made.
    PlatformFakes::clock() = [] { return int64_t{-5}; };
    server.refreshInfoBySession["value"] = OAuthRefreshInfo{0, -10, "rt-old", "at-old"};
    log.clear();
    EXPECT_EQ(server.refreshFlow("uuid", "value"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Timestamp is negative.\n",
                                        "SsoServer: ERROR! Generating new user session "
                                        "failed.\n"}));
    EXPECT_TRUE(server.refreshInfoBySession.empty());
}

TEST_F(BlockingFlowsTest, LoginNamesBothFailuresAlike) {
    PlatformFakes::random() = [](char *, int) { return 0; };
    pend("sess");
    log.clear();
    EXPECT_EQ(server.loginFlow("code", "sess"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! New user session is empty.\n",
                                        "SsoServer: ERROR! Generating new user session "
                                        "failed.\n"}));
    PlatformFakes::random() = nullptr;
    PlatformFakes::clock() = [] { return int64_t{-5}; };
    pend("sess");
    log.clear();
    EXPECT_EQ(server.loginFlow("code", "sess"), nullptr);
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Timestamp is negative.\n",
                                        "SsoServer: ERROR! Generating new user session "
                                        "failed.\n"}));
}

TEST_F(BlockingFlowsTest, NodeWithoutUserNameOrProxyWarnsTwiceAndWorks) {
    std::string const node =
        "{\"access_token\":\"at-n\",\"provider\":\"keycloak\","
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        idp.url("/me") + "\"}";
    log.clear();
    EXPECT_EQ(taken(server.nodeFlow(node, "s")), "alice|s");
    EXPECT_EQ(log.startingWith("SsoServer: "),
              (std::vector<std::string>{
                  "SsoServer: Received node configure: '" + node +
                      "' and user session: 's' for node flow..\n",
                  "SsoServer: WARNING! Field 'qx_proxy' is not set in config.\n",
                  "SsoServer: WARNING! Field 'qx_user_name' is not set in config.\n",
                  "SsoServer: Reading userinfo response. Provider: 'keycloak' , user name "
                  "preference: '' , user type preference: 'local'.\n",
                  "SsoServer: User from userinfo response: 'alice@example.com'.\n",
                  "SsoServer: Final user is: 'alice'.\n",
                  "SsoServer: Creating user token for username: 'alice' user session: 's' from "
                  "node.\n",
                  "SsoServer: Token is: 'alice|s'.\n",
              }));
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/me");
    EXPECT_TRUE(requests[0].hasHeader("Authorization: Bearer at-n"));
    EXPECT_TRUE(requests[0].body.empty());
    // No store and no provider record takes part.
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_TRUE(server.refreshInfoBySession.empty());
}

TEST_F(BlockingFlowsTest, NodeWithAProviderNoServerUsesStillWorks) {
    server.clearConfigs();
    std::string const node =
        "{\"access_token\":\"at-n\",\"provider\":\"nobody-knows\","
        "\"qx_user_name\":\"preferred_username\",\"qx_user_type\":"
        "\"domain\",\"userinfo_uri\":\"" +
        idp.url("/me") + "\"}";
    log.clear();
    EXPECT_EQ(taken(server.nodeFlow(node, "s")), "alice|s");
    EXPECT_EQ(
        log.startingWith("SsoServer: WARNING!"),
        (std::vector<std::string>{"SsoServer: WARNING! Field 'qx_proxy' is not set in config.\n"}));
}

TEST_F(BlockingFlowsTest, NodeDataIsCheckedMemberByMember) {
    std::string const uri = idp.url("/me");
    struct Row {
        std::string node;
        std::string error;
    };
    std::vector<Row> const rows = {
        {"{\"provider\":", "SsoServer: ERROR! Parsing config string to JSON object failed.\n"},
        {"{}", "SsoServer: ERROR! JSON object is empty.\n"},
        {"null", "SsoServer: ERROR! JSON object is empty.\n"},
        {"[]", "SsoServer: ERROR! JSON object is empty.\n"},
        // A root that is not an object has no members.
        {"[\"provider\"]", "SsoServer: ERROR! Field 'provider' is not set in config.\n"},
        {"{\"userinfo_uri\":\"" + uri + "\"}",
         "SsoServer: ERROR! Field 'provider' is not set in config.\n"},
        {"{\"provider\":\"\"}", "SsoServer: ERROR! Value of field 'provider' is empty.\n"},
        {"{\"provider\":{}}", "SsoServer: ERROR! Field 'provider' has a value of a wrong type.\n"},
        {"{\"provider\":\"okta\"}",
         "SsoServer: ERROR! Field 'userinfo_uri' is not set in config.\n"},
        {"{\"provider\":\"okta\",\"userinfo_uri\":\"\"}",
         "SsoServer: ERROR! Value of field 'userinfo_uri' is empty.\n"},
        {"{\"provider\":\"okta\",\"userinfo_uri\":[\"x\"]}",
         "SsoServer: ERROR! Field 'userinfo_uri' has a value of a wrong type.\n"},
        {"{\"provider\":\"okta\",\"userinfo_uri\":\"" + uri + "\"}",
         "SsoServer: ERROR! Field 'access_token' is not set in config.\n"},
        {"{\"access_token\":\"\",\"provider\":\"okta\",\"userinfo_uri\":\"" + uri + "\"}",
         "SsoServer: ERROR! Value of field 'access_token' is empty.\n"},
        {"{\"access_token\":{},\"provider\":\"okta\",\"userinfo_uri\":\"" + uri + "\"}",
         "SsoServer: ERROR! Field 'access_token' has a value of a wrong type.\n"},
        {"{\"access_token\":\"a\",\"provider\":\"okta\",\"userinfo_uri\":\"" + uri + "\"}",
         "SsoServer: ERROR! Field 'qx_user_type' is not set in config.\n"},
        {"{\"access_token\":\"a\",\"provider\":\"okta\",\"qx_user_type\":\"\",\"userinfo_uri\":\"" +
             uri + "\"}",
         "SsoServer: ERROR! Value of field 'qx_user_type' is empty.\n"},
        {"{\"access_token\":\"a\",\"provider\":\"okta\",\"qx_user_type\":[],\"userinfo_uri\":\"" +
             uri + "\"}",
         "SsoServer: ERROR! Field 'qx_user_type' has a value of a wrong type.\n"},
    };
    for (auto const &row : rows) {
        SCOPED_TRACE(row.node);
        log.clear();
        EXPECT_EQ(server.nodeFlow(row.node, "s"), nullptr);
        EXPECT_EQ(log.startingWith("SsoServer: ERROR!"), (std::vector<std::string>{row.error}));
    }
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(BlockingFlowsTest, NodeWithAnUnusableUserinfoAnswerFails) {
    idp.on("/me", 401, "{\"error\":\"invalid_token\"}");
    std::string const node =
        "{\"access_token\":\"at-n\",\"provider\":\"keycloak\","
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        idp.url("/me") + "\"}";
    log.clear();
    EXPECT_EQ(server.nodeFlow(node, "s"), nullptr);
    EXPECT_EQ(
        log.startingWith("SsoServer: ERROR!"),
        (std::vector<std::string>{"SsoServer: ERROR! Can't get user from userinfo response.\n",
                                  "SsoServer: ERROR! Final user is empty.\n"}));
    EXPECT_EQ(idp.requests().size(), 1u);
}

}  // namespace
