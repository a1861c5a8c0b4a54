// One provider record: filling it, and the client and node JSON it writes.
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>
#include <json/reader.h>

namespace {

Json::Value parsed(std::string const &text) {
    Json::Value value;
    Json::Reader reader;
    reader.parse(text, value);
    return value;
}

class ServerConfigOAuthTest : public ::testing::Test {
protected:
    void SetUp() override {
        config.provider = "okta";
        config.authUri = "https://idp/authorize";
        config.clientId = "cid";
        config.redirectUris = {"https://10.0.0.1/cb", "https://10.0.0.12/cb",
                               "https://host.10.0.0.1/x"};
        config.userinfoUri = "https://idp/userinfo";
        config.userType = "domain";
        config.clientSecret = "the-client-secret";
    }
    SsoServerConfigOAuth config;
};

TEST_F(ServerConfigOAuthTest, RedirectIndexIsATextualMatchBehindTheScheme) {
    LogCapture log;
    EXPECT_EQ(config.getClientRedirectIndex(nullptr), 0u);
    EXPECT_TRUE(log.has(
        "SsoServerConfigOAuth: Getting client redirect index for IP preferretion: 'nil'.\n"));
    EXPECT_EQ(config.getClientRedirectIndex(""), 0u);
    EXPECT_EQ(config.getClientRedirectIndex("192.168.1.1"), 0u);
    EXPECT_EQ(config.getClientRedirectIndex("10.0.0.12"), 1u);
    // A substring of both: the first wins.
    EXPECT_EQ(config.getClientRedirectIndex("10.0.0.1"), 0u);
    EXPECT_EQ(config.getClientRedirectIndex("host"), 2u);
    // The first 7 bytes are not searched.
    EXPECT_EQ(config.getClientRedirectIndex("https:"), 0u);
    EXPECT_EQ(config.getClientRedirectIndex("//host"), 0u);
    EXPECT_EQ(config.getClientRedirectIndex("/host"), 2u);
}

TEST_F(ServerConfigOAuthTest, ClientJsonAlwaysHasThePromptType) {
    EXPECT_EQ(config.getClientConfigAsJson(1),
              "{\"auth_uri\":\"https://idp/authorize\",\"client_id\":\"cid\",\"provider\":\"okta\","
              "\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://10.0.0.12/cb\"}");
    config.promptType = "login";
    std::string json = config.getClientConfigAsJson(0);
    EXPECT_EQ(json,
              "{\"auth_uri\":\"https://idp/authorize\",\"client_id\":\"cid\",\"provider\":\"okta\","
              "\"qx_prompt_type\":\"login\",\"redirect_uri\":\"https://10.0.0.1/cb\"}");
    // The record has a client secret (see SetUp); the client is never told it.
    ASSERT_EQ(config.clientSecret, "the-client-secret");
    EXPECT_EQ(json.find(config.clientSecret), std::string::npos);
}

TEST_F(ServerConfigOAuthTest, ClientJsonNeedsTheRequiredFields) {
    std::string const message =
        "SsoServerConfigOAuth: ERROR! Can't create client oauth configuration Required parameters "
        "(provider, authUri, clientId, redirectUri) are empty.\n";
    for (int field = 0; field < 4; ++field) {
        SsoServerConfigOAuth copy;
        copy.provider = field == 0 ? "" : "okta";
        copy.authUri = field == 1 ? "" : "a";
        copy.clientId = field == 2 ? "" : "c";
        if (field != 3) {
            copy.redirectUris = {"https://r"};
        }
        LogCapture log;
        EXPECT_EQ(copy.getClientConfigAsJson(0), "");
        EXPECT_EQ(log.lines(), (std::vector<std::string>{message}));
    }
}

TEST_F(ServerConfigOAuthTest, NodeJsonLeavesOutWhatIsNotConfigured) {
    EXPECT_EQ(config.getNodeConfigJson("tok"),
              "{\"access_token\":\"tok\",\"provider\":\"okta\",\"qx_user_type\":\"domain\","
              "\"userinfo_uri\":\"https://idp/userinfo\"}");
    config.proxy = "http://127.0.0.1:3128";
    config.userName = "email";
    EXPECT_EQ(
        config.getNodeConfigJson("tok"),
        "{\"access_token\":\"tok\",\"provider\":\"okta\",\"qx_proxy\":\"http://127.0.0.1:3128\","
        "\"qx_user_name\":\"email\",\"qx_user_type\":\"domain\",\"userinfo_uri\":\"https://idp/"
        "userinfo\"}");
}

TEST_F(ServerConfigOAuthTest, NodeJsonNeedsTokenAndUserinfo) {
    std::string const message =
        "SsoServerConfigOAuth: ERROR! Can't create node oauth configuration Required parameters "
        "(userinfoUri, accessToken) are empty.\n";
    LogCapture log;
    EXPECT_EQ(config.getNodeConfigJson(""), "");
    config.userinfoUri.clear();
    EXPECT_EQ(config.getNodeConfigJson("tok"), "");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{message, message}));
    // The provider is not required here.
    config.userinfoUri = "https://u";
    config.provider.clear();
    EXPECT_EQ(config.getNodeConfigJson("tok"),
              "{\"access_token\":\"tok\",\"provider\":\"\",\"qx_user_type\":\"domain\","
              "\"userinfo_uri\":\"https://u\"}");
}

