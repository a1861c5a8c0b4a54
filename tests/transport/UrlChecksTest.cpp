// The blocking request's checks of its URL and proxy: one parse, scheme and host sequence for
// both, told apart only by the noun in their log lines and by the proxy's port.
#include "tests/harness/LogCapture.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

std::string received(std::string const &url, std::string const &proxy) {
    return "SsoRequest: Received url: '" + url + "' and proxy: '" + proxy +
           "'for sso request validation.\n";
}

class UrlChecksTest : public ::testing::Test {
protected:
    SsoRequest network;
};

TEST_F(UrlChecksTest, AProxyWithSchemeHostAndPortPassesWithoutTheNoProxyLine) {
    LogCapture log;
    EXPECT_TRUE(network.validateArgs(HttpPost, "https://127.0.0.1/token", "http://127.0.0.1:3128"));
    EXPECT_EQ(log.lines(), (Lines{received("https://127.0.0.1/token", "http://127.0.0.1:3128"),
                                  "SsoRequest: Sso request validation success.\n"}));
}

TEST_F(UrlChecksTest, AnEmptyProxyCountsAsNone) {
    LogCapture log;
    EXPECT_TRUE(network.validateArgs(HttpGet, "http://127.0.0.1:1/", ""));
    EXPECT_EQ(log.lines(),
              (Lines{received("http://127.0.0.1:1/", ""), "SsoRequest: Proxy is not specified.\n",
                     "SsoRequest: Sso request validation success.\n"}));
}

TEST_F(UrlChecksTest, AUrlThatDoesNotParseNamesLibcurlsReason) {
    LogCapture log;
    EXPECT_FALSE(network.validateArgs(HttpGet, "http://", nullptr));
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[0], received("http://", "nil"));
    EXPECT_EQ(log.lines()[1],
              std::string("SsoRequest: ERROR! URL is invalid. CURL error message: '") +
                  SsoRequest::urlErrorText(CURLUE_NO_HOST) + "'.\n");
}

TEST_F(UrlChecksTest, AUrlNeedsNoPortOfItsOwn) {
    LogCapture log;
    EXPECT_TRUE(network.validateArgs(HttpGet, "https://127.0.0.1/me", "https://127.0.0.1:8443"));
    EXPECT_TRUE(log.has("SsoRequest: Sso request validation success.\n"));
}

TEST_F(UrlChecksTest, AProxyThatDoesNotParseIsNamedAsTheProxy) {
    LogCapture log;
    EXPECT_FALSE(network.validateArgs(HttpGet, "http://127.0.0.1:1/", "http://"));
    EXPECT_EQ(log.lines(),
              (Lines{received("http://127.0.0.1:1/", "http://"),
                     std::string("SsoRequest: ERROR! Proxy is invalid. CURL error message: '") +
                         SsoRequest::urlErrorText(CURLUE_NO_HOST) + "'.\n"}));
}

}  // namespace
