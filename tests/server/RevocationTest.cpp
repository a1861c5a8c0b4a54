// Giving a refresh token back: when nothing is sent, what is sent, what counts as an answer, and
// that the real provider really forgets the token.
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalGrant.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

std::string revoking(std::string const &token) {
    return "SsoServer: Revoking refresh: " + token + "' for config ID: 0.\n";
}

std::string const continuing =
    "SsoServer: Refresh flow NOT set in configuration. Continuation of token revocation.\n";

// The statements of the Basic credentials over `credentials` (which encode to `basic`).
std::vector<std::string> encoding(std::string const &credentials, std::string const &basic) {
    return {"SsoUtils: Received string for Base64 formatting: '" + credentials +
                "' with length: " + std::to_string(credentials.size()) + ".\n",
            "SsoUtils: Buffer size for Base64 formatting: " +
                std::to_string(4 * ((credentials.size() + 2) / 3) + 1) + ".\n",
            "SsoUtils: Base64 string is: '" + basic +
                "' with length: " + std::to_string(basic.size()) + ".\n"};
}

// The statements of the revocation POST, from the request's arguments to its success.
std::vector<std::string> post(std::string const &url, std::string const &body,
                              std::string const &basic) {
    return {
        "SsoRequest: Received data for sso request: '" + body + "'.\n",
        "SsoRequest: Received url: '" + url + "' and proxy: 'nil'for sso request validation.\n",
        "SsoRequest: Proxy is not specified.\n",
        "SsoRequest: Sso request validation success.\n",
        "SsoRequest: URL for sso request handler: '" + url + "'.\n",
        "SsoRequest: Header for sso request handler is: 'Content-Type: "
        "application/x-www-form-urlencoded'.\n",
        "SsoRequest: Header for sso request handler is: 'Authorization: Basic " + basic + "'.\n",
        "SsoRequest: Start sso request with data: '" + body + "'.\n",
        "SsoRequest: Sso request success.\n"};
}

std::vector<std::string> operator+(std::vector<std::string> head,
                                   std::vector<std::string> const &tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// base64("qxss-client:qxss-secret")
std::string const localBasic = "cXhzcy1jbGllbnQ6cXhzcy1zZWNyZXQ=";

class RevocationTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(restartNetwork(network));
        clearRecordsAfter(server);
        log.clear();
    }
    void TearDown() override {
        EngineTest::TearDown();
        LocalProvider::shared().setRevocationBody(false);
    }

    SsoServerConfigOAuth *addRecord(std::string const &provider, bool refresh,
                                    std::string const &revokeUri) {
        auto *config = ProviderRecord(provider)
                           .refresh(refresh)
                           .client("qxss-client", "s3cr+t/x:y")
                           .revokeAt(revokeUri)
                           .addTo(server);
        log.clear();  // the record's constructor has its own statement
        return config;
    }

    // A real refresh token of a login at the local provider, for record 0.
    std::string realRefreshToken() {
        std::string error;
        OAuthTokens tokens = LocalGrant::tokens(server, 0, error);
        EXPECT_TRUE(error.empty()) << error;
        return tokens.refreshToken;
    }

    // Whether the provider still takes `refreshToken` in a refresh grant.
    bool refreshes(std::string const &refreshToken) {
        return server.validateOAuthTokens(server.exchangeRefreshForTokens("", refreshToken, 0));
    }

    SsoRequest &network = SsoRequest::getNetwork();
    SsoServer server;
    LogCapture log;
};

TEST_F(RevocationTest, RefreshFlowSetKeepsTheTokenForEveryProvider) {
    FailureServer idp;
    idp.on("/revoke", 200, "{}");
    for (char const *provider : {"microsoft", "okta", "google", "keycloak"}) {
        for (char const *token : {"rt-1", ""}) {
            server.clearConfigs();
            addRecord(provider, true, idp.url("/revoke"));
            log.clear();
            EXPECT_TRUE(server.revokeRefreshToken(token, 0)) << provider << " '" << token << "'";
            EXPECT_EQ(
                log.lines(),
                (std::vector<std::string>{
                    revoking(token),
                    "SsoServer: Refresh flow set in configuration. Abort token revocation.\n"}))
                << provider;
        }
    }
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(RevocationTest, MicrosoftIsNeverAsked) {
    FailureServer idp;
    idp.on("/revoke", 200, "{}");
    addRecord("microsoft", false, idp.url("/revoke"));
    for (char const *token : {"rt-1", ""}) {
        log.clear();
        EXPECT_TRUE(server.revokeRefreshToken(token, 0));
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{revoking(token), continuing,
                                            "SsoServer: WARNING! Microsoft does not support token "
                                            "revocation. Abort token revocation.\n"}));
    }
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(RevocationTest, EmptyTokenFailsWithoutARequest) {
    FailureServer idp;
    idp.on("/revoke", 200, "{}");
    addRecord("keycloak", false, idp.url("/revoke"));
    EXPECT_FALSE(server.revokeRefreshToken("", 0));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{revoking(""), continuing,
                                        "SsoServer: ERROR! Refresh token is empty.\n"}));
    EXPECT_TRUE(idp.requests().empty());
}

