// The strict blocking request of the blocking login road, against real servers on loopback.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

std::string initLine() {
    return std::string("SsoRequest: Curl global initialization success. Curl version '") +
           curl_version() + "'.\n";
}

// The lines of a validation without a proxy that passes.
Lines validated(std::string const &url, std::string const &data = "nil") {
    return {"SsoRequest: Received data for sso request: '" + data + "'.\n",
            "SsoRequest: Received url: '" + url + "' and proxy: 'nil'for sso request validation.\n",
            "SsoRequest: Proxy is not specified.\n",
            "SsoRequest: Sso request validation success.\n"};
}

Lines operator+(Lines first, Lines const &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

bool startsWith(std::string const &text, std::string const &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(std::string const &text, std::string const &suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

class SsoRequestTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(network.init(CURL_GLOBAL_ALL)); }

    std::string get(std::string const &url, std::vector<std::string> const &headers = {},
                    char const *data = nullptr, char const *proxy = nullptr) {
        return network.request(HttpGet, url.c_str(), headers, data, proxy);
    }

    SsoRequest network;
};

TEST_F(SsoRequestTest, GetReturnsTheBody) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    std::string url = server.url("/me");
    LogCapture log;
    EXPECT_EQ(get(url), "{\"email\":\"a@b\"}");
    EXPECT_EQ(log.lines(),
              (validated(url) + Lines{"SsoRequest: URL for sso request handler: '" + url + "'.\n",
                                      "SsoRequest: Start sso request with data: 'nil'.\n",
                                      "SsoRequest: Sso request success.\n"}));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
}

TEST_F(SsoRequestTest, TheStatusIsNotLookedAt) {
    FailureServer server;
    server.on("/token", 500, "{\"error\":\"server_error\"}");
    LogCapture log;
    EXPECT_EQ(get(server.url("/token")), "{\"error\":\"server_error\"}");
    EXPECT_TRUE(log.has("SsoRequest: Sso request success.\n"));
}

TEST_F(SsoRequestTest, FtpUrlIsRefused) {
    LogCapture log;
    EXPECT_EQ(get("ftp://127.0.0.1/file"), "");
    EXPECT_EQ(log.lines(),
              (Lines{"SsoRequest: Received data for sso request: 'nil'.\n",
                     "SsoRequest: Received url: 'ftp://127.0.0.1/file' and proxy: 'nil'for sso "
                     "request validation.\n",
                     "SsoRequest: ERROR! URL is invalid. URL schema is not http/https.\n",
                     "SsoRequest: ERROR! Sso request arguments validation failed.\n"}));
}

