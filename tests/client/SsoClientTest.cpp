// The client configuration and the authorization URL each provider gets.
#include "client/SsoClient.h"
#include "client/SsoClientConfigOAuth.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

std::string const kChallenge = "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";

std::string clientJson(std::string const &provider, std::string const &prompt = "",
                       bool withPrompt = true) {
    std::string json =
        "{\"auth_uri\":\"https://idp.example/authorize\",\"client_id\":\"cid\","
        "\"provider\":\"" +
        provider + "\",";
    if (withPrompt) {
        json += "\"qx_prompt_type\":\"" + prompt + "\",";
    }
    return json + "\"redirect_uri\":\"https://app.example/cb\"}";
}

std::string urlFor(std::string const &provider, std::string const &prompt = "") {
    SsoClient client;
    client.loginType = 0;
    EXPECT_TRUE(client.setConfig(clientJson(provider, prompt), "st", "nc"));
    char *url = client.authUrl(kChallenge.c_str());
    std::string result = url ? url : "";
    delete[] url;
    return result;
}

std::string const kBase = "https://idp.example/authorize?";
std::string const kCommon =
    "client_id=cid&code_challenge=" + kChallenge + "&code_challenge_method=S256&nonce=nc";
std::string const kRedirect = "&redirect_uri=https%3A%2F%2Fapp.example%2Fcb";
std::string const kTail = "&response_type=code&scope=openid%20email%20profile";

TEST(AuthorizationUrlTest, EachProvidersExactUrl) {
    EXPECT_EQ(urlFor("google"),
              kBase + "access_type=offline&" + kCommon + kRedirect + kTail + "&state=st");
    EXPECT_EQ(urlFor("microsoft"),
              kBase + kCommon + kRedirect +
                  "&response_mode=query&response_type=code&scope=openid%20email%20profile%20"
                  "offline_access%20https%3A%2F%2Fgraph.microsoft.com%2FUser.Read&state=st");
    EXPECT_EQ(urlFor("okta"), kBase + kCommon + kRedirect +
                                  "&response_mode=query&response_type=code&scope=openid%20email%"
                                  "20profile%20offline_access&state=st");
    EXPECT_EQ(urlFor("keycloak"), kBase + kCommon + kRedirect + kTail + "&state=st");
    EXPECT_EQ(urlFor("other"), kBase + kCommon + kRedirect + kTail + "&state=st");
}

TEST(AuthorizationUrlTest, PromptStandsBetweenNonceAndRedirect) {
    EXPECT_EQ(urlFor("google", "login"), kBase + "access_type=offline&" + kCommon +
                                             "&prompt=login" + kRedirect + kTail + "&state=st");
    EXPECT_EQ(urlFor("microsoft", "select_account"),
              kBase + kCommon + "&prompt=select_account" + kRedirect +
                  "&response_mode=query&response_type=code&scope=openid%20email%20profile%20"
                  "offline_access%20https%3A%2F%2Fgraph.microsoft.com%2FUser.Read&state=st");
    EXPECT_EQ(urlFor("okta", "consent"),
              kBase + kCommon + "&prompt=consent" + kRedirect +
                  "&response_mode=query&response_type=code&scope=openid%20email%20profile%"
                  "20offline_access&state=st");
    EXPECT_EQ(urlFor("keycloak", "login"),
              kBase + kCommon + "&prompt=login" + kRedirect + kTail + "&state=st");
    EXPECT_EQ(urlFor("other", "login"),
              kBase + kCommon + "&prompt=login" + kRedirect + kTail + "&state=st");
}

TEST(AuthorizationUrlTest, PromptNoneIsLoggedButNotSent) {
    std::string const microsoftTail =
        "&response_mode=query&response_type=code&scope=openid%20email%20profile%20"
        "offline_access%20https%3A%2F%2Fgraph.microsoft.com%2FUser.Read&state=st";
    std::string const oktaTail =
        "&response_mode=query&response_type=code&scope=openid%20email%20profile%20"
        "offline_access&state=st";
    struct Row {
        std::string provider;
        std::string url;
    } const rows[] = {
        {"google", kBase + "access_type=offline&" + kCommon + kRedirect + kTail + "&state=st"},
        {"microsoft", kBase + kCommon + kRedirect + microsoftTail},
        {"okta", kBase + kCommon + kRedirect + oktaTail},
        {"keycloak", kBase + kCommon + kRedirect + kTail + "&state=st"},
        {"other", kBase + kCommon + kRedirect + kTail + "&state=st"},
    };
    for (auto const &row : rows) {
        LogCapture log;
        EXPECT_EQ(urlFor(row.provider, "none"), row.url) << row.provider;
        EXPECT_TRUE(log.has("Sso: Prompt type set to: 'none' for query string.\n")) << row.provider;
    }
}

