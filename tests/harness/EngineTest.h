#pragma once

#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

// Base of the fixtures that drive the server engine and the transports directly, with no worker.
// What a test sets up through it (a started transport, provider records, a fake clock) is undone
// in TearDown, latest first, so that the next test in the program finds the singletons as new.
// Fixtures that capture the log keep their own LogCapture as their last member: it then holds
// only what their SetUp and the test log.
class EngineTest : public ::testing::Test {
protected:
    void TearDown() override {
        while (!undo.empty()) {
            auto step = std::move(undo.back());
            undo.pop_back();
            step();
        }
    }

    // Runs `step` in TearDown, before the steps registered earlier.
    void atTearDown(std::function<void()> step) { undo.push_back(std::move(step)); }

    // Starts `network` (a CurlRequest or an SsoRequest) with libcurl's global `flag`; TearDown
    // cleans it up. False when init fails: callers assert on it.
    template <class Network>
    bool startNetwork(Network &network, int flag = CURL_GLOBAL_ALL) {
        atTearDown([&network] { network.cleanUp(); });
        return network.init(flag);
    }
    // As startNetwork, for a shared transport that an earlier test may have left running: it is
    // cleaned up first.
    template <class Network>
    bool restartNetwork(Network &network) {
        network.cleanUp();
        return startNetwork(network);
    }

    // Drops the provider records of `server` in TearDown.
    void clearRecordsAfter(SsoServer &server) {
        atTearDown([&server] { server.clearConfigs(); });
    }

    // Replaces the platform's clock for this test; TearDown clears every platform fake.
    void fakeClock(std::function<int64_t()> clock) {
        PlatformFakes::clock() = std::move(clock);
        atTearDown([] { PlatformFakes::reset(); });
    }
    // A clock that stands at `now` for the whole test.
    void stopClock(int64_t now) {
        fakeClock([now] { return now; });
    }

    // The registered undo steps, earliest first.
    std::vector<std::function<void()>> undo;
};