TEST_F(SsoRequestTest, ProxyWithoutPortIsRefused) {
    FailureServer server;
    server.on("/me", 200, "{}");
    std::string url = server.url("/me");
    LogCapture log;
    EXPECT_EQ(get(url, {}, nullptr, "http://127.0.0.1"), "");
    EXPECT_EQ(log.lines(),
              (Lines{"SsoRequest: Received data for sso request: 'nil'.\n",
                     "SsoRequest: Received url: '" + url +
                         "' and proxy: 'http://127.0.0.1'for sso request validation.\n",
                     "SsoRequest: ERROR! Proxy is invalid. CURL error message: 'There is no port "
                     "part in the URL.'.\n",
                     "SsoRequest: ERROR! Sso request arguments validation failed.\n"}));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(SsoRequestTest, ProxyOfAnotherSchemeIsRefused) {
    struct Row {
        char const *proxy;
        char const *line;
    };
    // A scheme that libcurl does not know fails already when the proxy URL is parsed.
    for (Row const &row :
         {Row{"ftp://127.0.0.1:21",
              "SsoRequest: ERROR! Proxy is invalid. Proxy schema is not http/https.\n"},
          Row{"socks5://127.0.0.1:1080",
              "SsoRequest: ERROR! Proxy is invalid. CURL error message: 'This libcurl build does "
              "not support the given URL scheme.'.\n"}}) {
        SCOPED_TRACE(row.proxy);
        LogCapture log;
        EXPECT_FALSE(network.validateArgs(HttpGet, "http://127.0.0.1:1/", row.proxy));
        EXPECT_EQ(log.lines(),
                  (Lines{"SsoRequest: Received url: 'http://127.0.0.1:1/' and proxy: '" +
                             std::string(row.proxy) + "'for sso request validation.\n",
                         row.line}));
    }
}

TEST_F(SsoRequestTest, InvalidMethodAndEmptyUrlAreRefused) {
    LogCapture log;
    EXPECT_FALSE(network.validateArgs(static_cast<httpMethod>(3), "http://127.0.0.1:1/", nullptr));
    EXPECT_EQ(network.request(HttpPost, "", {}, "a=1", nullptr), "");
    EXPECT_EQ(log.lines(),
              (Lines{"SsoRequest: ERROR! HTTP method is invalid.\n",
                     "SsoRequest: Received data for sso request: 'a=1'.\n",
                     "SsoRequest: Received url: '' and proxy: 'nil'for sso request validation.\n",
                     "SsoRequest: ERROR! Url is empty.\n",
                     "SsoRequest: ERROR! Sso request arguments validation failed.\n"}));
}

TEST_F(SsoRequestTest, HeaderWithALineBreakIsRefusedBeforeAnyTransfer) {
    struct Row {
        char const *name;
        std::string header;
    };
    for (Row const &row : {Row{"line feed", "X-Bad: 1\nX-Injected: 2"},
                           Row{"carriage return", "X-Bad: 1\rX-Injected: 2"},
                           Row{"both", "X-Bad: 1\r\nX-Injected: 2"}}) {
        SCOPED_TRACE(row.name);
        FailureServer server;
        server.on("/me", 200, "{}");
        std::string url = server.url("/me");
        LogCapture log;
        EXPECT_EQ(get(url, {"X-Good: 1", row.header}), "");
        EXPECT_EQ(log.lines(),
                  (validated(url) +
                   Lines{"SsoRequest: URL for sso request handler: '" + url + "'.\n",
                         "SsoRequest: Header for sso request handler is: 'X-Good: 1'.\n",
                         "SsoRequest: Header for sso request handler is: '" + row.header + "'.\n",
                         "SsoRequest: ERROR! Header has CRLF/LF.\n",
                         "SsoRequest: ERROR! Setting headers for sso request handler failed.\n"}));
        // The body would only come back after the server had recorded the request.
        EXPECT_TRUE(server.requests().empty());
    }
}

TEST_F(SsoRequestTest, HeadersWithoutLineBreaksAreSent) {
    FailureServer server;
    server.on("/me", 200, "{}");
    EXPECT_EQ(get(server.url("/me"), {"Authorization: Bearer abc", "X-Test: yes"}), "{}");
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_NE(requests[0].headers.find("Authorization: Bearer abc\r\n"), std::string::npos);
    EXPECT_NE(requests[0].headers.find("X-Test: yes"), std::string::npos);
}

TEST_F(SsoRequestTest, GetIgnoresTheBody) {
    FailureServer server;
    server.on("/me", 200, "{\"sub\":\"1\"}");
    std::string url = server.url("/me");
    LogCapture log;
    EXPECT_EQ(get(url, {}, "a=1&b=2"), "{\"sub\":\"1\"}");
    EXPECT_EQ(log.lines(), (validated(url, "a=1&b=2") +
                            Lines{"SsoRequest: URL for sso request handler: '" + url + "'.\n",
                                  "SsoRequest: Start sso request with data: 'a=1&b=2'.\n",
                                  "SsoRequest: Sso request success.\n"}));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].body, "");
    EXPECT_EQ(requests[0].headers.find("Content-Length"), std::string::npos);
}

