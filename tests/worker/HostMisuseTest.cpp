// Hosts that use the library badly: they close their end while replies are pending, send
// endless text without a line end, stop the worker with flows in flight, start and stop it a
// thousand times, or end the process without stopping it. The process survives all of it, and
// keeps neither descriptors, threads nor memory.
#include "platform/PlatformFakes.h"
#include "tests/harness/ChildProcess.h"
#include "tests/harness/DiscardedLog.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/ProcessUsage.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// The counts of ProcessUsage are the whole process's: in a test program, servers of earlier
// tests still winding down and the shared provider's readers move them while a test measures.
// So a test that compares them runs again, alone, in a program of its own: true there (run the
// body), false here, after that program ran and its result was checked.
bool runsAlone() {
    if (std::getenv("QXSS_ALONE") != nullptr) {
        return true;
    }
    auto const *test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    char self[4096];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    EXPECT_GT(length, 0);
    if (length <= 0) {
        return false;
    }
    self[length] = '\0';
    ChildProcess alone;
    EXPECT_TRUE(alone.start({"env", "QXSS_ALONE=1", self, "--gtest_filter=" + name}));
    std::string passed = alone.waitForLine("[  PASSED  ] ", 600000);
    int status = alone.waitForExit(60000);
    EXPECT_EQ(passed, "1 test.") << name << " failed alone; run it with QXSS_ALONE=1 to see why";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return false;
}

class HostMisuseTest : public ::testing::Test {
protected:
    void TearDown() override {
        host.stop();
        TestMachine::reset();
    }

