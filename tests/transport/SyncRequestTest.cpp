// The blocking request used for discovery, against real servers on loopback.
#include "platform/PlatformFakes.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

class SyncRequestTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(network.init(3)); }
    void TearDown() override { network.cleanUp(); }

    std::string get(std::string const &url, char const *proxy = nullptr) {
        return network.syncRequest(HttpGet, url.c_str(), {}, nullptr, proxy);
    }

    CurlRequest network;
};

TEST_F(SyncRequestTest, FetchesTheLocalProvidersDiscoveryDocument) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    LogCapture log;
    std::string url = provider.baseUrl() + "/.well-known/openid-configuration";
    std::string body = get(url);
    EXPECT_NE(body.find("\"authorization_endpoint\":\"" + provider.baseUrl() + "/auth\""),
              std::string::npos)
        << body;
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"CurlRequest: syncRequest called for URL: '" + url + "'.\n",
                                        "CurlRequest: Request completed with code: 0.\n",
                                        "CurlRequest: Sync request succeeded. Response size: " +
                                            std::to_string(body.size()) + ".\n"}));
}

TEST_F(SyncRequestTest, GoesThroughAnHttpProxy) {
    auto &provider = LocalProvider::shared();
    auto &proxy = LocalProxy::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    int before = proxy.connections();
    std::string body =
        get(provider.baseUrl() + "/v2.0/.well-known/openid-configuration", proxy.url().c_str());
    EXPECT_NE(body.find("\"issuer\":\"" + provider.baseUrl() + "/v2.0\""), std::string::npos);
    EXPECT_EQ(proxy.connections(), before + 1);
}

TEST_F(SyncRequestTest, ReturnsTheBodyOfAServerError) {
    FailureServer server;
    server.on("/doc", 500, "{\"issuer\":\"x\"}");
    EXPECT_EQ(get(server.url("/doc")), "{\"issuer\":\"x\"}");
}

TEST_F(SyncRequestTest, EmptyBodyIsAnEmptySuccess) {
    FailureServer server;
    server.on("/doc", 200, "");
    LogCapture log;
    EXPECT_EQ(get(server.url("/doc")), "");
    EXPECT_TRUE(log.has("CurlRequest: Sync request succeeded. Response size: 0.\n"));
}

TEST_F(SyncRequestTest, UntrustedCertificateFails) {
    FailureServer server(true);
    ASSERT_NE(server.port, 0);
    server.on("/doc", 200, "{}");
    LogCapture log;
    EXPECT_EQ(get(server.url("/doc")), "");
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 60.\n"));
    EXPECT_TRUE(log.contains("CurlRequest: ERROR! Sync request failed: '"));
    EXPECT_TRUE(log.contains("' (code: 60)\n"));
}

TEST_F(SyncRequestTest, ResetConnectionFails) {
    FailureServer server;
    FailureServer::Reply reset;
    reset.mode = FailureServer::Mode::Reset;
    server.on("/doc", reset);
    LogCapture log;
    EXPECT_EQ(get(server.url("/doc")), "");
    EXPECT_TRUE(log.contains("CurlRequest: ERROR! Sync request failed: '"));
}

TEST_F(SyncRequestTest, RefusedConnectionFails) {
    LogCapture log;
    EXPECT_EQ(get("http://127.0.0.1:1/doc"), "");
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 7.\n"));
    EXPECT_TRUE(log.contains("' (code: 7)\n"));
}

TEST_F(SyncRequestTest, GivesUpOnAHangAfterThirtySeconds) {
    FailureServer server;
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server.on("/doc", hang);
    LogCapture log;
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(get(server.url("/doc")), "");
    auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started)
            .count();
    EXPECT_GE(seconds, 29);
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 28.\n"));
}

TEST_F(SyncRequestTest, RefusesWithoutInitOrUrl) {
    LogCapture log;
    EXPECT_EQ(network.syncRequest(HttpGet, "", {}, nullptr, nullptr), "");
    EXPECT_EQ(network.syncRequest(HttpGet, nullptr, {}, nullptr, nullptr), "");
    network.cleanUp();
    EXPECT_EQ(get("http://127.0.0.1:1/"), "");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "CurlRequest: syncRequest called for URL: ''.\n",
                  "CurlRequest: ERROR! Sync request URL is empty.\n",
                  "CurlRequest: syncRequest called for URL: 'nil'.\n",
                  "CurlRequest: ERROR! Sync request URL is empty.\n", "CurlRequest: Clean up.\n",
                  "CurlRequest: syncRequest called for URL: 'http://127.0.0.1:1/'.\n",
                  "CurlRequest: ERROR! CurlRequest not initialized for sync request.\n"}));
}

TEST_F(SyncRequestTest, PostSendsHeadersAndBody) {
    FailureServer server;
    server.on("/token", 200, "{}");
    EXPECT_EQ(network.syncRequest(HttpPost, server.url("/token").c_str(), {"X-Test: yes"},
                                  "a=1&b=2", nullptr),
              "{}");
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].body, "a=1&b=2");
    EXPECT_NE(requests[0].headers.find("X-Test: yes"), std::string::npos);
}

}  // namespace
