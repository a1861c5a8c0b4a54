// The HTTPS world itself, spoken to with plain libcurl and the system's bundle as every client
// of the machine sees it: what the library's tests over HTTPS rely on.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/TestCa.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

struct Answer {
    CURLcode result = CURLE_OK;
    long status = 0;
    long version = 0;
    std::string body;
    std::string error;
};

size_t collect(char *bytes, size_t size, size_t count, void *user) {
    static_cast<std::string *>(user)->append(bytes, size * count);
    return size * count;
}

// A GET with libcurl's defaults for trust (the system bundle), over HTTP/2 when `h2`.
Answer get(std::string const &url, bool h2, std::string const &proxy = "") {
    Answer answer;
    char error[CURL_ERROR_SIZE] = "";
    CURL *curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION,
                     h2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    if (!proxy.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXY, proxy.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPPROXYTUNNEL, 1L);
    }
    answer.result = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_easy_getinfo(curl, CURLINFO_HTTP_VERSION, &answer.version);
    curl_easy_cleanup(curl);
    answer.error = error;
    return answer;
}

class WorldTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!TestCa::available()) {
            GTEST_SKIP() << TestCa::why();
        }
        ASSERT_TRUE(LocalProvider::sharedHttps().ready()) << LocalProvider::sharedHttps().error;
    }
};

TEST_F(WorldTest, TheProviderSpeaksHttp2AndHttp1OverTrustedTls) {
    std::string discovery =
        LocalProvider::sharedHttps().baseUrl() + "/.well-known/openid-configuration";
    ASSERT_EQ(discovery.compare(0, 18, "https://127.0.0.1:"), 0) << discovery;
    Answer h2 = get(discovery, true);
    ASSERT_EQ(h2.result, CURLE_OK) << h2.error;
    EXPECT_EQ(h2.status, 200);
    EXPECT_EQ(h2.version, CURL_HTTP_VERSION_2_0);
    EXPECT_NE(
        h2.body.find("\"token_endpoint\":\"" + LocalProvider::sharedHttps().baseUrl() + "/token\""),
        std::string::npos)
        << h2.body;
    Answer h1 = get(discovery, false);
    ASSERT_EQ(h1.result, CURLE_OK) << h1.error;
    EXPECT_EQ(h1.version, CURL_HTTP_VERSION_1_1);
    EXPECT_EQ(h1.body, h2.body);
}

TEST_F(WorldTest, TheProxyTunnelsHttps) {
    ASSERT_TRUE(LocalProxy::shared().ready()) << LocalProxy::shared().error;
    int before = LocalProxy::shared().connections();
    Answer answer =
        get(LocalProvider::sharedHttps().baseUrl() + "/.well-known/openid-configuration", true,
            LocalProxy::shared().url());
    ASSERT_EQ(answer.result, CURLE_OK) << answer.error;
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(LocalProxy::shared().connections(), before + 1);
}

TEST_F(WorldTest, OtherHostAndUntrustedCertificatesAreRefused) {
    FailureServer trusted(TestCa::serverPem(), TestCa::serverKey());
    FailureServer otherHost(TestCa::otherHostPem(), TestCa::otherHostKey());
    FailureServer untrusted(TestCa::untrustedPem(), TestCa::untrustedKey());
    for (FailureServer *server : {&trusted, &otherHost, &untrusted}) {
        ASSERT_NE(server->port, 0);
        server->on("/x", 200, "{}");
    }
    Answer ok = get(trusted.url("/x"), false);
    EXPECT_EQ(ok.result, CURLE_OK) << ok.error;
    EXPECT_EQ(ok.body, "{}");
    Answer name = get(otherHost.url("/x"), false);
    EXPECT_EQ(name.result, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(name.error,
              "SSL: no alternative certificate subject name matches target host name "
              "'127.0.0.1'");
    Answer issuer = get(untrusted.url("/x"), false);
    EXPECT_EQ(issuer.result, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(issuer.error, "SSL certificate problem: unable to get local issuer certificate");
}

TEST_F(WorldTest, ProviderHoldsCallsUntilReleased) {
    auto &provider = LocalProvider::sharedHttps();
    std::string const me = provider.baseUrl() + "/me";
    ASSERT_TRUE(provider.hold(1));
    EXPECT_EQ(provider.held(), 0);
    Answer held;
    std::thread call([&] { held = get(me, true); });
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (provider.held() != 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(provider.held(), 1);
    // Only the next call was held: this one is answered at once.
    Answer next = get(me, true);
    EXPECT_EQ(next.result, CURLE_OK) << next.error;
    EXPECT_EQ(next.status, 400);  // no access token
    EXPECT_EQ(provider.release(), 1);
    call.join();
    EXPECT_EQ(held.result, CURLE_OK) << held.error;
    EXPECT_EQ(held.status, 400);
    EXPECT_EQ(provider.held(), 0);

    // Released before anything came: nothing stays held.
    ASSERT_TRUE(provider.hold(2));
    EXPECT_EQ(provider.release(), 0);
    Answer after = get(me, true);
    EXPECT_EQ(after.status, 400);
    EXPECT_EQ(provider.held(), 0);
}

}  // namespace
