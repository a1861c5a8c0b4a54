// What a careless host cannot break: SsoDestroy from inside the log callback on the worker's
// own thread, a start whose second request object fails to initialize, and a dlclose() of the
// library while the worker runs.
#include "tests/harness/ChildProcess.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "transport/SsoRequest.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <string>
#include <vector>

namespace {

TEST(HostSafetyTest, DestroyFromTheLogCallbackOnTheWorkerThreadDoesNothing) {
    LogCapture log;
    WorkerHost host;
    std::atomic<int> calls{0};
    log.onLine = [&calls](std::string const &line) {
        if (line == "Sso: Execute command: 'SSO_GET_NODE_CONFIG'.\n") {
            ++calls;
            SsoDestroy();
        }
    };
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    std::string const id = workerThreadId(log);
    host.send("SSO_GET_NODE_CONFIG|s-1\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|s-1\n") << log.text();
    host.send("SSO_GET_NODE_CONFIG|s-2\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|s-2\n") << log.text();
    EXPECT_EQ(calls.load(), 2);
    // Not a line of SsoDestroy's own: neither its warning nor its stop.
    EXPECT_FALSE(log.contains("Sso: Worker thread ID is ")) << log.text();
    EXPECT_FALSE(log.contains("Sso: WARNING! Worker thread was not created.")) << log.text();
    host.stop();
    EXPECT_EQ(log.count("Sso: Worker thread ID is " + id + ".\n"), 1u) << log.text();
    TestMachine::reset();
}

TEST(HostSafetyTest, AFailedSecondRequestInitializationLeavesAStartAfterItClean) {
    LogCapture log;
    WorkerHost host;
    TestMachine::node();
    // Already initialized, so that the start's own initialization of it fails.
    ASSERT_TRUE(SsoRequest::getNetwork().init(CURL_GLOBAL_ALL));
    log.clear();
    EXPECT_EQ(host.start(), -1);
    EXPECT_TRUE(log.hasInOrder({
        "SsoActions: CurlRequest initialized successfully.\n",
        "SsoActions: Initializing SsoRequest.\n",
        "SsoRequest: ERROR! Attempting to initialze libcurl twice.\n",
        "SsoActions: ERROR! SsoRequest initialization failed.\n",
        "CurlRequest: Clean up.\n",
        "Sso: ERROR! Can't initialize sso environment.\n",
    })) << log.text();
    SsoRequest::getNetwork().cleanUp();
    log.clear();
    ASSERT_EQ(host.start(), 0) << log.text();
    EXPECT_FALSE(log.contains("CurlRequest: ERROR! Already initialized."));
    host.send("SSO_GET_NODE_CONFIG|s-1\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|s-1\n");
    host.stop();
    TestMachine::reset();
}

TEST(HostSafetyTest, DlcloseWhileTheWorkerRunsLeavesTheLibraryLoaded) {
    TestMachine::node();
    ChildProcess child;
    ASSERT_TRUE(child.start(
        {QXSS_DLCLOSE_HOST, QXSS_SHARED_LIBRARY, QXSS_DLCLOSE_MODULE, TestMachine::configDir()}));
    EXPECT_EQ(child.waitForLine("LIBRARY STAYS ", 20000), "LOADED");
    EXPECT_EQ(child.waitForLine("STILL ", 20000), "LOADED");
    EXPECT_EQ(child.waitForLine("ANSWERED AFTER ", 20000), "DLCLOSE");
    int status = child.waitForExit(20000);
    ASSERT_NE(status, -1) << "the host did not end";
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    TestMachine::reset();
}

}  // namespace
