// From the host's percent-encoded login data to the authorization URL.
#include "actions/SsoActions.h"
#include "platform/Url.h"
#include "tests/harness/LogCapture.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string const kClient =
    "{\"auth_uri\":\"https://idp.example/authorize\",\"client_id\":\"cid\",\"provider\":"
    "\"keycloak\",\"qx_prompt_type\":\"\",\"redirect_uri\":\"https://app.example/cb\"}";
std::string const kUrl =
    "https://idp.example/authorize?client_id=cid&code_challenge=ch&code_challenge_method=S256&"
    "nonce=nc&redirect_uri=https%3A%2F%2Fapp.example%2Fcb&response_type=code&scope=openid%"
    "20email%20profile&state=st";

std::string encoded(std::string const &text) {
    char *raw = UrlEncode(text.c_str());
    std::string result(raw);
    delete[] raw;
    return result;
}

std::string loginData(std::string const &type = "OAuth", std::string const &client = kClient,
                      std::string const &state = "st", std::string const &nonce = "nc",
                      std::string const &challenge = "ch") {
    return encoded(type + "|" + client + "|" + state + "|" + nonce + "|" + challenge);
}

std::string urlOf(std::string const &data) {
    char *url = SsoLoginUrl(data.c_str());
    std::string result = url ? url : "<null>";
    SsoFreeString(url);
    return result;
}

std::string received;
int calls = 0;
void browser(char const *url) {
    received = url;
    ++calls;
}

TEST(LoginUrlTest, BuildsTheUrlFromLoginData) {
    LogCapture log;
    std::string data = loginData();
    EXPECT_EQ(urlOf(data), kUrl);
    std::string decoded = "OAuth|" + kClient + "|st|nc|ch";
    EXPECT_TRUE(log.hasInOrder({
        "SsoActions: Start login url.\n",
        "SsoActions: Received user login data: " + data + ".\n",
        "SsoActions: URL decoded user login data: " + decoded + ".\n",
        "SsoActions: Read arguments source: " + decoded + ".\n",
        "SsoActions: First login argument: OAuth.\n",
        "SsoActions: 2 login argument: " + kClient + ".\n",
        "SsoActions: 3 login argument: st.\n",
        "SsoActions: 4 login argument: nc.\n",
        "SsoActions: 5 login argument: ch.\n",
        "Sso: Client constructor.\n",
        "Sso: Final result: " + kUrl + " for authorization url.\n",
        "Sso: Client destructor.\n",
        "Sso: Removing current client config.\n",
    }));
}

TEST(LoginUrlTest, FourOrSixFieldsFailOnTheCount) {
    for (auto const &pair : {std::make_pair(encoded("OAuth|" + kClient + "|st|nc"), 4),
                             std::make_pair(encoded("OAuth|" + kClient + "|st|nc|ch|x"), 6)}) {
        LogCapture log;
        EXPECT_EQ(urlOf(pair.first), "<null>");
        EXPECT_TRUE(log.hasInOrder({"SsoActions: ERROR! Number of login arguments " +
                                        std::to_string(pair.second) + " is invalid.\n",
                                    "SsoActions: ERROR! Validate user login data failed.\n"}));
    }
}

TEST(LoginUrlTest, EmptyTextFailsBeforeDecoding) {
    LogCapture log;
    EXPECT_EQ(urlOf(""), "<null>");
    EXPECT_EQ(SsoLoginUrl(nullptr), nullptr);
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "SsoActions: Start login url.\n", "SsoActions: ERROR! User login data are empty.\n",
            "SsoActions: Start login url.\n", "SsoActions: ERROR! User login data are empty.\n"}));
}

TEST(LoginUrlTest, EmptyFieldReportsItsPosition) {
    LogCapture log;
    EXPECT_EQ(urlOf(loginData("OAuth", kClient, "st", "")), "<null>");
    EXPECT_TRUE(log.hasInOrder({"SsoActions: 4 login argument: .\n",
                                "SsoActions: ERROR! 4 login argument is empty.\n",
                                "SsoActions: ERROR! Validate user login data failed.\n"}));
}

