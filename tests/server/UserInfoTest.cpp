// Who a token belongs to: the userinfo reader over every shape of answer, and the userinfo
// request against the real provider and against a server that refuses the token.
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "server/SsoServerResponses.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalGrant.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// The statements the reader writes before it looks at the document.
std::vector<std::string> readerHead(std::string const &response, std::string const &provider,
                                    std::string const &userName, std::string const &userType) {
    return {"SsoServer: Reading userinfo response. Provider: '" + provider +
                "' , user name preference: '" + userName + "' , user type preference: '" +
                userType + "'.\n",
            "SsoJson: Received '" + response + "' for string to JSON parsing.\n"};
}

std::vector<std::string> operator+(std::vector<std::string> head,
                                   std::vector<std::string> const &tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

std::vector<std::string> found(std::string const &user, std::string const &final) {
    return {"SsoServer: User from userinfo response: '" + user + "'.\n",
            "SsoServer: Final user is: '" + final + "'.\n"};
}

std::string const noUser = "SsoServer: ERROR! Can't get user from userinfo response.\n";

std::string wrongType(std::string const &member) {
    return "SsoServer: ERROR! Userinfo member '" + member + "' has a value of a wrong type.\n";
}

// Compares whole sequences; an expected statement ending in "*" stands for any statement that
// begins with the text before it (for texts the program does not choose, such as the parser's
// own error message or the provider's document).
void expectLines(std::vector<std::string> const &actual, std::vector<std::string> const &expected,
                 std::string const &what = "") {
    bool same = actual.size() == expected.size();
    for (size_t i = 0; same && i < actual.size(); ++i) {
        std::string const &want = expected[i];
        if (!want.empty() && want.back() == '*') {
            same = actual[i].compare(0, want.size() - 1, want, 0, want.size() - 1) == 0;
        } else {
            same = actual[i] == want;
        }
    }
    if (!same) {
        std::string shown;
        for (auto const &line : actual) {
            shown += "  [" + line + "]\n";
        }
        ADD_FAILURE() << what << ": the log was\n" << shown;
    }
}

struct Row {
    char const *what;
    std::string response;
    std::string provider;
    std::string userName;
    std::string userType;
    std::string result;
    std::vector<std::string> tail;  // after the reader's two opening statements
};

void runRows(std::vector<Row> const &rows) {
    for (auto const &row : rows) {
        LogCapture log;
        EXPECT_EQ(readUserInfoResponse(row.response, row.provider, row.userName, row.userType),
                  row.result)
            << row.what;
        expectLines(log.lines(),
                    readerHead(row.response, row.provider, row.userName, row.userType) + row.tail,
                    row.what);
    }
}

TEST(UserInfoReaderTest, EveryShapeOfTheClaimForEachUserType) {
    // The same shapes through the default claim ("email") and through a configured one.
    for (char const *typeText : {"local", "domain"}) {
        std::string const type = typeText;
        for (char const *claimText : {"email", "qx_login"}) {
            std::string const claim = claimText;
            std::string const pref = claim == "email" ? "" : claim;
            std::string const other = claim == "email" ? "\"sub\":\"x\"" : "\"email\":\"e@x\"";
            auto doc = [&](std::string const &value) {
                return "{" + other + ",\"" + claim + "\":" + value + "}";
            };
            bool local = type == "local";
            // clang-format off
            runRows({
                {"missing", "{" + other + "}", "keycloak", pref, type, "", {noUser}},
                {"empty", doc("\"\""), "keycloak", pref, type, "", {noUser}},
                {"null", doc("null"), "keycloak", pref, type, "", {noUser}},
                {"number", doc("42"), "keycloak", pref, type, "42", found("42", "42")},
                {"boolean", doc("true"), "keycloak", pref, type, "true", found("true", "true")},
                {"object", doc("{\"a\":\"b@c\"}"), "keycloak", pref, type, "", {wrongType(claim)}},
                {"array", doc("[\"b@c\"]"), "keycloak", pref, type, "", {wrongType(claim)}},
                {"with @", doc("\"ann@example.com\""), "keycloak", pref, type,
                 local ? "ann" : "ann@example.com",
                 found("ann@example.com", local ? "ann" : "ann@example.com")},
                {"without @", doc("\"ann\""), "keycloak", pref, type, "ann", found("ann", "ann")},
            });
            // clang-format on
        }
    }
}

TEST(UserInfoReaderTest, BodiesThatHoldNoDocument) {
    std::string const failedParse =
        "SsoServer: ERROR! Parsing string userinfo response to JSON object failed.\n";
    // clang-format off
    runRows({
        {"empty body", "", "keycloak", "", "local", "",
         {"SsoJson: ERROR! Source string is empty.\n", failedParse}},
        {"not JSON", "<html>Unauthorized</html>", "keycloak", "", "local", "",
         {"SsoJson: ERROR! Parsing string to JSON object failed.\n",
          "SsoJson: ERROR! Internal JSON error message: *", failedParse}},
        // Valid JSON that is no object has no members, so there is nobody in it.
        {"array document", "[\"ann@example.com\"]", "keycloak", "", "local", "", {noUser}},
        {"string document", "\"ann@example.com\"", "keycloak", "", "local", "", {noUser}},
        {"error document", "{\"error\":\"invalid_token\"}", "keycloak", "", "local", "", {noUser}},
    });
    // clang-format on
}

TEST(UserInfoReaderTest, AConfiguredClaimIsAHardDemand) {
    // clang-format off
    runRows({
        {"claim and email", "{\"email\":\"ann@example.com\",\"upn\":\"ann.x\"}", "keycloak", "upn",
         "domain", "ann.x", found("ann.x", "ann.x")},
        {"email alone", "{\"email\":\"ann@example.com\"}", "keycloak", "upn", "domain", "",
         {noUser}},
        // Even for "okta", a configured claim is not replaced by preferred_username.
        {"okta email alone", "{\"email\":\"ann@example.com\",\"preferred_username\":\"ann\"}",
         "okta", "upn", "domain", "", {noUser}},
    });
    // clang-format on
}

TEST(UserInfoReaderTest, PreferredUsernameCountsForOktaAlone) {
    std::string const both = "{\"email\":\"ann@example.com\",\"preferred_username\":\"annp\"}";
    // clang-format off
    runRows({
        {"google", both, "google", "", "domain", "ann@example.com",
         found("ann@example.com", "ann@example.com")},
        {"keycloak", both, "keycloak", "", "domain", "ann@example.com",
         found("ann@example.com", "ann@example.com")},
        {"okta", both, "okta", "", "domain", "annp", found("annp", "annp")},
        {"okta without preferred_username", "{\"email\":\"ann@example.com\"}", "okta", "", "domain",
         "ann@example.com", found("ann@example.com", "ann@example.com")},
        // Provider keywords are compared exactly.
        {"Okta", both, "Okta", "", "domain", "ann@example.com",
         found("ann@example.com", "ann@example.com")},
        // An empty preferred_username is taken, and the email is not tried.
        {"okta empty preferred_username",
         "{\"email\":\"ann@example.com\",\"preferred_username\":\"\"}", "okta", "", "domain", "",
         {noUser}},
        {"okta object preferred_username",
         "{\"email\":\"ann@example.com\",\"preferred_username\":{}}", "okta", "", "domain", "",
         {wrongType("preferred_username")}},
    });
    // clang-format on
}

TEST(UserInfoReaderTest, UserTypeLocalCutsAtTheFirstAt) {
    // clang-format off
    runRows({
        {"name@host", "{\"email\":\"ann@example.com\"}", "google", "", "local", "ann",
         found("ann@example.com", "ann")},
        {"two @", "{\"email\":\"ann@b@c\"}", "google", "", "local", "ann", found("ann@b@c", "ann")},
        // Nothing before the "@": the reader has no message of its own, its caller fails.
        {"leading @", "{\"email\":\"@example.com\"}", "google", "", "local", "",
         found("@example.com", "")},
        {"domain", "{\"email\":\"ann@b@c\"}", "google", "", "domain", "ann@b@c",
         found("ann@b@c", "ann@b@c")},
        {"Local", "{\"email\":\"ann@example.com\"}", "google", "", "Local", "ann@example.com",
         found("ann@example.com", "ann@example.com")},
        {"LOCAL", "{\"email\":\"ann@example.com\"}", "google", "", "LOCAL", "ann@example.com",
         found("ann@example.com", "ann@example.com")},
    });
    // clang-format on
}

TEST(UserInfoReaderTest, AnEmptyFinalNameFailsTheLogin) {
    SsoServer server;
    ProviderRecord("google").localUsers().refresh(true).addTo(server);
    LogCapture log;
    EXPECT_EQ(server.completeAsyncLoginFlow("{\"email\":\"@example.com\"}", "at", "rt", 0, ""),
              nullptr);
    EXPECT_TRUE(log.hasInOrder(
        {"SsoServer: Final user is: ''.\n", "SsoServer: ERROR! Final username is empty.\n"}));
    EXPECT_FALSE(log.contains("Revoking refresh"));
    EXPECT_TRUE(server.refreshInfoBySession.empty());
}

class UserInfoFetchTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(restartNetwork(network));
        clearRecordsAfter(server);
        log.clear();
    }

    // A record for a server that is not the provider: only its userinfo URI matters here.
    SsoServerConfigOAuth *addRecord(std::string const &userinfoUri) {
        auto *config =
            ProviderRecord("keycloak").localUsers().userinfoAt(userinfoUri).addTo(server);
        log.clear();  // the record's constructor has its own statement
        return config;
    }

    // The statements of the userinfo GET up to the provider's answer.
    static std::vector<std::string> request(std::string const &token, std::string const &url) {
        return {
            "SsoServer: Exchanging access token: " + token + "' for config ID: 0 for userinfo.\n",
            "SsoServer: Userinfo URL is: '" + url + "'.\n",
            "SsoRequest: Received data for sso request: 'nil'.\n",
            "SsoRequest: Received url: '" + url +
                "' and proxy: 'nil'for sso request "
                "validation.\n",
            "SsoRequest: Proxy is not specified.\n",
            "SsoRequest: Sso request validation success.\n",
            "SsoRequest: URL for sso request handler: '" + url + "'.\n",
            "SsoRequest: Header for sso request handler is: 'Authorization: Bearer " + token +
                "'.\n",
            "SsoRequest: Start sso request with data: 'nil'.\n"};
    }

    SsoRequest &network = SsoRequest::getNetwork();
    SsoServer server;
    LogCapture log;
};

