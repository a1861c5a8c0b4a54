// The verify flow on the engine, without a worker: the form it sends, how it judges the token
// answer and the userinfo answer, and when it cannot start.
#include "server/OAuthAuthzInfo.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/FlowPump.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

namespace {

std::string const kUserinfo = "{\"email\":\"alice@example.com\"}";

class VerifyFlowTest : public EngineTest {
protected:
    void SetUp() override {
        clearRecordsAfter(server);
        ASSERT_TRUE(restartNetwork(network));
        server.clearConfigs();
        ProviderRecord("keycloak")
            .localUsers()
            .refresh(true)
            .client("client", "secret")
            .tokenAt(idp.url("/token"))
            .userinfoAt(idp.url("/me"))
            .addTo(server);
        idp.on("/me", 200, kUserinfo);
    }

    AsyncFlowResult run(std::string const &code = "code") {
        EXPECT_TRUE(network.startVerifyFlow("session-1", code, info));
        AsyncFlowResult result;
        EXPECT_TRUE(pumpUntilFinished(network, result));
        EXPECT_FALSE(network.hasActiveFlow("session-1"));
        EXPECT_EQ(result.sessionId, "session-1");
        EXPECT_EQ(result.flowType, 1);
        return result;
    }

    CurlRequest &network = CurlRequest::getNetwork();
    SsoServer &server = SsoServer::getServer();
    FailureServer idp;
    OAuthAuthzInfo info{0, "verifier", "http://r/cb"};
    LogCapture log;
};

TEST_F(VerifyFlowTest, CodeIsDecodedOnceAndEncodedOnceInTheForm) {
    idp.on("/token", 200, LoginChannel::tokens("at-1", "it-1", "rt-1"));
    auto result = run("a%2Fb%20c+d");
    EXPECT_TRUE(result.success) << result.errorMessage;
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/token");
    EXPECT_EQ(requests[0].body,
              "client_id=client&client_secret=secret&grant_type=authorization_code&code=a%2Fb%20c%"
              "2Bd&code_verifier=verifier&redirect_uri=http%3A%2F%2Fr%2Fcb");
    EXPECT_NE(
        (requests[0].headers + "\r\n").find("Content-Type: application/x-www-form-urlencoded\r\n"),
        std::string::npos);
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_NE((requests[1].headers + "\r\n").find("Authorization: Bearer at-1\r\n"),
              std::string::npos);
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: Original code: 'a%2Fb%20c+d'.\n",
        "CurlRequest: Decoded code: 'a/b c+d'.\n",
        "CurlRequest: POST data prepared, length: " + std::to_string(requests[0].body.size()) +
            ".\n",
    })) << log.text();
    EXPECT_EQ(result.data.compare(0, 6, "alice|"), 0) << result.data;
}

TEST_F(VerifyFlowTest, AnswerWithoutRefreshTokenGoesOnToTheUserinfo) {
    idp.on("/token", 200, LoginChannel::tokens("at-1", "it-1", "-"));
    auto result = run();
    // The completion then refuses to keep a record without a refresh token.
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage, "Failed to process login result");
    EXPECT_EQ(result.httpCode, 0);
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].target, "/me");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: Token exchange successful queuing userinfo request.\n",
        "SsoServer: Refresh flow set in configuration. Abort token revocation.\n",
        "SsoServer: Saving information for later refresh process.\n",
        "SsoServer: ERROR! Refresh token is empty.\n",
    })) << log.text();
}

TEST_F(VerifyFlowTest, EmptyAccessTokenGoesOnWithABareBearerLine) {
    idp.on("/token", 200, LoginChannel::tokens("", "it-1", "rt-1"));
    run();
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].target, "/me");
    EXPECT_NE((requests[1].headers + "\r\n").find("\r\nAuthorization: Bearer \r\n"),
              std::string::npos)
        << requests[1].headers;
}

TEST_F(VerifyFlowTest, AnswersThatEndTheFlow) {
    struct Row {
        std::string what;
        int tokenStatus;
        std::string tokenBody;
        int userinfoStatus;
        std::string errorMessage;
        int httpCode;
    };
    std::vector<Row> const rows = {
        {"not JSON", 200, "<html>busy</html>", 200, "Failed to parse token response", 200},
        {"no id_token", 200, LoginChannel::tokens("at", "-", "rt"), 200,
         "Token response missing required fields", 200},
        {"no access_token", 299, LoginChannel::tokens("-", "it", "rt"), 200,
         "Token response missing required fields", 299},
        {"token 404", 404, "gone", 200, "HTTP error: gone", 404},
        {"userinfo 403", 200, LoginChannel::tokens("at", "it", "rt"), 403,
         "HTTP error: {\"error\":\"insufficient_scope\"}", 403},
    };
    for (auto const &row : rows) {
        idp.on("/token", row.tokenStatus, row.tokenBody);
        idp.on("/me", row.userinfoStatus,
               row.userinfoStatus == 200 ? kUserinfo : "{\"error\":\"insufficient_scope\"}");
        auto result = run();
        EXPECT_FALSE(result.success) << row.what;
        EXPECT_EQ(result.errorMessage, row.errorMessage) << row.what;
        EXPECT_EQ(result.httpCode, row.httpCode) << row.what;
        EXPECT_EQ(result.data, "") << row.what;
        AsyncFlowResult none;
        EXPECT_FALSE(network.getCompletedFlow(none)) << row.what;
    }
}

TEST_F(VerifyFlowTest, ConfigurationThatDoesNotExistKeepsTheFlowFromStarting) {
    OAuthAuthzInfo beyond{1, "verifier", "http://r/cb"};
    EXPECT_FALSE(network.startVerifyFlow("session-1", "code", beyond));
    EXPECT_FALSE(network.hasActiveFlow("session-1"));
    EXPECT_TRUE(network.requests.empty());
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: Starting verify flow for session 'session-1'.\n",
        "CurlRequest: ERROR! Invalid config ID.\n",
        "CurlRequest: ERROR! Failed to queue token exchange request.\n",
    }));

    server.configs.push_back(nullptr);
    log.clear();
    EXPECT_FALSE(network.startVerifyFlow("session-1", "code", beyond));
    EXPECT_TRUE(log.has("CurlRequest: ERROR! Config is null.\n"));
    EXPECT_FALSE(network.hasActiveFlow("session-1"));
    pumpTurns(network, 3);
    AsyncFlowResult none;
    EXPECT_FALSE(network.getCompletedFlow(none));
    EXPECT_TRUE(idp.requests().empty());
}

}  // namespace
