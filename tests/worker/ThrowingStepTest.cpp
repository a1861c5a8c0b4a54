// A throw anywhere in a worker turn is caught at its step: a command that throws still gets its
// one failure line, a throwing housekeeping, transfer or drain step costs only that step, and in
// every case the worker goes on serving.
#include "platform/PlatformFakes.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

// Makes the step `name` throw once, the first time the worker enters it.
void throwOnceAt(std::string const &name) {
    auto thrown = std::make_shared<std::atomic<bool>>(false);
    PlatformFakes::workerStep() = [name, thrown](char const *step) {
        if (name == step && !thrown->exchange(true)) {
            throw std::runtime_error("injected fault");
        }
    };
}

struct CommandRow {
    std::string line;   // sent, with its line end
    std::string name;   // the command's name, where the throw happens
    std::string reply;  // the one failure line, or "" for a command that has none
};

// A host whose worker is stopped, and the hook cleared, after each row.
template <typename Row>
class WorkerWithHook : public ::testing::TestWithParam<Row> {
protected:
    void TearDown() override {
        host.stop();
        TestMachine::reset();
    }
    LogCapture log;
    WorkerHost host;
};

class ThrowingCommandTest : public WorkerWithHook<CommandRow> {};

TEST_P(ThrowingCommandTest, GetsItsFailureLineOnceAndTheWorkerGoesOn) {
    CommandRow const &row = GetParam();
    throwOnceAt(row.name);
    ASSERT_EQ(host.start(), 0);
    host.send(row.line);
    EXPECT_EQ(host.repliesBeforeFence(), row.reply) << log.text();
    EXPECT_TRUE(log.has("Sso: ERROR! Command '" + row.name + "' failed: 'injected fault'.\n"))
        << log.text();
    // The same command again, now without the throw, is handled as usual.
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
}

INSTANTIATE_TEST_SUITE_P(
    EveryCommand, ThrowingCommandTest,
    ::testing::Values(
        CommandRow{"SSO_LOAD_CONFIGS\n", "SSO_LOAD_CONFIGS", "SSO_LOAD_CONFIGS_FAILURE\n"},
        CommandRow{"SSO_GET_NODE_CONFIG|s-1\n", "SSO_GET_NODE_CONFIG",
                   "SSO_GET_NODE_CONFIG_FAILURE|s-1\n"},
        CommandRow{"SSO_GET_CONFIG|0|s-2\n", "SSO_GET_CONFIG", "SSO_GET_CONFIG_FAILURE|s-2\n"},
        CommandRow{"SSO_GET_CONFIG_CLUSTER|3|10.0.0.1|s-3\n", "SSO_GET_CONFIG_CLUSTER",
                   "SSO_GET_CONFIG_CLUSTER_FAILURE|s-3\n"},
        CommandRow{"SSO_VERIFY|code|s-4\n", "SSO_VERIFY", "SSO_VERIFY_FAILURE|s-4\n"},
        CommandRow{"SSO_REFRESH|uuid|s-5\n", "SSO_REFRESH", "SSO_REFRESH_FAILURE|s-5\n"},
        CommandRow{"SSO_NODE_VERIFY|{}|s-6\n", "SSO_NODE_VERIFY", "SSO_NODE_VERIFY_FAILURE|s-6\n"},
        // No failure line: an id below 1 and a name the worker does not know get no reply.
        CommandRow{"SSO_GET_CONFIG|-5|s-7\n", "SSO_GET_CONFIG", ""},
        CommandRow{"SSO_UNKNOWN|a|b\n", "SSO_UNKNOWN", ""}));

class ThrowingTurnStepTest : public WorkerWithHook<std::string> {};

TEST_P(ThrowingTurnStepTest, IsLoggedAndTheWorkerGoesOn) {
    throwOnceAt(GetParam());
    ASSERT_EQ(host.start(), 0);
    EXPECT_TRUE(log.waitFor("Sso: ERROR! " + GetParam() + " failed: 'injected fault'.\n"))
        << log.text();
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
}

INSTANTIATE_TEST_SUITE_P(EveryStep, ThrowingTurnStepTest,
                         ::testing::Values("Housekeeping", "Transfers", "Drain of finished flows"));

}  // namespace
