// Starting and stopping the worker, and its ends other than the stop message.
#include "server/SsoServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "transport/CurlRequest.h"
#include "worker/libqxss.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

// Every test starts on a node (the test main sees to it).

// "Sso: Internal pipe read FD#<r> write FD#<w>.\n" -> {r, w}
std::pair<int, int> pipeNumbers(LogCapture const &log) {
    for (auto const &line : log.lines()) {
        int r = -1, w = -1;
        if (sscanf(line.c_str(), "Sso: Internal pipe read FD#%d write FD#%d", &r, &w) == 2) {
            return {r, w};
        }
    }
    return {-1, -1};
}

TEST(LifecycleTest, StartLogsTheWholeRoad) {
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    auto fds = pipeNumbers(log);
    std::string fd = std::to_string(host.libraryFd);
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Initialization received FD#" + fd + ".\n",
        "Sso: Creating internal pipe.\n",
        "Sso: Internal pipe read FD#" + std::to_string(fds.first) + " write FD#" +
            std::to_string(fds.second) + ".\n",
        "Sso: Initializing sso environment.\n",
        "Sso: Creating worker thread.\n",
    }));
    std::string id = workerThreadId(log);
    ASSERT_FALSE(id.empty());
    std::string internal =
        " internal FD#" + std::to_string(fds.first) + " and FD#" + std::to_string(fds.second);
    EXPECT_TRUE(log.has("Sso: Thread " + id + " created with I/O FD#" + fd + internal + ".\n"));
    EXPECT_TRUE(log.waitFor("Sso: Worker thread " + id + " started job with I/O FD: " + fd +
                            internal + ".\n"));
}

TEST(LifecycleTest, SecondInitializeIsRefusedAndTheFirstWorkerRuns) {
    LogCapture log;
    WorkerHost first;
    WorkerHost second;
    ASSERT_EQ(first.start(), 0);
    log.clear();
    EXPECT_EQ(second.start(), -1);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Sso: Initialization received FD#" +
                                                         std::to_string(second.libraryFd) + ".\n",
                                                     "Sso: ERROR! Worker thread was created.\n"}));
    first.send("A|1|2\n");
    EXPECT_TRUE(log.waitFor("Sso: Command 'A' is incorrect.\n"));
}

TEST(LifecycleTest, DestroyWithoutWorkerOnlyWarns) {
    LogCapture log;
    SsoDestroy();
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Sso: WARNING! Worker thread was not created.\n"}));
}

TEST(LifecycleTest, DestroyStopsJoinsAndClosesInOrder) {
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    auto fds = pipeNumbers(log);
    host.stop();
    auto lines = log.lines();
    std::string id;
    for (auto const &line : lines) {
        if (line.rfind("Sso: Worker thread ID is ", 0) == 0) {
            id = line.substr(25, line.size() - 27);
        }
    }
    ASSERT_FALSE(id.empty());
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Worker thread ID is " + id + ".\n",
        "Sso: Writing 4 bytes on FD#" + std::to_string(fds.second) + " to stop thread.\n",
        "Sso: Waiting for thread  " + id + " to end.\n",
        "Sso: Worker thread " + id + " received event from waiter.\n",
        "Sso: Worker thread " + id + " received exit message.\n",
        "Sso: Closing thread  " + id + " FD#" + std::to_string(fds.first) + ".\n",
        "Sso: Closing thread  " + id + " FD#" + std::to_string(fds.second) + ".\n",
        "Sso: Destroying sso environment.\n",
    }));
    EXPECT_EQ(fcntl(fds.first, F_GETFD), -1);
    EXPECT_EQ(fcntl(fds.second, F_GETFD), -1);
    // The host's descriptor is never closed by the library.
    EXPECT_NE(fcntl(host.libraryFd, F_GETFD), -1);
}

TEST(LifecycleTest, EndOfFileEndsTheWorkerAndInitializeRefusesUntilDestroy) {
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    std::string id = workerThreadId(log);
    host.closeHostEnd();
    ASSERT_TRUE(log.waitFor("Sso: WARNING! Worker thread " + id + " reaches EOF.\n"));
    EXPECT_TRUE(log.hasInOrder({"Sso: Worker thread " + id + " readed 0 bytes from FD#" +
                                    std::to_string(host.libraryFd) + ".\n",
                                "Sso: WARNING! Worker thread " + id + " reaches EOF.\n"}));
    WorkerHost other;
    EXPECT_EQ(other.start(), -1);
    EXPECT_TRUE(log.has("Sso: ERROR! Worker thread was created.\n"));
    host.stop();
    EXPECT_EQ(other.start(), 0);
}

