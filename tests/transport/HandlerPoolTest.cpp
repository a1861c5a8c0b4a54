// The pool of easy handles and the setters that prepare one transfer.
#include "platform/PlatformFakes.h"
#include "tests/harness/EngineTest.h"
#include "tests/harness/LogCapture.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

namespace {

class HandlerPoolTest : public EngineTest {
protected:
    void SetUp() override {
        // Tests fake the clock or the allocator; the pool is gone before the fakes are.
        atTearDown([] { PlatformFakes::reset(); });
        ASSERT_TRUE(startNetwork(network));
    }

    size_t count(int configId, bool dynamic) const {
        size_t found = 0;
        for (auto const *handler : network.handlers) {
            found += (handler->configId == configId && handler->isDynamic == dynamic) ? 1 : 0;
        }
        return found;
    }

    CurlRequest network;
};

TEST(CurlRequestInitTest, InitTwiceAndInvalidFlags) {
    CurlRequest network;
    LogCapture log;
    EXPECT_FALSE(network.init(0));
    EXPECT_FALSE(network.init(4));
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    CURLM *multi = network.multiHandle;
    EXPECT_FALSE(network.init(CURL_GLOBAL_ALL));
    EXPECT_EQ(network.multiHandle, multi);
    EXPECT_TRUE(network.initialized);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "CurlRequest: ERROR! Invalid flag.\n");
    EXPECT_EQ(lines[1], "CurlRequest: ERROR! Invalid flag.\n");
    EXPECT_EQ(lines[2], std::string("CurlRequest: Success. Version: ") + curl_version() + ".\n");
    EXPECT_EQ(lines[3], "CurlRequest: ERROR! Already initialized.\n");
}

TEST(CurlRequestInitTest, StartsAgainAfterCleanUp) {
    CurlRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    network.cleanUp();
    EXPECT_EQ(network.errorBuffer, nullptr);
    EXPECT_FALSE(network.initialized);
    ASSERT_TRUE(network.init(1));
    EXPECT_NE(network.errorBuffer, nullptr);
    // The new error buffer carries libcurl's reason again.
    LogCapture log;
    EXPECT_EQ(network.syncRequest(HttpGet, "http://127.0.0.1:1/", {}, nullptr, nullptr), "");
    EXPECT_TRUE(log.hasFramed(
        "CurlRequest: ERROR! Sync request failed: 'Failed to connect to 127.0.0.1 port 1 after ",
        " ms: Couldn't connect to server' (code: 7)\n"));
}

TEST(CurlRequestInitTest, PoolNeedsInit) {
    CurlRequest network;
    LogCapture log;
    EXPECT_FALSE(network.setupHandlersForConfig(0, 5));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"CurlRequest: ERROR! Curl not initialized.\n"}));
    log.clear();
    network.cleanUp();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandlerPoolTest, StaticHandlesThenDynamicOnesPerConfiguration) {
    LogCapture log;
    ASSERT_TRUE(network.setupHandlersForConfig(0, 5));
    ASSERT_TRUE(network.setupHandlersForConfig(1, 5));
    EXPECT_EQ(log.lines()[0], "CurlRequest: Creating 5 handlers for config 0.\n");
    EXPECT_EQ(log.count("CurlRequest: Created handler for config 0.\n"), 5u);
    log.clear();
    void *taken[6];
    for (int i = 0; i < 5; ++i) {
        taken[i] = network.acquireHandler(0);
        ASSERT_NE(taken[i], nullptr);
    }
    EXPECT_TRUE(log.lines().empty());
    taken[5] = network.acquireHandler(0);
    ASSERT_NE(taken[5], nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "CurlRequest: No free handler creating dynamic handler for config 0.\n",
                  "CurlRequest: Created handler for config 0.\n"}));
    // Handles of config 1 were never lent.
    for (auto const *handler : network.handlers) {
        if (handler->configId == 1) {
            EXPECT_FALSE(handler->inUse);
        }
    }
    EXPECT_EQ(count(0, true), 1u);
    for (auto *handle : taken) {
        network.releaseHandler(handle);
    }
    EXPECT_EQ(log.count("CurlRequest: Released handler.\n"), 6u);
}

TEST_F(HandlerPoolTest, CountBelowOneMakesNothing) {
    EXPECT_TRUE(network.setupHandlersForConfig(2, 0));
    EXPECT_TRUE(network.handlers.empty());
}

TEST_F(HandlerPoolTest, ReleasedDynamicHandleServesUntilTheSweep) {
    ASSERT_TRUE(network.setupHandlersForConfig(0, 1));
    void *first = network.acquireHandler(0);
    void *dynamic = network.acquireHandler(0);
    network.releaseHandler(dynamic);
    // The free dynamic handle is found like a static one.
    EXPECT_EQ(network.acquireHandler(0), dynamic);
    network.releaseHandler(dynamic);
    network.releaseHandler(first);
    LogCapture log;
    network.cleanupDynamicHandlers();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"CurlRequest: Cleaning up handlers.\n"}));
    EXPECT_EQ(count(0, true), 0u);
    EXPECT_EQ(count(0, false), 1u);
}