TEST_F(SsoRequestTest, PostWithoutDataIsRefused) {
    FailureServer server;
    server.on("/token", 200, "{}");
    std::string url = server.url("/token");
    LogCapture log;
    EXPECT_EQ(network.request(HttpPost, url.c_str(), {}, "", nullptr), "");
    EXPECT_TRUE(log.hasInOrder(
        {"SsoRequest: ERROR! Set data arguments for sso request handler are empty.\n",
         "SsoRequest: ERROR! Setting data for sso request handler failed.\n"}));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(SsoRequestTest, PostGoesThroughTheLocalProxy) {
    auto &proxy = LocalProxy::shared();
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    FailureServer server;
    server.on("/token", 200, "{\"access_token\":\"t\"}");
    std::string url = server.url("/token");
    int before = proxy.connections();
    LogCapture log;
    EXPECT_EQ(
        network.request(HttpPost, url.c_str(), {"Content-Type: application/x-www-form-urlencoded"},
                        "grant_type=refresh_token&refresh_token=r", proxy.url().c_str()),
        "{\"access_token\":\"t\"}");
    EXPECT_EQ(proxy.connections(), before + 1);
    EXPECT_EQ(log.lines(),
              (Lines{"SsoRequest: Received data for sso request: "
                     "'grant_type=refresh_token&refresh_token=r'.\n",
                     "SsoRequest: Received url: '" + url + "' and proxy: '" + proxy.url() +
                         "'for sso request validation.\n",
                     "SsoRequest: Sso request validation success.\n",
                     "SsoRequest: URL for sso request handler: '" + url + "'.\n",
                     "SsoRequest: Header for sso request handler is: 'Content-Type: "
                     "application/x-www-form-urlencoded'.\n",
                     "SsoRequest: Proxy for sso request handler: '" + proxy.url() + "'.\n",
                     "SsoRequest: Start sso request with data: "
                     "'grant_type=refresh_token&refresh_token=r'.\n",
                     "SsoRequest: Sso request success.\n"}));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].body, "grant_type=refresh_token&refresh_token=r");
}

TEST_F(SsoRequestTest, UntrustedTlsServerIsRefused) {
    FailureServer server(true);
    ASSERT_NE(server.port, 0);
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    std::string url = server.url("/me");
    LogCapture log;
    EXPECT_EQ(get(url), "");
    auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(startsWith(lines.back(),
                           "SsoRequest: ERROR! Sso request failed. CURL error message: 'SSL "
                           "certificate problem: "))
        << lines.back();
    EXPECT_TRUE(endsWith(lines.back(), "'.\n")) << lines.back();
    EXPECT_TRUE(log.has("SsoRequest: Start sso request with data: 'nil'.\n"));
    EXPECT_FALSE(log.has("SsoRequest: Sso request success.\n"));
    // The handshake failed, so no request line reached the server.
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(SsoRequestTest, RefusedConnectionReportsLibcurlsMessage) {
    LogCapture log;
    EXPECT_EQ(get("http://127.0.0.1:1/me"), "");
    auto lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(startsWith(lines.back(),
                           "SsoRequest: ERROR! Sso request failed. CURL error "
                           "message: 'Failed to connect to 127.0.0.1 port 1"))
        << lines.back();
}

TEST(SsoRequestLifecycleTest, RequestBeforeInitReturnsEmpty) {
    FailureServer server;
    server.on("/me", 200, "{}");
    SsoRequest network;
    LogCapture log;
    EXPECT_EQ(network.request(HttpGet, server.url("/me").c_str(), {}, "x=1", nullptr), "");
    EXPECT_EQ(log.lines(), (Lines{"SsoRequest: Received data for sso request: 'x=1'.\n",
                                  "SsoRequest: ERROR! Curl is not initialize.\n"}));
    EXPECT_TRUE(server.requests().empty());
}

TEST(SsoRequestLifecycleTest, ConstructorAndDestructorLog) {
    LogCapture log;
    {
        SsoRequest network;
        EXPECT_NE(network.errorBuffer, nullptr);
        EXPECT_FALSE(network.initialized);
    }
    {
        SsoRequest network;
        ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    }
    EXPECT_EQ(log.lines(), (Lines{"SsoRequest: SsoRequest constructor.\n",
                                  "SsoRequest: SsoRequest destructor.\n",
                                  "SsoRequest: WARNING! Curl was never initialized before.\n",
                                  "SsoRequest: SsoRequest constructor.\n", initLine(),
                                  "SsoRequest: SsoRequest destructor.\n",
                                  "SsoRequest: Curl global destruction success.\n"}));
}

TEST(SsoRequestLifecycleTest, CleanUpWithoutInitOnlyWarns) {
    SsoRequest network;
    char *buffer = network.errorBuffer;
    LogCapture log;
    network.cleanUp();
    EXPECT_EQ(log.lines(), (Lines{"SsoRequest: WARNING! Curl was never initialized before.\n"}));
    EXPECT_FALSE(network.initialized);
    EXPECT_EQ(network.errorBuffer, buffer);
    EXPECT_NE(network.errorBuffer, nullptr);
}

TEST(SsoRequestLifecycleTest, InitTwiceAndInvalidFlags) {
    SsoRequest network;
    LogCapture log;
    EXPECT_FALSE(network.init(0));
    EXPECT_FALSE(network.init(4));
    EXPECT_FALSE(network.initialized);
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    char *buffer = network.errorBuffer;
    EXPECT_FALSE(network.init(CURL_GLOBAL_ALL));
    EXPECT_TRUE(network.initialized);
    EXPECT_EQ(network.errorBuffer, buffer);
    EXPECT_EQ(log.lines(),
              (Lines{"SsoRequest: ERROR! Curl initialization flag invalid.\n",
                     "SsoRequest: ERROR! Curl initialization flag invalid.\n", initLine(),
                     "SsoRequest: ERROR! Attempting to initialze libcurl twice.\n"}));
}

TEST(SsoRequestLifecycleTest, InitAfterCleanUpWorksLikeTheFirstTime) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    std::string url = server.url("/me");
    SsoRequest network;
    for (int cycle = 0; cycle < 2; ++cycle) {
        SCOPED_TRACE(cycle);
        LogCapture log;
        ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
        ASSERT_NE(network.errorBuffer, nullptr);
        EXPECT_EQ(network.request(HttpGet, url.c_str(), {}, nullptr, nullptr),
                  "{\"email\":\"a@b\"}");
        // A failure writes libcurl's message into the buffer of this cycle.
        EXPECT_EQ(network.request(HttpGet, "http://127.0.0.1:1/", {}, nullptr, nullptr), "");
        auto lines = log.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.front(), initLine());
        EXPECT_TRUE(startsWith(lines.back(),
                               "SsoRequest: ERROR! Sso request failed. CURL error "
                               "message: 'Failed to connect to 127.0.0.1 port 1"))
            << lines.back();
        log.clear();
        network.cleanUp();
        EXPECT_EQ(log.lines(), (Lines{"SsoRequest: Curl global destruction success.\n"}));
        EXPECT_FALSE(network.initialized);
        EXPECT_EQ(network.errorBuffer, nullptr);
    }
    EXPECT_EQ(server.requests().size(), 2u);
}