TEST(LoginUrlTest, SamlPassesValidationButIsRefused) {
    LogCapture log;
    EXPECT_EQ(urlOf(loginData("Saml")), "<null>");
    EXPECT_TRUE(log.has("SsoActions: 5 login argument: ch.\n"));
    EXPECT_TRUE(log.has("SsoActions: ERROR! Unsupported login type.\n"));
    EXPECT_FALSE(log.has("SsoActions: ERROR! Validate user login data failed.\n"));
}

TEST(LoginUrlTest, OtherLoginTypeFailsValidation) {
    LogCapture log;
    EXPECT_EQ(urlOf(loginData("SAML")), "<null>");
    EXPECT_TRUE(log.hasInOrder({"SsoActions: First login argument: SAML.\n",
                                "SsoActions: ERROR! First login argument is invalid.\n"}));
}

TEST(LoginUrlTest, EncodedBarInTheStateAddsAField) {
    LogCapture log;
    EXPECT_EQ(urlOf(loginData("OAuth", kClient, "a|b")), "<null>");
    EXPECT_TRUE(log.has("SsoActions: ERROR! Number of login arguments 6 is invalid.\n"));
}

TEST(LoginUrlTest, ClientJsonWithANumberAsClientId) {
    LogCapture log;
    std::string client =
        "{\"auth_uri\":\"https://idp.example/a\",\"client_id\":5,\"provider\":\"okta\","
        "\"redirect_uri\":\"https://app.example/cb\"}";
    EXPECT_EQ(urlOf(loginData("OAuth", client)), "<null>");
    EXPECT_TRUE(log.hasInOrder({
        "SsoClientConfigOAuth: ERROR! Field 'client_id' is not set in client config.\n",
        "Sso: ERROR! Set configuration data for client OAuth config failed.\n",
        "SsoActions: ERROR! Config and session data set failed.\n",
        "Sso: Removing current client config.\n",
    }));
}

TEST(LoginTest, CallbackReceivesTheUrl) {
    LogCapture log;
    received.clear();
    calls = 0;
    EXPECT_EQ(SsoLogin(loginData().c_str(), browser), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(received, kUrl);
    EXPECT_TRUE(log.has("SsoActions: Start login.\n"));
    // Once by the explicit removal after the callback, once by the client's destructor.
    EXPECT_EQ(log.count("Sso: Removing current client config.\n"), 2u);
}

TEST(LoginTest, NullCallbackFailsBeforeDecoding) {
    LogCapture log;
    EXPECT_EQ(SsoLogin(loginData().c_str(), nullptr), -1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoActions: Start login.\n",
                                        "SsoActions: ERROR! Browser callback is not provided.\n"}));
}

TEST(LoginTest, FailuresGiveMinusOneAndSayWhy) {
    calls = 0;
    std::string const start = "SsoActions: Start login.\n";
    std::string const empty = "SsoActions: ERROR! User login data are empty.\n";
    struct Row {
        std::string data;
        bool null;
        std::vector<std::string> said;  // statements that must appear, in this order
    } const rows[] = {
        {"", false, {start, empty}},
        {"", true, {start, empty}},
        {loginData("Saml"),
         false,
         {start, "SsoActions: 5 login argument: ch.\n", "Sso: Client constructor.\n",
          "SsoActions: ERROR! Unsupported login type.\n", "Sso: Client destructor.\n",
          // Also without a configuration to remove.
          "Sso: Removing current client config.\n"}},
        {encoded("||||"),
         false,
         {start, "SsoActions: First login argument: .\n",
          "SsoActions: ERROR! First login argument is invalid.\n",
          "SsoActions: ERROR! Validate user login data failed.\n"}},
    };
    for (auto const &row : rows) {
        LogCapture log;
        EXPECT_EQ(SsoLogin(row.null ? nullptr : row.data.c_str(), browser), -1) << row.data;
        EXPECT_TRUE(log.hasInOrder(row.said)) << row.data;
        EXPECT_FALSE(log.has("Sso: Client constructor.\n") &&
                     row.said[2] != "Sso: Client constructor.\n")
            << row.data;
    }
    EXPECT_EQ(calls, 0);
    // Data refused before decoding leave no other statement.
    LogCapture log;
    EXPECT_EQ(SsoLogin("", browser), -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{start, empty}));
}

}  // namespace