TEST(ServerConfigOAuthFillTest, FillsEveryFieldFromAnEntry) {
    SsoServerConfigOAuth config;
    config.setConfigData(parsed(
        "{\"id\":3,\"provider\":\"google\",\"config\":{\"idp_domain\":\"https://g\",\"client_id\":"
        "\"c\",\"client_secret\":\"s\",\"redirect_uris\":[\"https://a\",\"https://b\"],"
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"https://u\",\"qx_user_name\":\"email\","
        "\"qx_prompt_type\":\"none\",\"qx_refresh\":true,\"qx_refresh_lifetime\":120,\"qx_proxy\":"
        "\"http://p:1\"}}"));
    EXPECT_EQ(config.configId, 3);
    EXPECT_EQ(config.provider, "google");
    EXPECT_EQ(config.idpDomain, "https://g");
    EXPECT_EQ(config.clientId, "c");
    EXPECT_EQ(config.clientSecret, "s");
    EXPECT_EQ(config.redirectUris, (std::vector<std::string>{"https://a", "https://b"}));
    EXPECT_EQ(config.userType, "local");
    EXPECT_EQ(config.userinfoUri, "https://u");
    EXPECT_EQ(config.userName, "email");
    EXPECT_EQ(config.promptType, "none");
    EXPECT_TRUE(config.refresh);
    EXPECT_EQ(config.refreshLifetime, 120);
    EXPECT_EQ(config.proxy, "http://p:1");
    EXPECT_EQ(config.getLoginType(), 0);
}

TEST(ServerConfigOAuthFillTest, RefusedEntriesLeaveTheDefaults) {
    struct Row {
        std::string json;
        std::string message;
    } const rows[] = {
        {"{}", "SsoServerConfigOAuth: ERROR! Config as JSON object is empty.\n"},
        {"null", "SsoServerConfigOAuth: ERROR! Config as JSON object is empty.\n"},
        {"7", "SsoServerConfigOAuth: ERROR! Config is not JSON object or JSON array.\n"},
        {"{\"id\":1}",
         "SsoServerConfigOAuth: ERROR! Field 'config' is not set in server config.\n"},
        {"[1]", "SsoServerConfigOAuth: ERROR! Field 'config' is not set in server config.\n"},
        {"{\"id\":1,\"config\":{\"redirect_uris\":\"x\"}}",
         "SsoServerConfigOAuth: ERROR! Field 'redirect_uris' is not array type.\n"},
        {"{\"id\":1,\"config\":{\"redirect_uris\":[]}}",
         "SsoServerConfigOAuth: ERROR! Field 'redirect_uris' is empty array.\n"},
    };
    for (auto const &row : rows) {
        SsoServerConfigOAuth config;
        LogCapture log;
        config.setConfigData(parsed(row.json));
        EXPECT_EQ(log.lines().back(), row.message) << row.json;
        EXPECT_EQ(config.configId, -1) << row.json;
        EXPECT_TRUE(config.redirectUris.empty()) << row.json;
    }
}

TEST(ServerConfigOAuthFillTest, WrongTypesNeverEscape) {
    SsoServerConfigOAuth config;
    LogCapture log;
    config.setConfigData(
        parsed("{\"id\":1,\"provider\":[1],\"config\":{\"redirect_uris\":[\"a\"]}}"));
    EXPECT_EQ(log.lines().back(),
              "SsoServerConfigOAuth: ERROR! Config has a value of a wrong type: 'Type is not "
              "convertible to string'.\n");
}

TEST(ServerConfigOAuthFillTest, ConstructorAndDestructorLog) {
    LogCapture log;
    { SsoServerConfigOAuth config; }
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "SsoServerConfigOAuth: Server OAuth config constructor.\n",
                               "SsoServerConfigOAuth: Server OAuth config destructor.\n"}));
}

}  // namespace