    // Holds the worker at its next housekeeping step until release() (test hook).
    void holdWorker() {
        PlatformFakes::workerStep() = [this](char const *step) {
            if (std::strcmp(step, "Housekeeping") != 0) {
                return;
            }
            while (!released) {
                held = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        };
    }
    void waitUntilHeld() {
        for (int i = 0; i < 5000 && !held; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_TRUE(held);
    }

    std::atomic<bool> held{false};
    std::atomic<bool> released{false};
    WorkerHost host;
};

TEST_F(HostMisuseTest, HostClosingItsEndWithRepliesPendingKillsNothing) {
    LogCapture log;
    holdWorker();
    ASSERT_EQ(host.start(), 0);
    waitUntilHeld();
    std::string commands;
    for (int i = 0; i < 100; ++i) {
        commands += "SSO_GET_NODE_CONFIG|s-" + std::to_string(i) + "\n";
    }
    host.send(commands);
    host.closeHostEnd();
    released = true;
    // Every reply goes to a closed peer (no SIGPIPE, or this program would be gone), then the
    // worker sees the end of input and ends by itself.
    std::string const id = workerThreadId(log);
    ASSERT_TRUE(log.waitFor("Sso: WARNING! Worker thread " + id + " reaches EOF.\n")) << log.text();
    EXPECT_EQ(log.startingWith("Sso: Worker thread " + id + " is writing result: ").size(), 100u);
    host.stop();
    EXPECT_TRUE(log.has("Sso: Destroying sso environment.\n"));
}

TEST_F(HostMisuseTest, TenMegabytesWithoutALineEndKeepMemoryBounded) {
    if (!runsAlone()) {
        return;
    }
    DiscardedLog quiet;
    ASSERT_EQ(host.start(), 0);
    ASSERT_EQ(host.repliesBeforeFence(), "");
    ProcessUsage before = ProcessUsage::now();
    std::string const chunk(64 * 1024, 'x');
    for (int i = 0; i < 160; ++i) {
        host.send(chunk);
    }
    // The fence proves that the worker has read all of it.
    host.send("\n");
    ASSERT_EQ(host.repliesBeforeFence(60000), "");
    ProcessUsage after = ProcessUsage::now();
    // The channel keeps one read's tail at most, not the 10 MB.
    EXPECT_LT(after.heapBytes, before.heapBytes + 256 * 1024)
        << before.heapBytes << " -> " << after.heapBytes;
}

TEST_F(HostMisuseTest, DestroyWithFlowsInFlightReturnsAtOnceAndAStartAfterItWorks) {
    FailureServer stuck;
    stuck.on("/me", FailureServer::Mode::Hang);
    LogCapture log;
    ASSERT_EQ(host.start(), 0);
    for (int i = 0; i < 5; ++i) {
        host.send("SSO_NODE_VERIFY|{\"provider\":\"keycloak\",\"userinfo_uri\":\"" +
                  stuck.url("/me") + "\",\"access_token\":\"t\",\"qx_user_type\":\"local\"}|s-" +
                  std::to_string(i) + "\n");
    }
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(
            log.waitFor("Sso: Started async node verify flow successfully for user "
                        "session: 's-" +
                        std::to_string(i) + "'.\n"))
            << log.text();
    }
    auto begin = std::chrono::steady_clock::now();
    host.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_TRUE(log.has("Sso: Destroying sso environment.\n"));
    // The flows in flight answer nothing: the old worker has ended, so whatever it wrote is
    // already in the channel, ahead of the fence's reply from the new one.
    ASSERT_EQ(host.start(), 0);
    EXPECT_EQ(host.repliesBeforeFence(), "");
}

TEST_F(HostMisuseTest, AThousandStartsAndStopsKeepNothing) {
    if (!runsAlone()) {
        return;
    }
    DiscardedLog quiet;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    auto cycle = [&ends] {
        ASSERT_EQ(SsoInitialize(ends[1]), 0);
        SsoDestroy();
    };
    // The first starts fill caches that live as long as the process (libcurl's, OpenSSL's).
    for (int i = 0; i < 20; ++i) {
        cycle();
    }
    ProcessUsage before = ProcessUsage::now();
    for (int i = 0; i < 1000 && !HasFatalFailure(); ++i) {
        cycle();
    }
    ProcessUsage after = ProcessUsage::now();
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    // Less than 64 bytes a cycle: a leak of any object per start would show.
    EXPECT_LT(after.heapBytes, before.heapBytes + 64 * 1000)
        << before.heapBytes << " -> " << after.heapBytes;
}

// exit() or a return from main while the worker runs, idle or with flows in flight.
class HostExitTest : public ::testing::TestWithParam<std::tuple<std::string, bool>> {};

TEST_P(HostExitTest, ProcessEndsCleanlyWithoutSsoDestroy) {
    std::string const how = std::get<0>(GetParam());
    bool const inFlight = std::get<1>(GetParam());
    FailureServer stuck;
    stuck.on("/me", FailureServer::Mode::Hang);
    std::vector<std::string> argv = {QXSS_EXIT_HOST, how, TestMachine::configDir()};
    if (inFlight) {
        argv.push_back(stuck.url("/me"));
    }
    ChildProcess child;
    ASSERT_TRUE(child.start(argv));
    // "READY" once the worker runs (and the flows are in flight).
    EXPECT_EQ(child.waitForLine("READ", 20000), "Y");
    if (inFlight) {
        EXPECT_TRUE(stuck.waitForRequests(3, 20000));
        EXPECT_EQ(stuck.requests().size(), 3u);
        ASSERT_TRUE(child.send("GO\n"));
    }
    // The worker still answers from the host's exit handler.
    EXPECT_EQ(child.waitForLine("ANSWERED AT ", 20000), "EXIT");
    int status = child.waitForExit(20000);
    ASSERT_NE(status, -1) << "the host did not end";
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

INSTANTIATE_TEST_SUITE_P(ExitAndReturn, HostExitTest,
                         ::testing::Combine(::testing::Values("exit", "return"), ::testing::Bool()),
                         [](::testing::TestParamInfo<std::tuple<std::string, bool>> const &info) {
                             return std::get<0>(info.param) +
                                    (std::get<1>(info.param) ? "_FlowsInFlight" : "_Idle");
                         });

}  // namespace
