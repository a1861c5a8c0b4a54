// Discovery of each provider's endpoints, from the real local provider and from broken servers.
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProviderRecord.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

namespace {

class MetadataTest : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(restartNetwork(network));
        clearRecordsAfter(server);
        server.machineType = SsoServer::kMachineServer;
    }

    SsoServerConfigOAuth *add(std::string const &provider, std::string const &idpDomain) {
        return ProviderRecord(provider).domain(idpDomain).addTo(server);
    }

    CurlRequest &network = CurlRequest::getNetwork();
    SsoServer server;
};

TEST_F(MetadataTest, LocalProviderInBothUrlForms) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    auto *keycloak = add("keycloak", provider.baseUrl());
    auto *microsoft = add("microsoft", provider.baseUrl());
    LogCapture log;
    ASSERT_TRUE(server.loadConfigsMetadata());
    EXPECT_EQ(keycloak->authUri, provider.baseUrl() + "/auth");
    EXPECT_EQ(keycloak->tokenUri, provider.baseUrl() + "/token");
    EXPECT_EQ(keycloak->userinfoUri, provider.baseUrl() + "/me");
    EXPECT_EQ(keycloak->revokeUri, provider.baseUrl() + "/token/revocation");
    EXPECT_EQ(keycloak->issuer, provider.baseUrl());
    EXPECT_EQ(microsoft->authUri, provider.baseUrl() + "/v2.0/auth");
    EXPECT_EQ(microsoft->issuer, provider.baseUrl() + "/v2.0");
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Loading metadata.\n",
        "SsoServer: Loading metadata for specified config.\n",
        "SsoServer: Provider is: 'keycloak' , IDP domain is: '" + provider.baseUrl() + "'.\n",
        "SsoServer: Metadata URL is: '" + provider.baseUrl() +
            "/.well-known/openid-configuration'.\n",
        "SsoServer: Metadata URL is: '" + provider.baseUrl() +
            "/v2.0/.well-known/openid-configuration'.\n",
        "SsoServer: Loading metadata for all configs - complete.\n",
    }));
}

TEST_F(MetadataTest, ThroughTheRealProxy) {
    auto &provider = LocalProvider::shared();
    auto &proxy = LocalProxy::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    auto *config = add("okta", provider.baseUrl());
    config->proxy = proxy.url();
    int before = proxy.connections();
    ASSERT_TRUE(server.loadConfigsMetadata());
    EXPECT_EQ(proxy.connections(), before + 1);
}

TEST_F(MetadataTest, UrlIsPlainConcatenation) {
    FailureServer idp;
    idp.on(
        "/base//.well-known/openid-configuration", 200,
        "{\"authorization_endpoint\":\"a\",\"token_endpoint\":\"t\",\"userinfo_endpoint\":\"u\"}");
    idp.on(
        "/v2.0/v2.0/.well-known/openid-configuration", 200,
        "{\"authorization_endpoint\":\"a\",\"token_endpoint\":\"t\",\"userinfo_endpoint\":\"u\"}");
    add("google", idp.url("/base/"));
    add("microsoft", idp.url("/v2.0"));
    LogCapture log;
    ASSERT_TRUE(server.loadConfigsMetadata());
    auto requests = idp.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, "/base//.well-known/openid-configuration");
    EXPECT_EQ(requests[1].target, "/v2.0/v2.0/.well-known/openid-configuration");
    EXPECT_EQ(log.count("SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in "
                        "oauth metadata response.\n"),
              2u);
    EXPECT_EQ(log.count("SsoServerConfigOAuth: WARNING! Field 'issuer' is not set in oauth "
                        "metadata response.\n"),
              2u);
}

struct DocumentRow {
    std::string what;
    int status;
    std::string body;
    std::vector<std::string> messages;  // the lines that end the attempt, in order
};

