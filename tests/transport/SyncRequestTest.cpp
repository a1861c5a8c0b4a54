// The blocking request used for discovery, against real servers on loopback.
#include "platform/PlatformFakes.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>

namespace {

class SyncRequestTest : public EngineTest {
protected:
    void SetUp() override { ASSERT_TRUE(startNetwork(network)); }

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
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse(body, document)) << body;
    EXPECT_EQ(document["authorization_endpoint"], provider.baseUrl() + "/auth") << body;
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
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse(body, document)) << body;
    EXPECT_EQ(document["issuer"], provider.baseUrl() + "/v2.0") << body;
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
    EXPECT_TRUE(
        log.has("CurlRequest: ERROR! Sync request failed: 'SSL certificate problem: "
                "self-signed certificate' (code: 60)\n"));
}

TEST_F(SyncRequestTest, ResetConnectionFails) {
    FailureServer server;
    FailureServer::Reply reset;
    reset.mode = FailureServer::Mode::Reset;
    server.on("/doc", reset);
    LogCapture log;
    EXPECT_EQ(get(server.url("/doc")), "");
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 56.\n"));
    EXPECT_TRUE(
        log.has("CurlRequest: ERROR! Sync request failed: 'Recv failure: Connection reset "
                "by peer' (code: 56)\n"));
}

TEST_F(SyncRequestTest, RefusedConnectionFails) {
    LogCapture log;
    EXPECT_EQ(get("http://127.0.0.1:1/doc"), "");
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 7.\n"));
    // libcurl's text names the time the attempt took.
    EXPECT_TRUE(log.hasFramed(
        "CurlRequest: ERROR! Sync request failed: 'Failed to connect to 127.0.0.1 port 1 after ",
        " ms: Couldn't connect to server' (code: 7)\n"));
}

TEST_F(SyncRequestTest, GivesUpOnAHangAfterThirtySeconds) {
    auto server = std::make_unique<FailureServer>();
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server->on("/doc", hang);
    std::string url = server->url("/doc");
    LogCapture log;
    auto started = std::chrono::steady_clock::now();
    auto body = std::async(std::launch::async, [&] { return get(url); });
    // The request must end by itself after 30 seconds. One still running at 35 has no such
    // time-out (or a longer one): say so at once instead of waiting for ctest's limit, and end
    // it by dropping the connection.
    if (body.wait_for(std::chrono::seconds(35)) != std::future_status::ready) {
        ADD_FAILURE() << "the request still hangs after 35 s: its 30-second time-out is missing";
        server.reset();
        body.wait();
        return;
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_EQ(body.get(), "");
    EXPECT_GE(seconds, 29.5);
    EXPECT_TRUE(log.has("CurlRequest: Request completed with code: 28.\n"));
    EXPECT_TRUE(log.hasFramed(
        "CurlRequest: ERROR! Sync request failed: 'Operation timed out after ", "' (code: 28)\n"));
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
    EXPECT_EQ(requests[0].target, "/token");
    EXPECT_EQ(requests[0].body, "a=1&b=2");
    std::vector<std::string> headers;
    std::string block = requests[0].headers + "\r\n";
    for (size_t start = 0, end; (end = block.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
        headers.push_back(block.substr(start, end - start));
    }
    EXPECT_EQ(std::count(headers.begin(), headers.end(), "X-Test: yes"), 1) << requests[0].headers;
    EXPECT_EQ(std::count(headers.begin(), headers.end(),
                         "Content-Type: application/x-www-form-urlencoded"),
              1)
        << requests[0].headers;
}

}  // namespace
