// What a login is given when it starts, and what a node is given later.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoUtils.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

std::string const kSession(32, 's');
// The clock stands still during each test (see SetUp).
constexpr int64_t kNow = 1700000000;

class ClientConfigTest : public EngineTest {
protected:
    void SetUp() override {
        stopClock(kNow);
        ProviderRecord("keycloak")
            .authAt("https://idp/auth")
            .client("cid")
            .userinfoAt("https://idp/me")
            .localUsers()
            .redirects({"https://10.0.0.1/cb", "https://10.0.0.2/cb"})
            .addTo(server);
        log.clear();
    }

    SsoServerConfigOAuth &record() {
        return *static_cast<SsoServerConfigOAuth *>(server.configs[0]);
    }

    std::string clientConfig(uint32_t id, char const *session, char const *ip = nullptr) {
        char *result = server.getClientConfig(id, session, ip);
        std::string text = result ? result : "<null>";
        delete[] result;
        return text;
    }

    SsoServer server;
    LogCapture log;
};

TEST_F(ClientConfigTest, ComposesJsonChallengeAndSession) {
    std::string result = clientConfig(0, kSession.c_str());
    std::string json =
        "{\"auth_uri\":\"https://idp/auth\",\"client_id\":\"cid\",\"provider\":"
        "\"keycloak\",\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://10.0.0.1/cb\"}";
    ASSERT_EQ(result.compare(0, json.size() + 1, json + "|"), 0) << result;
    std::string challenge = result.substr(json.size() + 1, 43);
    EXPECT_EQ(result, json + "|" + challenge + "|" + kSession);
    ASSERT_EQ(server.authzInfoBySession.count(kSession), 1u);
    OAuthAuthzInfo const &saved = server.authzInfoBySession[kSession];
    EXPECT_EQ(saved.configId, 0u);
    EXPECT_EQ(saved.redirectUri, "https://10.0.0.1/cb");
    EXPECT_EQ(saved.codeVerifier.size(), 48u);
    EXPECT_EQ(getHashBase64Url(saved.codeVerifier.c_str()), challenge);
    EXPECT_EQ(challenge.find_first_of("=+/"), std::string::npos);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Get client config for config ID: 0, user session: '" + kSession +
            "' and clusterIp (optional): 'nil'.\n",
        "SsoServer: Generating code verifier.\n",
        "SsoServer: Generating code challange.\n",
        "SsoServer: Getting code challange based on code verifier.\n",
        "SsoServer: Preparing client configuration.\n",
        "SsoServer: Selected 0 redirect uri from configuration ID 0 for client configuration.\n",
        "SsoServer: Redirect uri for client configuration is:'https://10.0.0.1/cb'.\n",
        "SsoServer: Finalizing client configuration.\n",
        "SsoServer: Saving information for later verification process.\n",
    }));
}

TEST_F(ClientConfigTest, ChallengeIsUrlSafeWhereBase64HasPlusAndSlash) {
    // 48 "B" bytes make the verifier "BBB...B", whose SHA-256 in standard Base64,
    // "2rfc4d3nMoK88I/26W/YaMZZ+m8sRkxb9+sKhMo+CN4=", holds "+", "/" and "=".
    PlatformFakes::random() = [](char *buffer, int length) {
        std::memset(buffer, 'B', static_cast<size_t>(length));
        return 1;
    };
    std::string const challenge = "2rfc4d3nMoK88I_26W_YaMZZ-m8sRkxb9-sKhMo-CN4";
    std::string const json =
        "{\"auth_uri\":\"https://idp/auth\",\"client_id\":\"cid\",\"provider\":"
        "\"keycloak\",\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://10.0.0.1/cb\"}";
    EXPECT_EQ(clientConfig(0, kSession.c_str()), json + "|" + challenge + "|" + kSession);
    EXPECT_EQ(server.authzInfoBySession.at(kSession).codeVerifier, std::string(48, 'B'));
}

TEST_F(ClientConfigTest, ClusterIpSelectsTheRedirectUri) {
    std::string result = clientConfig(0, kSession.c_str(), "10.0.0.2");
    ASSERT_EQ(server.authzInfoBySession.count(kSession), 1u);
    OAuthAuthzInfo const &saved = server.authzInfoBySession.at(kSession);
    EXPECT_EQ(result,
              "{\"auth_uri\":\"https://idp/auth\",\"client_id\":\"cid\",\"provider\":"
              "\"keycloak\",\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://10.0.0.2/cb\"}|" +
                  getHashBase64Url(saved.codeVerifier.c_str()) + "|" + kSession);
    EXPECT_EQ(saved.redirectUri, "https://10.0.0.2/cb");
    EXPECT_TRUE(log.has("SsoServer: Get client config for config ID: 0, user session: '" +
                        kSession + "' and clusterIp (optional): '10.0.0.2'.\n"));
}