TEST(AuthorizationUrlTest, ProviderWordIsCaseSensitive) {
    LogCapture log;
    EXPECT_EQ(urlFor("Google"), kBase + kCommon + kRedirect + kTail + "&state=st");
    EXPECT_TRUE(log.has("Sso: Provider unknown.\n"));
    EXPECT_FALSE(log.has("Sso: Provider is google.\n"));
}

TEST(AuthorizationUrlTest, BlanksAreEncodedInTheUrl) {
    // The scope's blanks travel as %20; none stays raw.
    std::string url = urlFor("okta");
    EXPECT_EQ(url, kBase + kCommon + kRedirect +
                       "&response_mode=query&response_type=code&scope=openid%20email%20profile%"
                       "20offline_access&state=st");
    EXPECT_EQ(url.find(' '), std::string::npos);
}

TEST(AuthorizationUrlTest, LogsTheWholeRoad) {
    LogCapture log;
    std::string url = urlFor("keycloak");
    std::string query = url.substr(kBase.size());
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Received OAuthPkce: " + kChallenge + " for authorization url.\n",
        "Sso: Start building query string for client.\n",
        "Sso: Provider is keycloak.\n",
        "Sso: Finish building query string for client. Result is:'" + query + "'.\n",
        "Sso: Query string: " + query + " for authorization url.\n",
        "Sso: Request url: " + url + " for authorization url.\n",
        "Sso: Final result: " + url + " for authorization url.\n",
    }));
}

std::string received;
void remember(char const *url) {
    received = url;
}

TEST(AuthorizationRequestTest, CallbackGetsTheUrl) {
    SsoClient client;
    client.loginType = 0;
    ASSERT_TRUE(client.setConfig(clientJson("keycloak"), "st", "nc"));
    LogCapture log;
    received.clear();
    EXPECT_EQ(client.authRequest(kChallenge.c_str(), remember), 0);
    EXPECT_EQ(received, kBase + kCommon + kRedirect + kTail + "&state=st");
    EXPECT_TRUE(log.has("Sso: Return url: " + received +
                        " to browser callback for authorization request.\n"));
    EXPECT_TRUE(
        log.has("Sso: Received OAuthPkce: " + kChallenge + " for authorization request.\n"));
    EXPECT_EQ(client.authRequest(kChallenge.c_str(), nullptr), -1);
}

TEST(SsoClientTest, SecondSetConfigFailsAndKeepsTheFirst) {
    SsoClient client;
    client.loginType = 0;
    ASSERT_TRUE(client.setConfig(clientJson("google"), "st", "nc"));
    SsoClientConfigOAuth *first = client.config.get();
    LogCapture log;
    EXPECT_FALSE(client.setConfig(clientJson("okta"), "s2", "n2"));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{"Sso: ERROR! Client config exist. Can't create another one.\n"}));
    EXPECT_EQ(client.config.get(), first);
    EXPECT_EQ(client.config->provider, "google");
}

TEST(SsoClientTest, UnknownLoginTypeIsRefused) {
    SsoClient client;
    LogCapture log;
    EXPECT_FALSE(client.setConfig(clientJson("google"), "st", "nc"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Sso: ERROR! Unknown login type is set.\n"}));
    EXPECT_EQ(client.config, nullptr);
}

TEST(SsoClientTest, RefusedDataLeavesTheHalfFilledConfig) {
    SsoClient client;
    client.loginType = 0;
    LogCapture log;
    EXPECT_FALSE(client.setConfig("{\"provider\":\"google\"}", "st", "nc"));
    EXPECT_TRUE(log.has("Sso: ERROR! Set configuration data for client OAuth config failed.\n"));
    ASSERT_NE(client.config, nullptr);
    EXPECT_EQ(client.config->provider, "google");
    log.clear();
    client.removeConfig();
    EXPECT_EQ(client.config, nullptr);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "Sso: Removing current client config.\n",
                               "SsoClientConfigOAuth: Client OAuth config destructor.\n"}));
    SsoClient other;
    other.loginType = 0;
    log.clear();
    EXPECT_FALSE(other.setConfig(clientJson("google"), "", "nc"));
    EXPECT_TRUE(
        log.hasInOrder({"SsoClientConfigOAuth: ERROR! Client config state or nonce is empty!.\n",
                        "Sso: ERROR! Set session data for client OAuth config failed.\n"}));
}