TEST_F(UserInfoFetchTest, RealAccessTokenAtTheLocalProvider) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    SsoServerConfigOAuth *config = LocalGrant::addRecord(server);
    std::string error;
    OAuthTokens tokens = LocalGrant::tokens(server, 0, error, "bob");
    ASSERT_TRUE(error.empty()) << error;
    int before = provider.requestCount("/me");
    log.clear();
    EXPECT_EQ(server.fetchUserInfo(tokens.accessToken, 0), "bob");
    EXPECT_EQ(provider.requestCount("/me"), before + 1);
    expectLines(log.lines(),
                request(tokens.accessToken, config->userinfoUri) +
                    std::vector<std::string>{"SsoRequest: Sso request success.\n",
                                             "SsoServer: Reading userinfo response. Provider: "
                                             "'keycloak' , user name preference: '' , user type "
                                             "preference: 'local'.\n",
                                             "SsoJson: Received '{*"} +
                    found("bob@example.com", "bob"),
                "local provider");

    // The same token through a configured claim and the other user type.
    config->userName = "qx_login";
    config->userType = "domain";
    EXPECT_EQ(server.fetchUserInfo(tokens.accessToken, 0), "bob.local");
    config->userName = "preferred_username";
    EXPECT_EQ(server.fetchUserInfo(tokens.accessToken, 0), "bob");
}

