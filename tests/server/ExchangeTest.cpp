// Code and refresh grants at a token endpoint that records what it was sent, and the reader of
// the token endpoint's answers.
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "server/SsoServerResponses.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string const kTokens =
    "{\"access_token\":\"at-1\",\"id_token\":\"id-1\","
    "\"refresh_token\":\"rt-new\",\"expires_in\":300}";
std::string const kRedirect = "http://127.0.0.1:18080/cb";
std::string const kEncodedRedirect = "http%3A%2F%2F127.0.0.1%3A18080%2Fcb";

// The header lines of a recorded request, without the request line.
std::vector<std::string> headerLines(FailureServer::Request const &request) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < request.headers.size()) {
        size_t end = request.headers.find("\r\n", start);
        if (end == std::string::npos) {
            end = request.headers.size();
        }
        lines.push_back(request.headers.substr(start, end - start));
        start = end + 2;
    }
    return lines;
}

long indexOfLine(std::vector<std::string> const &lines, std::string const &line) {
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == line) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

bool hasHeaderNamed(std::vector<std::string> const &lines, std::string const &prefix) {
    for (auto const &line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return true;
        }
    }
    return false;
}

class ExchangeTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_NE(idp.port, 0);
        ASSERT_TRUE(startNetwork(SsoRequest::getNetwork()));
        clearRecordsAfter(server);
        idp.on("/token", 200, kTokens);
    }

    // A provider record whose token endpoint is the recording server; its config id is returned.
    uint32_t addConfig(std::string const &provider, std::string const &secret = "s3cr+t/=") {
        auto *config =
            ProviderRecord(provider).client("cid", secret).tokenAt(idp.url("/token")).addTo(server);
        return static_cast<uint32_t>(config->configId);
    }

    OAuthAuthzInfo pending(uint32_t configId) {
        return OAuthAuthzInfo{configId, "verifier-0123456789_abc~def.ghi", kRedirect};
    }

    FailureServer::Request onlyRequest() {
        auto requests = idp.requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? FailureServer::Request() : requests.back();
    }

    FailureServer idp;
    SsoServer server;
    LogCapture log;
};

TEST_F(ExchangeTest, CodeGrantSendsItsFieldsSortedByKeyWithTheClientInTheBody) {
    uint32_t id = addConfig("keycloak");
    log.clear();
    OAuthTokens tokens = server.exchangeCodeForTokens("abc%2Fdef", pending(id));
    EXPECT_EQ(tokens.accessToken, "at-1");
    EXPECT_EQ(tokens.idToken, "id-1");
    EXPECT_EQ(tokens.refreshToken, "rt-new");

    std::string const body =
        "client_id=cid&client_secret=s3cr%2Bt%2F%3D&code=abc%2Fdef&"
        "code_verifier=verifier-0123456789_abc~def.ghi&"
        "grant_type=authorization_code&redirect_uri=" +
        kEncodedRedirect;
    auto request = onlyRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/token");
    EXPECT_EQ(request.body, body);
    auto headers = headerLines(request);
    EXPECT_NE(indexOfLine(headers, "Content-Type: application/x-www-form-urlencoded"), -1);
    EXPECT_FALSE(hasHeaderNamed(headers, "Authorization:"));
    EXPECT_EQ(log.startingWith("SsoServer: "),
              (std::vector<std::string>{
                  "SsoServer: Exchanging code: abc%2Fdef' for config ID: 0 for tokens.\n",
                  "SsoServer: Original code: 'abc%2Fdef'.\n",
                  "SsoServer: Decoded code: 'abc/def'.\n",
                  "SsoServer: Prepared query string is: '" + body + "'.\n",
              }));
}

TEST_F(ExchangeTest, CodeIsDecodedOnceAndEncodedOnce) {
    uint32_t id = addConfig("keycloak");
    struct Row {
        std::string arrived;
        std::string decoded;
        std::string sent;
    };
    std::vector<Row> const rows = {
        {"abc%2Fdef", "abc/def", "code=abc%2Fdef&"},
        {"abc/def", "abc/def", "code=abc%2Fdef&"},
        // Encoded twice on arrival: one layer comes off, one goes on again.
        {"abc%252Fdef", "abc%2Fdef", "code=abc%252Fdef&"},
        {"a+b c", "a+b c", "code=a%2Bb%20c&"},
    };
    for (auto const &row : rows) {
        SCOPED_TRACE(row.arrived);
        size_t before = idp.requests().size();
        log.clear();
        EXPECT_EQ(server.exchangeCodeForTokens(row.arrived, pending(id)).accessToken, "at-1");
        auto requests = idp.requests();
        ASSERT_EQ(requests.size(), before + 1);
        EXPECT_NE(requests.back().body.find(row.sent), std::string::npos) << requests.back().body;
        EXPECT_TRUE(log.has("SsoServer: Decoded code: '" + row.decoded + "'.\n"));
    }
}