TEST(SsoRequestUrlErrorTest, EveryCodeHasItsText) {
    struct Row {
        int code;
        char const *text;
    };
    Row const rows[] = {
        {0, "Unknown"},
        {1, "An invalid URL handle was passed as argument."},
        {2, "An invalid 'part' argument was passed as argument."},
        {3, "A malformed input was passed to a URL API function."},
        {4, "The port number was not a decimal number between 0 and 65535."},
        {5, "This libcurl build does not support the given URL scheme."},
        {6, "URL decode error, most likely because of rubbish in the input."},
        {7, "A memory function failed."},
        {8, "Credentials was passed in the URL when prohibited."},
        {9, "An unknown part ID was passed to a URL API function."},
        {10, "There is no scheme part in the URL."},
        {11, "There is no user part in the URL."},
        {12, "There is no password part in the URL."},
        {13, "There is no options part in the URL."},
        {14, "There is no host part in the URL."},
        {15, "There is no port part in the URL."},
        {16, "There is no query part in the URL."},
        {17, "There is no fragment part in the URL."},
        {18, "There is no zone id set in the URL."},
        {19, "The file:// URL is invalid."},
        {20, "The fragment part of the URL contained bad or invalid characters."},
        {21, "The hostname contained bad or invalid characters."},
        {22, "The IPv6 address hostname contained bad or invalid characters."},
        {23, "The login part of the URL contained bad or invalid characters."},
        {24, "The password part of the URL contained bad or invalid characters."},
        {25, "The path part of the URL contained bad or invalid characters."},
        {26, "The query part of the URL contained bad or invalid characters."},
        {27, "The scheme part of the URL contained bad or invalid characters."},
        {28, "The URL contained an invalid number of slashes."},
        {29, "The user part of the URL contained bad or invalid characters."},
        {30, "Unknown"},
        {-1, "Unknown"},
    };
    for (Row const &row : rows) {
        EXPECT_STREQ(SsoRequest::urlErrorText(row.code), row.text) << "code " << row.code;
    }
}

}  // namespace