TEST_F(UserInfoFetchTest, RefusedTokenGivesNoUser) {
    FailureServer idp;
    idp.on("/me", 401, "{\"error\":\"invalid_token\",\"error_description\":\"expired\"}");
    addRecord(idp.url("/me"));
    EXPECT_EQ(server.fetchUserInfo("tok-1", 0), "");
    expectLines(log.lines(),
                request("tok-1", idp.url("/me")) +
                    std::vector<std::string>{
                        "SsoRequest: Sso request success.\n",
                        "SsoServer: Reading userinfo response. Provider: 'keycloak' , user name "
                        "preference: '' , user type preference: 'local'.\n",
                        "SsoJson: Received '{\"error\":\"invalid_token\",\"error_description\":"
                        "\"expired\"}' for string to JSON parsing.\n",
                        noUser},
                "refused");
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, "/me");
    std::string const headers = "\r\n" + requests[0].headers + "\r\n";
    EXPECT_NE(headers.find("\r\nAuthorization: Bearer tok-1\r\n"), std::string::npos)
        << requests[0].headers;
    EXPECT_EQ(requests[0].body, "");
}

TEST_F(UserInfoFetchTest, ABrokenConnectionIsAnEmptyAnswer) {
    FailureServer idp;
    FailureServer::Reply reset;
    reset.mode = FailureServer::Mode::Reset;
    idp.on("/me", reset);
    addRecord(idp.url("/me"));
    EXPECT_EQ(server.fetchUserInfo("tok-2", 0), "");
    EXPECT_TRUE(log.hasInOrder({
        "SsoJson: Received '' for string to JSON parsing.\n",
        "SsoJson: ERROR! Source string is empty.\n",
        "SsoServer: ERROR! Parsing string userinfo response to JSON object failed.\n",
    }));
    EXPECT_EQ(log.lines().back(),
              "SsoServer: ERROR! Parsing string userinfo response to JSON object failed.\n");
}

TEST_F(UserInfoFetchTest, NoTokenNoRequest) {
    FailureServer idp;
    addRecord(idp.url("/me"));
    EXPECT_EQ(server.fetchUserInfo("", 0), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Exchanging access token: ' for config ID: 0 for userinfo.\n",
                  "SsoServer: Access token is empty.\n"}));
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(UserInfoFetchTest, NullRecordIsAnInvalidType) {
    server.configs.push_back(nullptr);
    EXPECT_EQ(server.fetchUserInfo("tok", 0), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: Exchanging access token: tok' for config ID: 0 for userinfo.\n",
                  "SsoServer: Config type is invalid.\n"}));
}

}  // namespace