TEST_F(ExchangeTest, CodeGrantSendsAnEmptySecretAsAnEmptyValue) {
    uint32_t id = addConfig("keycloak", "");
    EXPECT_EQ(server.exchangeCodeForTokens("c", pending(id)).accessToken, "at-1");
    auto request = onlyRequest();
    EXPECT_EQ(request.body.compare(0, 32, "client_id=cid&client_secret=&cod"), 0) << request.body;
    EXPECT_FALSE(hasHeaderNamed(headerLines(request), "Authorization:"));
}

TEST_F(ExchangeTest, RefreshGrantAuthenticatesByTheBasicHeaderAlone) {
    uint32_t id = addConfig("keycloak");
    log.clear();
    OAuthTokens tokens = server.exchangeRefreshForTokens("uuid-1", "rt/old", id);
    EXPECT_EQ(tokens.accessToken, "at-1");
    EXPECT_EQ(tokens.idToken, "id-1");
    EXPECT_EQ(tokens.refreshToken, "rt-new");

    std::string const body =
        "grant_type=refresh_token&refresh_token=rt%2Fold&scope=openid%20email%20profile";
    auto request = onlyRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/token");
    EXPECT_EQ(request.body, body);
    auto headers = headerLines(request);
    long type = indexOfLine(headers, "Content-Type: application/x-www-form-urlencoded");
    // Base64 of "cid:s3cr+t/=": neither part is percent-encoded first.
    long basic = indexOfLine(headers, "Authorization: Basic Y2lkOnMzY3IrdC89");
    EXPECT_NE(type, -1);
    EXPECT_NE(basic, -1);
    EXPECT_LT(type, basic);
    EXPECT_EQ(request.body.find("client_id"), std::string::npos);
    EXPECT_EQ(request.body.find("client_secret"), std::string::npos);
    EXPECT_EQ(log.startingWith("SsoServer: "),
              (std::vector<std::string>{
                  "SsoServer: Exchanging refresh: rt/old' for config ID: 0 for tokens.\n",
                  "SsoServer: Provider is: 'keycloak'.\n",
                  "SsoServer: Prepared query string is: '" + body + "'.\n",
              }));
    // The uuid goes nowhere.
    EXPECT_FALSE(log.contains("uuid-1"));
    EXPECT_EQ(request.body.find("uuid"), std::string::npos);
}

TEST_F(ExchangeTest, RefreshWithAnEmptySecretSignsWithIdAndBareColon) {
    uint32_t id = addConfig("keycloak", "");
    EXPECT_EQ(server.exchangeRefreshForTokens("u", "rt", id).accessToken, "at-1");
    auto headers = headerLines(onlyRequest());
    EXPECT_NE(indexOfLine(headers, "Authorization: Basic Y2lkOg=="), -1);
}

TEST_F(ExchangeTest, RefreshScopeFollowsTheProviderKeywordExactly) {
    struct Row {
        std::string provider;
        std::string scope;
    };
    std::vector<Row> const rows = {
        {"okta", "openid%20email%20profile%20offline_access"},
        {"microsoft",
         "openid%20email%20profile%20offline_access%20"
         "https%3A%2F%2Fgraph.microsoft.com%2FUser.Read"},
        {"keycloak", "openid%20email%20profile"},
        {"google", "openid%20email%20profile"},
        {"Okta", "openid%20email%20profile"},
        {"MICROSOFT", "openid%20email%20profile"},
    };
    for (auto const &row : rows) {
        SCOPED_TRACE(row.provider);
        uint32_t id = addConfig(row.provider);
        size_t before = idp.requests().size();
        log.clear();
        EXPECT_FALSE(server.exchangeRefreshForTokens("u", "rt", id).accessToken.empty());
        auto requests = idp.requests();
        ASSERT_EQ(requests.size(), before + 1);
        EXPECT_EQ(requests.back().body,
                  "grant_type=refresh_token&refresh_token=rt&scope=" + row.scope);
        EXPECT_TRUE(log.has("SsoServer: Provider is: '" + row.provider + "'.\n"));
    }
}