TEST_F(RevocationTest, TheBodyIsLiteralAndTheSecretIsRaw) {
    FailureServer idp;
    idp.on("/revoke", 200, "{\"ok\":true}");
    addRecord("okta", false, idp.url("/revoke"));
    std::string const token = "a+b&c=d%20e";
    std::string const body = "token=a+b&c=d%20e&token_type_hint=refresh_token";
    // base64("qxss-client:s3cr+t/x:y"): the id and secret as they stand, no percent-encoding.
    std::string const basic = "cXhzcy1jbGllbnQ6czNjcit0L3g6eQ==";
    EXPECT_TRUE(server.revokeRefreshToken(token, 0));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{revoking(token), continuing} +
               encoding("qxss-client:s3cr+t/x:y", basic) + post(idp.url("/revoke"), body, basic)));
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].target, "/revoke");
    EXPECT_EQ(requests[0].body, body);
    EXPECT_TRUE(requests[0].hasHeader("Content-Type: application/x-www-form-urlencoded"))
        << requests[0].headers;
    EXPECT_TRUE(requests[0].hasHeader("Authorization: Basic " + basic)) << requests[0].headers;
}

TEST_F(RevocationTest, EmptySecretStillAsks) {
    FailureServer idp;
    idp.on("/revoke", 200, "{}");
    addRecord("google", false, idp.url("/revoke"))->clientSecret.clear();
    EXPECT_TRUE(server.revokeRefreshToken("rt", 0));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{revoking("rt"), continuing} +
                            encoding("qxss-client:", "cXhzcy1jbGllbnQ6") +
                            post(idp.url("/revoke"), "token=rt&token_type_hint=refresh_token",
                                 "cXhzcy1jbGllbnQ6")));
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 1u);
    // base64("qxss-client:")
    EXPECT_TRUE(requests[0].hasHeader("Authorization: Basic cXhzcy1jbGllbnQ6"))
        << requests[0].headers;
    EXPECT_EQ(requests[0].body, "token=rt&token_type_hint=refresh_token");
}

TEST_F(RevocationTest, AnyBodyIsSuccessAndNoBodyIsFailure) {
    FailureServer idp;
    // The status is not looked at: an error document is an answer.
    idp.on("/error", 400, "{\"error\":\"unsupported_token_type\"}");
    idp.on("/empty", 200, "");
    addRecord("keycloak", false, idp.url("/error"));
    EXPECT_TRUE(server.revokeRefreshToken("rt", 0));
    static_cast<SsoServerConfigOAuth *>(server.configs[0])->revokeUri = idp.url("/empty");
    log.clear();
    EXPECT_FALSE(server.revokeRefreshToken("rt", 0));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{revoking("rt"), continuing} +
               encoding("qxss-client:s3cr+t/x:y", "cXhzcy1jbGllbnQ6czNjcit0L3g6eQ==") +
               post(idp.url("/empty"), "token=rt&token_type_hint=refresh_token",
                    "cXhzcy1jbGllbnQ6czNjcit0L3g6eQ==") +
               std::vector<std::string>{"SsoServer: ERROR! Revoke response is empty.\n"}));
    EXPECT_EQ(idp.requests().size(), 2u);
}

TEST_F(RevocationTest, NoRevocationEndpointInDiscoveryFailsTheStep) {
    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 200,
           "{\"issuer\":\"" + idp.url() + "\",\"authorization_endpoint\":\"" + idp.url("/auth") +
               "\",\"token_endpoint\":\"" + idp.url("/token") + "\",\"userinfo_endpoint\":\"" +
               idp.url("/me") + "\"}");
    SsoServerConfigOAuth *config = addRecord("okta", false, "");
    config->idpDomain = idp.url();
    CurlRequest &discovery = CurlRequest::getNetwork();
    discovery.cleanUp();
    ASSERT_TRUE(discovery.init(CURL_GLOBAL_ALL));
    server.machineType = SsoServer::kMachineServer;
    bool loaded = server.loadConfigsMetadata();
    discovery.cleanUp();
    ASSERT_TRUE(loaded);
    ASSERT_EQ(config->revokeUri, "");
    ASSERT_TRUE(
        log.has("SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in "
                "oauth metadata response.\n"));
    log.clear();
    EXPECT_FALSE(server.revokeRefreshToken("rt", 0));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{revoking("rt"), continuing} +
               encoding("qxss-client:s3cr+t/x:y", "cXhzcy1jbGllbnQ6czNjcit0L3g6eQ==") +
               std::vector<std::string>{
                   "SsoRequest: Received data for sso request: "
                   "'token=rt&token_type_hint=refresh_token'.\n",
                   "SsoRequest: Received url: '' and proxy: 'nil'for sso request validation.\n",
                   "SsoRequest: ERROR! Url is empty.\n",
                   "SsoRequest: ERROR! Sso request arguments validation failed.\n",
                   "SsoServer: ERROR! Revoke response is empty.\n"}));
    EXPECT_EQ(idp.requests().size(), 1u);  // the discovery alone
    // With the refresh flow set the same provider is usable.
    config->refresh = true;
    EXPECT_TRUE(server.revokeRefreshToken("rt", 0));
}