TEST(LifecycleTest, ReadFailureClosesThePipeAndDestroyLeavesReusedNumbersAlone) {
    LogCapture log;
    // Reading a directory fails with EISDIR, while poll reports it readable.
    int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(directory, 0);
    ASSERT_EQ(SsoInitialize(directory), 0);
    auto fds = pipeNumbers(log);
    std::string id = workerThreadId(log);
    ASSERT_TRUE(log.waitFor("Sso: ERROR! Worker thread " + id +
                            " got internal error. Closing FD: " + std::to_string(fds.first) +
                            " and FD#" + std::to_string(fds.second) + ".\n"));
    EXPECT_TRUE(log.has("Sso: Worker thread " + id + " readed -1 bytes from FD#" +
                        std::to_string(directory) + ".\n"));
    // Wait for the worker to have closed both ends, then reuse exactly those numbers for a
    // pipe of our own (the kernel's choice of numbers is not ours to count on).
    for (int i = 0;
         i < 10000 && (fcntl(fds.first, F_GETFD) != -1 || fcntl(fds.second, F_GETFD) != -1); ++i) {
        usleep(1000);
    }
    ASSERT_EQ(fcntl(fds.first, F_GETFD), -1);
    ASSERT_EQ(fcntl(fds.second, F_GETFD), -1);
    // The pipe's ends first move above the two numbers, wherever the kernel put them.
    int made[2];
    ASSERT_EQ(pipe2(made, O_CLOEXEC), 0);
    int high[2] = {fcntl(made[0], F_DUPFD_CLOEXEC, 512), fcntl(made[1], F_DUPFD_CLOEXEC, 512)};
    close(made[0]);
    close(made[1]);
    ASSERT_GE(high[0], 512);
    ASSERT_GE(high[1], 512);
    int reused[2] = {dup3(high[0], fds.first, O_CLOEXEC), dup3(high[1], fds.second, O_CLOEXEC)};
    close(high[0]);
    close(high[1]);
    ASSERT_EQ(reused[0], fds.first);
    ASSERT_EQ(reused[1], fds.second);
    SsoDestroy();
    EXPECT_TRUE(log.has("Sso: Destroying sso environment.\n"));
    // Nothing was written to, or closed on, the reused numbers.
    EXPECT_NE(fcntl(reused[0], F_GETFD), -1);
    EXPECT_NE(fcntl(reused[1], F_GETFD), -1);
    fcntl(reused[0], F_SETFL, O_NONBLOCK);
    char byte;
    EXPECT_EQ(read(reused[0], &byte, 1), -1);
    close(reused[0]);
    close(reused[1]);
    close(directory);
    // And the library starts again afterwards.
    WorkerHost host;
    EXPECT_EQ(host.start(), 0);
}

TEST(LifecycleTest, InitDestroyInitDestroy) {
    LogCapture log;
    for (int round = 0; round < 3; ++round) {
        WorkerHost host;
        ASSERT_EQ(host.start(), 0);
        host.send("A|1|2\n");
        EXPECT_TRUE(log.waitFor("Sso: Command 'A' is incorrect.\n", round + 1));
        host.stop();
    }
}

TEST(LifecycleTest, StopMessageWinsOverPendingInput) {
    // Hold the worker inside its turn (in the log callback) while input and a stop message both
    // arrive; its next wait then sees both descriptors readable. Statements are delivered one at
    // a time, so nothing else may log while the worker is held: the stop bytes are written to
    // the internal pipe directly, as SsoDestroy would. The hook is in place before the worker
    // starts, and the worker is released however the test ends.
    std::atomic<bool> held{false};
    std::atomic<bool> released{false};
    LogCapture log;
    log.onLine = [&](std::string const &line) {
        if (!released && line.find(" got nullptr result. Writing abort.\n") != std::string::npos) {
            held = true;
            while (!released) {
                usleep(1000);
            }
        }
    };
    WorkerHost host;
    struct Release {
        std::atomic<bool> &released;
        ~Release() { released = true; }
    } release{released};
    ASSERT_EQ(host.start(), 0);
    auto fds = pipeNumbers(log);
    std::string id = workerThreadId(log);
    host.send("A\n");
    for (int i = 0; i < 5000 && !held; ++i) {
        usleep(1000);
    }
    ASSERT_TRUE(held);
    host.send("SSO_LOAD_CONFIGS\n");
    int32_t stop = 1;
    // Both writes are complete when they return: the worker's next wait sees both.
    ASSERT_EQ(write(fds.second, &stop, sizeof stop), 4);
    released = true;
    ASSERT_TRUE(log.waitFor("Sso: Worker thread " + id + " received exit message.\n"));
    host.stop();
    EXPECT_EQ(log.count("Sso: Worker thread " + id + " reading from FD#" +
                        std::to_string(host.libraryFd) + ".\n"),
              1u);
    EXPECT_FALSE(log.has("Sso: Extracted message: 'SSO_LOAD_CONFIGS'.\n"));
}

TEST(TimedOperationsTest, TicksCountTurnsAndWrapAfterTheTokenCleanup) {
    struct Row {
        int32_t before;
        int32_t after;
        std::vector<std::string> lines;
    } const rows[] = {
        {5998, 5999, {}},
        {5999, 6000, {"CurlRequest: Cleaning up handlers.\n"}},
        {6000, 6001, {}},
        {11999, 12000, {"CurlRequest: Cleaning up handlers.\n"}},
        // 30000 is a multiple of 6000: handlers only, and the count goes on.
        {29999, 30000, {"CurlRequest: Cleaning up handlers.\n"}},
        {30000,
         0,
         {"SsoServer: Clearing up old tokens.\n",
          "SsoServer: Token cleanup complete. Remaining tokens: 0.\n"}},
        {0, 1, {}},
    };
    // The engines exist before the first row, so that no row sees their first-use statements,
    // whichever test ran before this one.
    SsoServer::getServer();
    CurlRequest::getNetwork();
    for (auto const &row : rows) {
        LogCapture log;
        ticks = row.before;
        TimedOperations();
        EXPECT_EQ(ticks, row.after) << "from " << row.before;
        EXPECT_EQ(log.lines(), row.lines) << "from " << row.before;
    }
    ticks = 0;
}

}  // namespace