TEST_F(ExchangeTest, GoogleKeepsTheRefreshTokenThatWasSent) {
    uint32_t id = addConfig("google");
    idp.on("/token", 200, "{\"access_token\":\"at-g\",\"id_token\":\"id-g\"}");
    OAuthTokens without = server.exchangeRefreshForTokens("u", "rt-old", id);
    EXPECT_EQ(without.accessToken, "at-g");
    EXPECT_EQ(without.idToken, "id-g");
    EXPECT_EQ(without.refreshToken, "rt-old");

    idp.on("/token", 200, kTokens);
    OAuthTokens with = server.exchangeRefreshForTokens("u", "rt-old", id);
    EXPECT_EQ(with.accessToken, "at-1");
    EXPECT_EQ(with.refreshToken, "rt-old");

    // An empty new value is not read either.
    idp.on("/token", 200, "{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":\"\"}");
    EXPECT_EQ(server.exchangeRefreshForTokens("u", "rt-old", id).refreshToken, "rt-old");
}

TEST_F(ExchangeTest, OtherProvidersNeedANewRefreshToken) {
    idp.on("/token", 200, "{\"access_token\":\"a\",\"id_token\":\"i\"}");
    for (std::string provider : {"keycloak", "okta", "microsoft", "Google"}) {
        SCOPED_TRACE(provider);
        uint32_t id = addConfig(provider);
        log.clear();
        OAuthTokens tokens = server.exchangeRefreshForTokens("u", "rt-old", id);
        EXPECT_TRUE(tokens.accessToken.empty());
        EXPECT_TRUE(tokens.idToken.empty());
        EXPECT_TRUE(tokens.refreshToken.empty());
        EXPECT_TRUE(log.has("SsoServer: ERROR! Exchange doesn't have field 'refresh_token'.\n"));
    }
}

TEST_F(ExchangeTest, RefreshAnswerWithoutIdTokenFailsOnEveryProvider) {
    idp.on("/token", 200, "{\"access_token\":\"a\",\"refresh_token\":\"r\"}");
    for (std::string provider : {"google", "microsoft", "okta", "keycloak"}) {
        SCOPED_TRACE(provider);
        uint32_t id = addConfig(provider);
        log.clear();
        OAuthTokens tokens = server.exchangeRefreshForTokens("u", "rt-old", id);
        EXPECT_TRUE(tokens.accessToken.empty());
        EXPECT_TRUE(tokens.idToken.empty());
        EXPECT_TRUE(tokens.refreshToken.empty());
        EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
                  (std::vector<std::string>{
                      "SsoServer: ERROR! Exchange doesn't have field 'id_token'.\n"}));
    }
}

TEST_F(ExchangeTest, EmptyObjectIsReportedAsEmpty) {
    uint32_t id = addConfig("keycloak");
    idp.on("/token", 200, "{}");
    log.clear();
    OAuthTokens tokens = server.exchangeCodeForTokens("c", pending(id));
    EXPECT_TRUE(tokens.accessToken.empty());
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Exchange JSON object is empty.\n"}));
    log.clear();
    EXPECT_TRUE(server.exchangeRefreshForTokens("u", "rt", id).accessToken.empty());
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{"SsoServer: ERROR! Exchange JSON object is empty.\n"}));
}

TEST_F(ExchangeTest, TheBodyCountsAndNotTheStatus) {
    uint32_t id = addConfig("keycloak");
    idp.on("/token", 500, kTokens);
    OAuthTokens tokens = server.exchangeCodeForTokens("c", pending(id));
    EXPECT_EQ(tokens.accessToken, "at-1");
    EXPECT_EQ(tokens.idToken, "id-1");
    EXPECT_EQ(tokens.refreshToken, "rt-new");
    EXPECT_EQ(server.exchangeRefreshForTokens("u", "rt", id).refreshToken, "rt-new");

    // A provider's error object, whatever its status, has no access token.
    idp.on("/token", 400, "{\"error\":\"invalid_grant\"}");
    log.clear();
    EXPECT_TRUE(server.exchangeCodeForTokens("c", pending(id)).accessToken.empty());
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Exchange doesn't have field 'access_token'.\n"}));
}