TEST_F(RevocationTest, TheLocalProviderForgetsARevokedToken) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    ASSERT_TRUE(provider.setRevocationBody(true));
    SsoServerConfigOAuth *config = LocalGrant::addRecord(server);
    std::string kept = realRefreshToken();
    std::string revoked = realRefreshToken();
    ASSERT_FALSE(revoked.empty());
    config->refresh = false;
    int before = provider.requestCount("/token/revocation");
    log.clear();
    EXPECT_TRUE(server.revokeRefreshToken(revoked, 0));
    EXPECT_EQ(provider.requestCount("/token/revocation"), before + 1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{revoking(revoked), continuing} +
               encoding("qxss-client:qxss-secret", localBasic) +
               post(config->revokeUri, "token=" + revoked + "&token_type_hint=refresh_token",
                    localBasic)));
    EXPECT_FALSE(refreshes(revoked));
    // The other login's token was not touched, so the refusal above is the revocation's doing.
    EXPECT_TRUE(refreshes(kept));
}

TEST_F(RevocationTest, TheProvidersEmptyAnswerFailsAlthoughItRevoked) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    SsoServerConfigOAuth *config = LocalGrant::addRecord(server);
    std::string token = realRefreshToken();
    ASSERT_FALSE(token.empty());
    config->refresh = false;
    int before = provider.requestCount("/token/revocation");
    log.clear();
    EXPECT_FALSE(server.revokeRefreshToken(token, 0));
    EXPECT_EQ(provider.requestCount("/token/revocation"), before + 1);
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Revoke response is empty.\n");
    EXPECT_FALSE(refreshes(token));
}

TEST_F(RevocationTest, KeptTokensStayLiveAtTheLocalProvider) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    SsoServerConfigOAuth *config = LocalGrant::addRecord(server);
    std::string token = realRefreshToken();
    ASSERT_FALSE(token.empty());
    int before = provider.requestCount("/token/revocation");
    EXPECT_TRUE(server.revokeRefreshToken(token, 0));  // refresh flow set
    config->refresh = false;
    config->provider = "microsoft";
    EXPECT_TRUE(server.revokeRefreshToken(token, 0));
    EXPECT_EQ(provider.requestCount("/token/revocation"), before);
    config->provider = "keycloak";
    EXPECT_TRUE(refreshes(token));
}

// The whole blocking login with the refresh flow off: it stands or falls with the revocation.
TEST_F(RevocationTest, LoginWithoutRefreshNeedsAnAnswerFromTheRevocation) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    LocalGrant::addRecord(server)->refresh = false;

    auto code = LocalGrant::authorize(server, 0);
    ASSERT_TRUE(code.ok) << code.error;
    EXPECT_EQ(server.loginFlow(code.code, code.session), nullptr);
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! Revoke response is empty.\n",
                                "SsoServer: ERROR! Tokens revocation failed.\n"}));

    ASSERT_TRUE(provider.setRevocationBody(true));
    code = LocalGrant::authorize(server, 0);
    ASSERT_TRUE(code.ok) << code.error;
    std::unique_ptr<char[]> token(server.loginFlow(code.code, code.session));
    ASSERT_NE(token, nullptr);
    EXPECT_EQ(std::string(token.get()).compare(0, 10, "alice|000|"), 0) << token.get();
    EXPECT_TRUE(server.refreshInfoBySession.empty());
}

TEST_F(RevocationTest, LoginWithoutRefreshFailsWithoutARevocationEndpoint) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    ASSERT_TRUE(provider.setRevocationBody(true));
    SsoServerConfigOAuth *config = LocalGrant::addRecord(server);
    config->refresh = false;
    config->revokeUri.clear();
    auto code = LocalGrant::authorize(server, 0);
    ASSERT_TRUE(code.ok) << code.error;
    int before = provider.requestCount("/token/revocation");
    EXPECT_EQ(server.loginFlow(code.code, code.session), nullptr);
    EXPECT_TRUE(log.hasInOrder({"SsoRequest: ERROR! Url is empty.\n",
                                "SsoServer: ERROR! Revoke response is empty.\n",
                                "SsoServer: ERROR! Tokens revocation failed.\n"}));
    EXPECT_EQ(provider.requestCount("/token/revocation"), before);
}

}  // namespace