TEST_F(HandlerPoolTest, SweepSparesHandlesInUse) {
    void *busy = network.acquireHandler(3);
    void *idle = network.acquireHandler(3);
    network.releaseHandler(idle);
    network.cleanupDynamicHandlers();
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_EQ(network.handlers[0]->handle, busy);
    EXPECT_TRUE(network.handlers[0]->inUse);
}

TEST_F(HandlerPoolTest, ReleasingAnUnknownHandleDoesNothing) {
    LogCapture log;
    int notAHandle = 0;
    network.releaseHandler(&notAHandle);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandlerPoolTest, NoCaBundleIsStillSuccess) {
    PlatformFakes::fileExists() = [](char const *) { return 0; };
    void *handle = network.acquireHandler(0);
    EXPECT_EQ(network.setupCAFile(handle, CaTargetServer), CURLE_OK);
    EXPECT_EQ(network.setupCAFile(handle, CaTargetProxy), CURLE_OK);
    EXPECT_EQ(network.setupCAFile(handle, 2), CURLE_FAILED_INIT);
    EXPECT_TRUE(network.setOptions(handle, HttpPost));
}

TEST_F(HandlerPoolTest, SetOptionsNeedsAHandle) {
    EXPECT_FALSE(network.setOptions(nullptr, HttpGet));
    EXPECT_TRUE(network.setOptions(network.acquireHandler(0), HttpGet));
}

TEST_F(HandlerPoolTest, SettersRefuseMissingArguments) {
    void *handle = network.acquireHandler(0);
    std::vector<std::string> none;
    std::vector<std::string> two = {"Accept: application/json", "Authorization: Bearer x"};
    curl_slist *list = nullptr;
    EXPECT_FALSE(network.setUrl(handle, ""));
    EXPECT_FALSE(network.setUrl(handle, nullptr));
    EXPECT_FALSE(network.setUrl(nullptr, "http://x"));
    EXPECT_TRUE(network.setUrl(handle, "http://127.0.0.1/"));
    EXPECT_FALSE(network.setHeaders(handle, &none, list));
    EXPECT_EQ(list, nullptr);
    EXPECT_FALSE(network.setHeaders(handle, nullptr, list));
    EXPECT_TRUE(network.setHeaders(handle, &two, list));
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->data, "Accept: application/json");
    curl_slist_free_all(list);
    EXPECT_FALSE(network.setData(handle, nullptr));
    EXPECT_TRUE(network.setData(handle, "a=b"));
}

TEST_F(HandlerPoolTest, ProxySchemes) {
    void *handle = network.acquireHandler(0);
    LogCapture log;
    EXPECT_TRUE(network.setProxy(handle, "http://127.0.0.1:3128"));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"CurlRequest: Setting proxy: 'http://127.0.0.1:3128'.\n",
                                        "CurlRequest: Proxy type set to HTTP.\n",
                                        "CurlRequest: Proxy configured successfully.\n"}));
    log.clear();
    EXPECT_TRUE(network.setProxy(handle, "https://proxy.example:443"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "CurlRequest: Setting proxy: 'https://proxy.example:443'.\n",
                               "CurlRequest: Proxy type set to HTTPS.\n",
                               "CurlRequest: CA file set for HTTPS proxy.\n",
                               "CurlRequest: Proxy configured successfully.\n"}));
    log.clear();
    EXPECT_FALSE(network.setProxy(handle, "socks5://127.0.0.1:1080"));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"CurlRequest: Setting proxy: 'socks5://127.0.0.1:1080'.\n",
                                        "CurlRequest: ERROR! Invalid proxy scheme! Only http:// "
                                        "and https:// are supported.\n"}));
    log.clear();
    // The scheme is searched anywhere in the text, "http://" first.
    EXPECT_TRUE(network.setProxy(handle, "socks5://x/http://y"));
    EXPECT_TRUE(log.has("CurlRequest: Proxy type set to HTTP.\n"));
    log.clear();
    EXPECT_FALSE(network.setProxy(handle, ""));
    EXPECT_FALSE(network.setProxy(handle, nullptr));
    EXPECT_FALSE(network.setProxy(nullptr, "http://x:1"));
    EXPECT_EQ(log.count("CurlRequest: ERROR! Invalid arguments.\n"), 3u);
}

TEST(WriteToStringTest, AppendsAndRefusesNulls) {
    std::string target = "a";
    char bytes[] = "bcd";
    EXPECT_EQ(CurlRequest::writeToString(bytes, 1, 3, &target), 3u);
    EXPECT_EQ(target, "abcd");
    EXPECT_EQ(CurlRequest::writeToString(nullptr, 1, 3, &target), 0u);
    EXPECT_EQ(CurlRequest::writeToString(bytes, 1, 3, nullptr), 0u);
}

TEST(CurlRequestSingletonTest, GetNetworkIsOneObject) {
    EXPECT_EQ(&CurlRequest::getNetwork(), &CurlRequest::getNetwork());
}

}  // namespace