TEST_F(MetadataTest, BrokenDocumentsFailTheLoad) {
    std::string const required =
        "SsoServer: ERROR! Metadata response doesn't have all required data.\n";
    std::vector<DocumentRow> const rows = {
        {"empty object",
         200,
         "{}",
         {"SsoServerConfigOAuth: ERROR! Metadata response is empty.\n", required}},
        {"bare number",
         200,
         "5",
         {"SsoServerConfigOAuth: ERROR! Metadata response is not JSON object or JSON array "
          "object.\n",
          required}},
        {"array",
         200,
         "[1,2]",
         {"SsoServerConfigOAuth: ERROR! Field 'authorization_endpoint' is not set in oauth "
          "metadata response.\n",
          required}},
        {"not json",
         200,
         "<html>",
         {"SsoServerConfigOAuth: ERROR! Parsing metadata response to JSON failed.\n", required}},
        {"empty body", 200, "", {"SsoServer: ERROR! Metadata response is empty.\n"}},
        {"authorization endpoint a number",
         200,
         "{\"authorization_endpoint\":1,\"token_endpoint\":\"t\",\"userinfo_endpoint\":\"u\"}",
         {"SsoServerConfigOAuth: ERROR! Field 'authorization_endpoint' is not set in oauth "
          "metadata response.\n",
          required}},
        {"no token endpoint",
         200,
         "{\"authorization_endpoint\":\"a\",\"userinfo_endpoint\":\"u\"}",
         {"SsoServerConfigOAuth: ERROR! Field 'token_endpoint' is not set in oauth metadata "
          "response.\n",
          required}},
    };
    FailureServer idp;
    for (auto const &row : rows) {
        idp.on("/.well-known/openid-configuration", row.status, row.body);
        auto *config = add("keycloak", idp.url());
        LogCapture log;
        EXPECT_FALSE(server.loadConfigsMetadata()) << row.what;
        auto lines = log.lines();
        ASSERT_GE(lines.size(), row.messages.size() + 1) << row.what;
        for (size_t i = 0; i < row.messages.size(); ++i) {
            EXPECT_EQ(lines[lines.size() - 1 - row.messages.size() + i], row.messages[i])
                << row.what;
        }
        EXPECT_EQ(lines.back(), "SsoServer: ERROR! Loading metadata for config with ID: " +
                                    std::to_string(config->configId) + " failed.\n")
            << row.what;
        EXPECT_EQ(config->authUri, "") << row.what;
        server.clearConfigs();
    }
}

TEST_F(MetadataTest, MissingUserinfoEndpointFailsEvenWithAConfiguredOne) {
    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 200,
           "{\"authorization_endpoint\":\"a\",\"token_endpoint\":\"t\"}");
    auto *config = add("okta", idp.url());
    config->userinfoUri = "https://own/userinfo";
    LogCapture log;
    EXPECT_FALSE(server.loadConfigsMetadata());
    EXPECT_TRUE(
        log.has("SsoServerConfigOAuth: ERROR! Field 'userinfo_endpoint' is not set in oauth "
                "metadata response.\n"));
    EXPECT_EQ(config->authUri, "");
    EXPECT_EQ(config->tokenUri, "");
    EXPECT_EQ(config->userinfoUri, "https://own/userinfo");
}

TEST_F(MetadataTest, ConfiguredUserinfoWinsAndOddOptionalFieldsWarn) {
    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 500,
           "{\"authorization_endpoint\":\"a\",\"token_endpoint\":\"t\",\"userinfo_endpoint\":\"u\","
           "\"revocation_endpoint\":7,\"issuer\":\"iss\"}");
    auto *config = add("okta", idp.url());
    config->userinfoUri = "https://own/userinfo";
    LogCapture log;
    // The status is not looked at: a 500 with a valid document loads.
    ASSERT_TRUE(server.loadConfigsMetadata());
    EXPECT_EQ(config->userinfoUri, "https://own/userinfo");
    EXPECT_EQ(config->revokeUri, "");
    EXPECT_EQ(config->issuer, "iss");
    EXPECT_EQ(log.count("SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in "
                        "oauth metadata response.\n"),
              1u);
}

TEST_F(MetadataTest, SecondOfThreeUnreachableStopsTheLoop) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    auto *first = add("keycloak", provider.baseUrl());
    add("google", "http://127.0.0.1:1");
    auto *third = add("okta", provider.baseUrl());
    LogCapture log;
    EXPECT_FALSE(server.loadConfigsMetadata());
    EXPECT_FALSE(first->authUri.empty());
    EXPECT_TRUE(third->authUri.empty());
    EXPECT_EQ(log.count("SsoServer: Loading metadata for specified config.\n"), 2u);
    EXPECT_EQ(log.lines().back(),
              "SsoServer: ERROR! Loading metadata for config with ID: 1 failed.\n");
}

TEST_F(MetadataTest, Preconditions) {
    LogCapture log;
    server.machineType = SsoServer::kMachineUnset;
    EXPECT_FALSE(server.loadConfigsMetadata());
    server.machineType = SsoServer::kMachineServer;
    EXPECT_FALSE(server.loadConfigsMetadata());
    auto *config = add("", "https://x");
    EXPECT_FALSE(server.loadMetadata(config));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Can't load metadata. Machine type is not set.\n",
                  "SsoServer: ERROR! Can't load metadata. Config file hasn't been loaded.\n",
                  "SsoServerConfigOAuth: Server OAuth config constructor.\n",
                  "SsoServer: Loading metadata for specified config.\n",
                  "SsoServer: Provider is: '' , IDP domain is: 'https://x'.\n",
                  "SsoServer: ERROR! URL or provider is empty.\n"}));
}

}  // namespace
