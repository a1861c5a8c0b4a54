// The worker's turn when nothing happens: an idle worker with a loaded configuration waits out
// its full wait each turn instead of spinning on the background transfers' wake-ups, and a
// turn whose wait fails still runs housekeeping, transfers and the drain before the worker
// ends.
#include "platform/PlatformFakes.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(IdleTurnTest, AnIdleWorkerTakesTenToThirtyTurnsASecond) {
    ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
    LogCapture log;
    WorkerHost host;
    TestMachine::server(LoginDriver::file({LoginDriver::Entry()}));
    // The counter is read on the worker's thread, at the start of each turn's housekeeping.
    auto seen = std::make_shared<std::atomic<int32_t>>(-1);
    PlatformFakes::workerStep() = [seen](char const *step) {
        if (std::string(step) == "Housekeeping") {
            seen->store(ticks);
        }
    };
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_LOAD_CONFIGS\n");
    ASSERT_EQ(host.readLine(60000), "SSO_LOAD_CONFIGS_OK\n");
    // A count over a few seconds, not a bound on time: 50-millisecond waits make 20 a second,
    // and a wait that returned at once would make thousands.
    while (seen->load() < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    auto start = std::chrono::steady_clock::now();
    int32_t before = seen->load();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    int32_t after = seen->load();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    double perSecond = (after - before) / seconds;
    EXPECT_GE(perSecond, 10.0) << after - before << " turns in " << seconds << " s";
    EXPECT_LE(perSecond, 30.0) << after - before << " turns in " << seconds << " s";
    host.stop();
    TestMachine::reset();
}

TEST(IdleTurnTest, ATurnWhoseWaitFailsStillRunsItsStepsAndThenEnds) {
    LogCapture log;
    WorkerHost host;
    TestMachine::node();
    auto failing = std::make_shared<std::atomic<bool>>(false);
    auto mutex = std::make_shared<std::mutex>();
    auto steps = std::make_shared<std::vector<std::string>>();
    PlatformFakes::waitFailure() = [failing, mutex, steps] {
        if (!failing->load()) {
            return false;
        }
        std::lock_guard<std::mutex> lock(*mutex);
        steps->push_back("wait failed");
        return true;
    };
    PlatformFakes::workerStep() = [failing, mutex, steps](char const *step) {
        if (failing->load()) {
            std::lock_guard<std::mutex> lock(*mutex);
            steps->push_back(step);
        }
    };
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_GET_NODE_CONFIG|s-1\n");
    ASSERT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|s-1\n");
    failing->store(true);
    // Until the turn with the failed wait has run its last step.
    auto ranDrain = [mutex, steps] {
        std::lock_guard<std::mutex> lock(*mutex);
        bool failed = false;
        for (auto const &step : *steps) {
            failed = failed || step == "wait failed";
            if (failed && step == "Drain of finished flows") {
                return true;
            }
        }
        return false;
    };
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ranDrain() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // The worker ended by itself after that turn; SsoDestroy joins it.
    host.stop();
    std::lock_guard<std::mutex> lock(*mutex);
    ASSERT_GE(steps->size(), 4u);
    // The first turn after the failure: its wait fails, its three steps run, and no further
    // turn follows.
    size_t first = 0;
    while (first < steps->size() && (*steps)[first] != "wait failed") {
        ++first;
    }
    std::vector<std::string> const expected = {"wait failed", "Housekeeping", "Transfers",
                                               "Drain of finished flows"};
    ASSERT_LE(first + 4, steps->size());
    EXPECT_EQ(std::vector<std::string>(steps->begin() + first, steps->begin() + first + 4),
              expected);
    EXPECT_EQ(steps->size(), first + 4);
    TestMachine::reset();
}

}  // namespace