TEST(SsoClientTest, ConstructorAndDestructorLog) {
    LogCapture log;
    {
        SsoClient client;
        client.loginType = 0;
        client.setConfig(clientJson("google"), "st", "nc");
    }
    auto lines = log.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.front(), "Sso: Client constructor.\n");
    EXPECT_EQ(lines[lines.size() - 3], "Sso: Client destructor.\n");
    EXPECT_EQ(lines[lines.size() - 2], "Sso: Removing current client config.\n");
    EXPECT_EQ(lines.back(), "SsoClientConfigOAuth: Client OAuth config destructor.\n");
}

TEST(SsoClientConfigOAuthTest, MissingPromptTypeWarnsAndSendsNoPrompt) {
    LogCapture log;
    SsoClientConfigOAuth config;
    EXPECT_TRUE(config.setConfigData(clientJson("google", "", false)));
    EXPECT_TRUE(log.has(
        "SsoClientConfigOAuth: WARNING! Field 'qx_prompt_type' is not set in client config.\n"));
    EXPECT_EQ(config.promptType, "");
    EXPECT_TRUE(log.hasInOrder({"SsoClientConfigOAuth: Client config is: .\n",
                                "SsoJson: JSON object: '{\"auth_uri\":\"https://idp.example/"
                                "authorize\",\"client_id\":\"cid\",\"provider\":\"google\","
                                "\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://app.example/"
                                "cb\"}\n'.\n"}));
}

TEST(SsoClientConfigOAuthTest, RequiredKeysInOrderAndOfStringType) {
    struct Row {
        std::string json;
        std::string key;
    } const rows[] = {
        {"{\"auth_uri\":\"a\",\"client_id\":\"c\",\"redirect_uri\":\"r\"}", "provider"},
        {"{\"provider\":\"google\",\"client_id\":\"c\"}", "auth_uri"},
        {"{\"provider\":\"google\",\"auth_uri\":\"a\",\"client_id\":5,\"redirect_uri\":\"r\"}",
         "client_id"},
        {"{\"provider\":\"google\",\"auth_uri\":\"a\",\"client_id\":\"c\"}", "redirect_uri"},
        {"[1,2]", "provider"},
    };
    for (auto const &row : rows) {
        LogCapture log;
        SsoClientConfigOAuth config;
        EXPECT_FALSE(config.setConfigData(row.json)) << row.json;
        EXPECT_TRUE(log.has("SsoClientConfigOAuth: ERROR! Field '" + row.key +
                            "' is not set in client config.\n"))
            << row.json;
    }
    SsoClientConfigOAuth partial;
    partial.setConfigData("{\"provider\":\"google\",\"client_id\":\"c\"}");
    EXPECT_EQ(partial.provider, "google");
    EXPECT_EQ(partial.clientId, "");
}

TEST(SsoClientConfigOAuthTest, EmptyAuthUriIsAccepted) {
    SsoClientConfigOAuth config;
    EXPECT_TRUE(config.setConfigData(
        "{\"provider\":\"okta\",\"auth_uri\":\"\",\"client_id\":\"c\",\"redirect_uri\":\"r\"}"));
}

TEST(SsoClientConfigOAuthTest, NotJsonFails) {
    LogCapture log;
    SsoClientConfigOAuth config;
    EXPECT_FALSE(config.setConfigData("{not json"));
    EXPECT_TRUE(log.has("SsoClientConfigOAuth: ERROR! Parsing client config to JSON failed.\n"));
    log.clear();
    EXPECT_FALSE(config.setConfigData(""));
    EXPECT_TRUE(log.has("SsoJson: ERROR! Source string is empty.\n"));
}

TEST(SsoClientConfigOAuthTest, SessionData) {
    SsoClientConfigOAuth config;
    LogCapture log;
    EXPECT_FALSE(config.setSessionData("s", ""));
    EXPECT_FALSE(config.setSessionData("", "n"));
    EXPECT_EQ(log.count("SsoClientConfigOAuth: ERROR! Client config state or nonce is empty!.\n"),
              2u);
    EXPECT_EQ(config.state, "");
    EXPECT_TRUE(config.setSessionData("s", "n"));
    EXPECT_TRUE(log.has("SsoClientConfigOAuth: Client config state: 's' nonce: 'n'.\n"));
}

}  // namespace