TEST_F(ClientConfigTest, SecondRequestKeepsTheFirstVerifier) {
    std::string first = clientConfig(0, kSession.c_str());
    std::string verifier = server.authzInfoBySession[kSession].codeVerifier;
    std::string second = clientConfig(0, kSession.c_str(), "10.0.0.2");
    EXPECT_NE(first, "<null>");
    EXPECT_NE(second, "<null>");
    EXPECT_NE(first, second);
    EXPECT_EQ(server.authzInfoBySession[kSession].codeVerifier, verifier);
    EXPECT_EQ(server.authzInfoBySession[kSession].redirectUri, "https://10.0.0.1/cb");
}

TEST_F(ClientConfigTest, SessionLength) {
    std::string const invalid = "SsoServer: ERROR! User session is invalid.\n";
    EXPECT_EQ(clientConfig(0, std::string(31, 's').c_str()), "<null>");
    EXPECT_EQ(log.lines().back(), invalid);
    log.clear();
    EXPECT_EQ(clientConfig(0, ""), "<null>");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Get client config for config ID: 0, user session: '' "
                               "and clusterIp (optional): 'nil'.\n",
                               invalid}));
    log.clear();
    EXPECT_EQ(clientConfig(0, nullptr), "<null>");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServer: Get client config for config ID: 0, user session: 'nil' "
                               "and clusterIp (optional): 'nil'.\n",
                               invalid}));
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_NE(clientConfig(0, std::string(32, 's').c_str()), "<null>");
}

TEST_F(ClientConfigTest, IdEqualToTheNumberOfRecordsIsRefused) {
    EXPECT_EQ(clientConfig(1, kSession.c_str()), "<null>");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Config ID is invalid.\n");
}

TEST_F(ClientConfigTest, BeforeMetadataThePreparationFails) {
    record().authUri.clear();
    EXPECT_EQ(clientConfig(0, kSession.c_str()), "<null>");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Preparing client failed.\n");
    EXPECT_TRUE(server.authzInfoBySession.empty());
}

TEST_F(ClientConfigTest, EmptyRedirectUri) {
    record().redirectUris = {""};
    EXPECT_EQ(clientConfig(0, kSession.c_str()), "<null>");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Redirect uri is empty.\n");
}

TEST_F(ClientConfigTest, FailingRandomSource) {
    PlatformFakes::random() = [](char *, int) { return 0; };
    EXPECT_EQ(clientConfig(0, kSession.c_str()), "<null>");
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Generating code verifier failed.\n");
}

TEST_F(ClientConfigTest, LoginOptionsAreACopy) {
    char *none = server.getLoginOptions();
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoServer: Get login options. String is: ''\n",
                                        "SsoServer: ERROR! Login options is empty.\n"}));
    server.loginOptions = "id%3D0";
    char *options = server.getLoginOptions();
    ASSERT_NE(options, nullptr);
    EXPECT_STREQ(options, "id%3D0");
    delete[] options;
}

TEST_F(ClientConfigTest, NodeConfigReadsWithoutConsuming) {
    server.refreshInfoBySession["t"] = OAuthRefreshInfo{0, kNow, "rt", "at"};
    for (int round = 0; round < 2; ++round) {
        char *node = server.getNodeConfig("t");
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(
            node,
            "{\"access_token\":\"at\",\"provider\":\"keycloak\",\"qx_user_type\":\"local\","
            "\"userinfo_uri\":\"https://idp/me\"}|t");
        delete[] node;
    }
    EXPECT_EQ(server.refreshInfoBySession.size(), 1u);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Get configuration for node based on user session: 't'.\n",
        "SsoServer: Refresh information found.\n",
        "SsoServer: Validating information for refresh process with config ID: 0.\n",
        "SsoServer: Getting node config.\n",
        "SsoServer: Finalizing node configuration.\n",
    }));
}

TEST_F(ClientConfigTest, NodeConfigFailures) {
    EXPECT_EQ(server.getNodeConfig(""), nullptr);
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! User session is empty.\n");
    EXPECT_EQ(server.getNodeConfig("000"), nullptr);
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Refresh information not found.\n");
    server.refreshInfoBySession["aged"] = OAuthRefreshInfo{0, kNow - 4000, "rt", "at"};
    EXPECT_EQ(server.getNodeConfig("aged"), nullptr);
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Refresh information validation failed.\n");
    EXPECT_EQ(server.refreshInfoBySession.count("aged"), 1u);
    // The aged record goes at the next cleanup.
    server.cleanTokens();
    EXPECT_EQ(server.refreshInfoBySession.count("aged"), 0u);
    record().userinfoUri.clear();
    server.refreshInfoBySession["t"] = OAuthRefreshInfo{0, kNow, "rt", "at"};
    EXPECT_EQ(server.getNodeConfig("t"), nullptr);
    EXPECT_EQ(log.lines().back(), "SsoServer: ERROR! Node configuration is empty.\n");
}

}  // namespace
