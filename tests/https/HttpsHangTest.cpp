// Calls that hang at the HTTPS provider hold their connections for as long as it keeps them
// (flows have no timeout); a few such calls must not keep other logins to the same provider
// from passing, directly or through the proxy.
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LoginChannel.h"
#include "tests/https/HttpsRoads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kHung = 3;

class HttpsHangTest : public HttpsRoads, public ::testing::WithParamInterface<bool> {
protected:
    // `count` logins of `user` on configuration 0, signed in at the provider side by side: the
    // "SSO_VERIFY" commands, one a line ("" when a sign-in failed), and their sessions.
    std::string signIn(int count, std::string const &user, std::vector<std::string> &sessions) {
        std::vector<std::string> urls;
        for (int i = 0; i < count; ++i) {
            sessions.push_back(LoginDriver::newSession());
            LoginDriver::Authorization authorization;
            urls.push_back(LoginDriver::authorizationUrl(host, 0, sessions.back(), authorization));
            EXPECT_NE(urls.back(), "") << authorization.error;
        }
        auto results = LocalProvider::sharedHttps().loginAll(urls, user);
        std::string commands;
        for (int i = 0; i < count; ++i) {
            if (!results[i].ok || results[i].state != "state-" + sessions[i]) {
                ADD_FAILURE() << "sign-in " << i << ": " << results[i].error;
                return std::string();
            }
            commands += "SSO_VERIFY|" + results[i].code + "|" + sessions[i] + "\n";
        }
        return commands;
    }

    // The statement after which a "SSO_VERIFY" that started its flow leaves the reply to it.
    static std::string started(std::string const &session) {
        return "Sso: Started async verify flow successfully for user session: '" + session + "'.\n";
    }

    // WorkerHost::strayReplies once all the background logins of `sessions` are done.
    std::string strayReplies(std::vector<std::string> const &sessions) {
        for (size_t i = 0; i + 1 < sessions.size(); ++i) {
            if (!log.waitFor(LoginChannel::drained(sessions[i]), 1, 10000)) {
                return "<no closing statement: " + LoginChannel::drained(sessions[i]) + ">";
            }
        }
        return host.strayReplies(log, LoginChannel::drained(sessions.back()));
    }
};

TEST_P(HttpsHangTest, OtherLoginsPassWhileAFewCallsHangAtTheProvider) {
    auto &provider = LocalProvider::sharedHttps();
    ASSERT_EQ(load(host, {providerEntry(true, GetParam())}), "SSO_LOAD_CONFIGS_OK\n");

    // Three logins whose code exchange the provider holds.
    std::vector<std::string> hung;
    std::string commands = signIn(kHung, "alice", hung);
    ASSERT_NE(commands, "");
    ASSERT_TRUE(provider.hold(kHung));
    host.send(commands);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (provider.held() < kHung && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(provider.held(), kHung);
    // The last of them started its flow: from here on only the flows answer.
    EXPECT_EQ(host.strayReplies(log, started(hung.back())), "");

    // Meanwhile other people log in, one after another, and refresh.
    for (int i = 0; i < 3; ++i) {
        std::string const session = LoginDriver::newSession();
        std::string reply = LoginChannel::login(host, 0, session, "bob", &provider);
        std::string value = valueOf(reply, "SSO_VERIFY_OK", session, "bob");
        ASSERT_EQ(value.size(), 32u) << "login " << i << ": " << reply << log.text();
        EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
        if (i == 2) {
            host.send("SSO_REFRESH|uuid-" + std::to_string(i) + "|" + value + "\n");
            std::string refreshed = host.readLine(10000);
            EXPECT_EQ(refreshed.compare(0, 19, "SSO_REFRESH_OK|bob|"), 0) << refreshed;
            EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(value)), "");
        }
    }
    // And several at once.
    std::vector<std::string> sessions;
    commands = signIn(4, "user01", sessions);
    ASSERT_NE(commands, "");
    host.send(commands);
    std::set<std::string> answered;
    for (size_t i = 0; i < sessions.size(); ++i) {
        std::string reply = host.readLine(10000);
        auto token = LoginChannel::parse(reply);
        ASSERT_TRUE(token.ok) << reply << log.text();
        EXPECT_EQ(token.user, "user01");
        answered.insert(token.userSession);
    }
    EXPECT_EQ(answered, std::set<std::string>(sessions.begin(), sessions.end()));
    // Nothing more for these four, and still nothing for the held ones.
    EXPECT_EQ(strayReplies(sessions), "");
    EXPECT_EQ(provider.held(), kHung);

    // Let go, the held logins end with their own replies.
    EXPECT_EQ(provider.release(), kHung);
    answered.clear();
    for (int i = 0; i < kHung; ++i) {
        std::string reply = host.readLine(10000);
        auto token = LoginChannel::parse(reply);
        ASSERT_TRUE(token.ok) << reply << log.text();
        EXPECT_EQ(token.user, "alice");
        answered.insert(token.userSession);
    }
    EXPECT_EQ(answered, std::set<std::string>(hung.begin(), hung.end()));
    EXPECT_EQ(strayReplies(hung), "");
}

INSTANTIATE_TEST_SUITE_P(Roads, HttpsHangTest, ::testing::Values(false, true),
                         [](::testing::TestParamInfo<bool> const &info) {
                             return info.param ? "ThroughTheProxy" : "Directly";
                         });

}  // namespace