TEST_F(ExchangeTest, FailedRequestReadsAsAnUnparsableAnswer) {
    uint32_t id = addConfig("keycloak");
    static_cast<SsoServerConfigOAuth *>(server.configs[id])->tokenUri = idp.url("/reset");
    FailureServer::Reply reset;
    reset.mode = FailureServer::Mode::Reset;
    idp.on("/reset", reset);
    log.clear();
    OAuthTokens tokens = server.exchangeCodeForTokens("c", pending(id));
    EXPECT_TRUE(tokens.accessToken.empty());
    EXPECT_TRUE(tokens.idToken.empty());
    EXPECT_TRUE(tokens.refreshToken.empty());
    EXPECT_EQ(log.startingWith("SsoServer: ERROR!"),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Parsing string exchange to JSON object failed.\n"}));
}

TEST_F(ExchangeTest, ConfigurationThatIsNotThereSendsNothing) {
    addConfig("keycloak");
    server.configs.push_back(nullptr);
    for (uint32_t id : {1u, 7u}) {
        SCOPED_TRACE(id);
        log.clear();
        EXPECT_TRUE(server.exchangeCodeForTokens("c", pending(id)).accessToken.empty());
        EXPECT_TRUE(server.exchangeRefreshForTokens("u", "rt", id).accessToken.empty());
        EXPECT_EQ(log.startingWith("SsoServer: "),
                  (std::vector<std::string>{
                      "SsoServer: Exchanging code: c' for config ID: " + std::to_string(id) +
                          " for tokens.\n",
                      "SsoServer: Config type is invalid.\n",
                      "SsoServer: Exchanging refresh: rt' for config ID: " + std::to_string(id) +
                          " for tokens.\n",
                      "SsoServer: Config type is invalid.\n",
                  }));
    }
    EXPECT_TRUE(idp.requests().empty());
}

// The reader alone: every answer that is refused, with its one error line.
TEST(ExchangeResponseTest, RefusedAnswersNameTheirReason) {
    struct Row {
        std::string answer;
        std::string error;
    };
    std::vector<Row> const rows = {
        {"", "SsoServer: ERROR! Parsing string exchange to JSON object failed.\n"},
        {"{\"access_token\":",
         "SsoServer: ERROR! Parsing string exchange to JSON object failed.\n"},
        {"null", "SsoServer: ERROR! Exchange JSON object is empty.\n"},
        {"{}", "SsoServer: ERROR! Exchange JSON object is empty.\n"},
        {"[]", "SsoServer: ERROR! Exchange JSON object is empty.\n"},
        // A root that is not an object has no members.
        {"[\"access_token\"]", "SsoServer: ERROR! Exchange doesn't have field 'access_token'.\n"},
        {"\"access_token\"", "SsoServer: ERROR! Exchange doesn't have field 'access_token'.\n"},
        {"{\"id_token\":\"i\",\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange doesn't have field 'access_token'.\n"},
        {"{\"access_token\":\"\",\"id_token\":\"i\",\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange field 'access_token' is empty.\n"},
        {"{\"access_token\":{\"a\":1},\"id_token\":\"i\",\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange field 'access_token' has a value of a wrong type.\n"},
        {"{\"access_token\":\"a\",\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange doesn't have field 'id_token'.\n"},
        {"{\"access_token\":\"a\",\"id_token\":\"\",\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange field 'id_token' is empty.\n"},
        {"{\"access_token\":\"a\",\"id_token\":[\"i\"],\"refresh_token\":\"r\"}",
         "SsoServer: ERROR! Exchange field 'id_token' has a value of a wrong type.\n"},
        {"{\"access_token\":\"a\",\"id_token\":\"i\"}",
         "SsoServer: ERROR! Exchange doesn't have field 'refresh_token'.\n"},
        {"{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":\"\"}",
         "SsoServer: ERROR! Exchange field 'refresh_token' is empty.\n"},
        {"{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":[]}",
         "SsoServer: ERROR! Exchange field 'refresh_token' has a value of a wrong type.\n"},
    };
    for (auto const &row : rows) {
        SCOPED_TRACE(row.answer);
        LogCapture log;
        OAuthTokens tokens = readExchangeResponse(row.answer, std::string());
        EXPECT_TRUE(tokens.accessToken.empty());
        EXPECT_TRUE(tokens.idToken.empty());
        EXPECT_TRUE(tokens.refreshToken.empty());
        EXPECT_EQ(log.startingWith("SsoServer: "), (std::vector<std::string>{row.error}));
    }
}

TEST(ExchangeResponseTest, AKeptRefreshTokenIsReturnedWithoutReadingTheAnswers) {
    LogCapture log;
    OAuthTokens tokens = readExchangeResponse(
        "{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":{}}", "kept");
    EXPECT_EQ(tokens.accessToken, "a");
    EXPECT_EQ(tokens.idToken, "i");
    EXPECT_EQ(tokens.refreshToken, "kept");
    EXPECT_TRUE(log.startingWith("SsoServer: ").empty());
    // The other two are required all the same.
    EXPECT_TRUE(readExchangeResponse("{\"access_token\":\"a\"}", "kept").refreshToken.empty());
    EXPECT_TRUE(log.has("SsoServer: ERROR! Exchange doesn't have field 'id_token'.\n"));
}

}  // namespace
