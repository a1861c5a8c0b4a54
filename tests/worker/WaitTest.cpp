// The worker's wait wakes for background transfers: a flow's next step follows the provider's
// answer at once, not at the end of an idle turn.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

// How long the worker's wait lasts when nothing wakes it (worker/Loop.cpp).
constexpr double kIdleTurnMs = 50;
constexpr int kRounds = 10;

// What the worker's own times between the provider's answers and its next steps may add up to.
// A worker that wakes only for its channel takes up each answer at the end of the idle turn it
// is in, half a turn later on average: `gaps` such waits add up to about gaps * turn / 2. A
// worker that wakes for the transfer acts within a step's work. On a loaded machine a step
// takes longer, and so do the provider's answers and the worker's answer to a command on its
// channel, which wakes it in any case: the allowance is a quarter turn per gap plus the
// provider's answer times and twice the channel's answer times of the same rounds.
double allowedMs(int gaps, Clock::duration providerTime, Clock::duration channelTime) {
    return gaps * kIdleTurnMs / 4 + Milliseconds(providerTime).count() +
           2 * Milliseconds(channelTime).count();
}

// The provider's own time for its answers: from reading a request whole to sending its answer.
Clock::duration answerTimes(std::vector<FailureServer::Request> const &requests) {
    Clock::duration total = Clock::duration::zero();
    for (auto const &request : requests) {
        total += request.answered - request.received;
    }
    return total;
}

// How long the worker takes to answer a command on its channel (the fence, answered at once),
// `times` times over: what a step of the worker costs on this machine now.
Clock::duration channelTimes(WorkerHost &host, int times) {
    Clock::duration total = Clock::duration::zero();
    for (int i = 0; i < times; ++i) {
        auto sent = Clock::now();
        EXPECT_EQ(host.repliesBeforeFence(), "");
        total += Clock::now() - sent;
    }
    return total;
}

TEST(WaitTest, AFlowsReplyFollowsTheProvidersAnswerClosely) {
    TestMachine::node();
    FailureServer provider;
    ASSERT_NE(provider.port, 0);
    provider.on("/me", 200, "{\"email\":\"ann@example.com\"}");
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    std::string node = "{\"access_token\":\"t\",\"userinfo_uri\":\"" + provider.url("/me") +
                       "\",\"qx_user_type\":\"domain\"}";
    Clock::duration idle = Clock::duration::zero();
    Clock::duration channel = Clock::duration::zero();
    for (int i = 0; i < kRounds; ++i) {
        std::string session = "s" + std::to_string(i);
        host.send("SSO_NODE_VERIFY|" + node + "|" + session + "\n");
        ASSERT_EQ(host.readLine(), "SSO_NODE_VERIFY_OK|ann@example.com|" + session + "\n");
        auto replied = Clock::now();
        auto requests = provider.requests();
        ASSERT_EQ(requests.size(), static_cast<size_t>(i + 1));
        idle += replied - requests.back().answered;
        channel += channelTimes(host, 1);
    }
    EXPECT_LT(Milliseconds(idle).count(),
              allowedMs(kRounds, answerTimes(provider.requests()), channel))
        << "the wait does not wake for the transfers";
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained("s" + std::to_string(kRounds - 1))), "");
    host.stop();
    TestMachine::reset();
}

// A login's two calls: the userinfo call follows the token answer, and the reply follows the
// userinfo answer, with no idle turn between.
TEST(WaitTest, ALoginsReplyFollowsTheProvidersAnswersClosely) {
    FailureServer idp;
    ASSERT_NE(idp.port, 0);
    LoginChannel::serveDiscovery(idp);
    idp.on("/token", 200, LoginChannel::tokens("at-ann", "it-ann", "rt-ann"));
    idp.on("/me", 200, "{\"email\":\"ann@example.com\"}");
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(LoginChannel::startServer(host, {LoginChannel::entryFor(idp, "keycloak")}),
              "SSO_LOAD_CONFIGS_OK\n");
    Clock::duration idle = Clock::duration::zero();
    Clock::duration providerTime = Clock::duration::zero();
    Clock::duration channel = Clock::duration::zero();
    std::string session;
    for (int i = 0; i < kRounds; ++i) {
        session = LoginChannel::session("waiting-login-" + std::to_string(i));
        host.send("SSO_GET_CONFIG|0|" + session + "\n");
        ASSERT_EQ(host.readLine().compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
        size_t before = idp.requests().size();
        host.send("SSO_VERIFY|code-" + std::to_string(i) + "|" + session + "\n");
        std::string reply = host.readLine();
        auto replied = Clock::now();
        auto token = LoginChannel::parse(reply);
        ASSERT_TRUE(token.ok) << reply;
        EXPECT_EQ(token.userSession, session);
        auto requests = idp.requests();
        ASSERT_EQ(requests.size(), before + 2);
        ASSERT_EQ(requests[before].target, "/token");
        ASSERT_EQ(requests[before + 1].target, "/me");
        // The worker's own time between the provider's answers and its next steps.
        idle += (requests[before + 1].received - requests[before].answered) +
                (replied - requests[before + 1].answered);
        providerTime += answerTimes({requests[before], requests[before + 1]});
        channel += channelTimes(host, 2);
    }
    EXPECT_LT(Milliseconds(idle).count(), allowedMs(2 * kRounds, providerTime, channel))
        << "the wait does not wake for the transfers";
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    host.stop();
    TestMachine::reset();
}

}  // namespace
