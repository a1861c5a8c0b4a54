// No exception crosses into libcurl's C frames or the host's, no command gets two replies and
// none loses its reply: a throw in the write callback fails its transfer, a throw in the
// engine's socket or timer callback is caught up on the next turn, every export answers with
// its failure value, a throwing log callback is ignored, a drain that throws keeps its result,
// and a command whose flow has started is answered by that flow alone.
#include "platform/PlatformFakes.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace {

// Makes the allocation seam throw std::bad_alloc once at `where`, from when `armed` is set.
void allocationFailsOnceAt(std::string const &where, std::shared_ptr<std::atomic<bool>> armed) {
    PlatformFakes::allocation() = [where, armed](char const *place) {
        if (where == place && armed->exchange(false)) {
            throw std::bad_alloc();
        }
    };
}

// Makes the worker's step `name` throw once.
void stepThrowsOnceAt(std::string const &name) {
    auto thrown = std::make_shared<std::atomic<bool>>(false);
    PlatformFakes::workerStep() = [name, thrown](char const *step) {
        if (name == step && !thrown->exchange(true)) {
            throw std::runtime_error("injected fault");
        }
    };
}

class ExceptionBoundaryTest : public ::testing::Test {
protected:
    void SetUp() override {
        idp.on("/me", 200, "{\"email\":\"ann@b.test\"}");
        TestMachine::node();
    }
    void TearDown() override {
        host.stop();
        TestMachine::reset();
    }

    std::string nodeVerify(std::string const &session) {
        return "SSO_NODE_VERIFY|{\"access_token\":\"at-1\",\"provider\":\"keycloak\","
               "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
               idp.url("/me") + "\"}|" + session + "\n";
    }

    LogCapture log;
    WorkerHost host;
    FailureServer idp;
};

TEST_F(ExceptionBoundaryTest, AWriteCallbackThatThrowsFailsItsTransferAndItsFlow) {
    auto armed = std::make_shared<std::atomic<bool>>(false);
    allocationFailsOnceAt("CurlRequest write", armed);
    ASSERT_EQ(host.start(), 0);
    armed->store(true);
    host.send(nodeVerify("s-write"));
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_FAILURE|s-write\n") << log.text();
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Failed to store response: 'std::bad_alloc'.\n",
        "CurlRequest: Transfer completed, HTTP 200.\n",
        "CurlRequest: ERROR! Curl error: Failed writing received data to disk/application.\n",
        "Sso: Async flow failed: 'Curl error: Failed writing received data to disk/application' "
        "HTTP: 200.\n",
    })) << log.text();
    // The next login reads its answer as usual.
    host.send(nodeVerify("s-after"));
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|ann|s-after\n") << log.text();
}

TEST_F(ExceptionBoundaryTest, EngineCallbacksThatThrowAreCaughtUpOnTheNextTurn) {
    for (std::string const where : {"CurlRequest socket", "CurlRequest timer"}) {
        SCOPED_TRACE(where);
        auto armed = std::make_shared<std::atomic<bool>>(false);
        allocationFailsOnceAt(where, armed);
        ASSERT_EQ(host.start(), 0);
        log.clear();
        armed->store(true);
        host.send(nodeVerify("s-callback"));
        EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|ann|s-callback\n") << log.text();
        EXPECT_EQ(host.repliesBeforeFence(), "");
        std::string const what = where == "CurlRequest socket" ? "Socket" : "Timer";
        EXPECT_EQ(
            log.count("CurlRequest: ERROR! " + what + " callback failed: 'std::bad_alloc'.\n"), 1u)
            << log.text();
        host.stop();
    }
}

TEST_F(ExceptionBoundaryTest, EveryExportAnswersWithItsFailureValue) {
    struct Row {
        char const *name;
        std::function<bool()> failed;  // calls the export; whether it gave its failure value
    };
    void *none = nullptr;
    Row const rows[] = {
        {"SsoGetUserLoginOptions", [] { return SsoGetUserLoginOptions() == nullptr; }},
        {"SsoGetUserSession", [] { return SsoGetUserSession() == nullptr; }},
        {"SsoLoginUrl", [] { return SsoLoginUrl("a|b|c|d|e") == nullptr; }},
        {"SsoLogin", [] { return SsoLogin("a|b|c|d|e", [](char const *) {}) == -1; }},
        {"SsoInitialize", [this] { return SsoInitialize(host.libraryFd) == -1; }},
        {"SsoDestroy",
         [] {
             SsoDestroy();
             return true;
         }},
        {"TimedOperations",
         [] {
             TimedOperations();
             return true;
         }},
        {"SsoSetLogCallback",
         [] {
             SsoSetLogCallback(nullptr, nullptr);
             return true;
         }},
        {"loop", [none] { return loop(none) == nullptr; }},
    };
    for (auto const &row : rows) {
        SCOPED_TRACE(row.name);
        auto armed = std::make_shared<std::atomic<bool>>(true);
        allocationFailsOnceAt(row.name, armed);
        log.clear();
        EXPECT_TRUE(row.failed());
        EXPECT_FALSE(armed->load());
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{"Sso: ERROR! Function '" + std::string(row.name) +
                                           "' failed: 'std::bad_alloc'.\n"});
    }
    PlatformFakes::allocation() = nullptr;
    // The log callback stayed in place (its setter threw before it changed anything).
    char *session = SsoGetUserSession();
    EXPECT_NE(session, nullptr);
    SsoFreeString(session);
    EXPECT_FALSE(log.lines().empty());
}

std::atomic<int> throwingCalls{0};

void throwingCallback(char const *, void *) {
    ++throwingCalls;
    throw std::runtime_error("host callback");
}

TEST_F(ExceptionBoundaryTest, ALogCallbackThatThrowsIsIgnored) {
    SsoSetLogCallback(throwingCallback, nullptr);
    char *session = SsoGetUserSession();
    EXPECT_NE(session, nullptr);
    SsoFreeString(session);
    ASSERT_EQ(host.start(), 0);
    host.send(nodeVerify("s-callback-throws"));
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|ann|s-callback-throws\n");
    host.stop();
    SsoSetLogCallback(nullptr, nullptr);
    EXPECT_GT(throwingCalls.load(), 10);
}

TEST_F(ExceptionBoundaryTest, ADrainThatThrowsKeepsItsResultForTheNextTurn) {
    stepThrowsOnceAt("Reply of a finished flow");
    ASSERT_EQ(host.start(), 0);
    host.send(nodeVerify("s-drain"));
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|ann|s-drain\n") << log.text();
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: ERROR! Drain of finished flows failed: 'injected fault'.\n",
        "Sso: Processing completed async flow for session: 's-drain'.\n",
        "Sso: Response is: SSO_NODE_VERIFY_OK|ann|s-drain\n.\n",
    })) << log.text();
}

TEST_F(ExceptionBoundaryTest, ACommandWhoseFlowStartedIsAnsweredByTheFlowAlone) {
    stepThrowsOnceAt("Flow started");
    ASSERT_EQ(host.start(), 0);
    host.send(nodeVerify("s-started"));
    EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_OK|ann|s-started\n") << log.text();
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: ERROR! Command 'SSO_NODE_VERIFY' failed: 'injected fault'.\n",
        "Sso: Processing completed async flow for session: 's-started'.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("SSO_NODE_VERIFY_FAILURE"));
}

}  // namespace
