// A provider, or a user who may edit the claim that names them, cannot forge a reply line for
// another login or cut a token short: a user name with a control character fails the login on
// every road (background and blocking verify, refresh and node verify) with one failure line.
// Names with "|" and UTF-8 still log in.
#include "platform/PlatformFakes.h"
#include "server/OAuthRefreshInfo.h"
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/HeldSession.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr int64_t kNow = 1750000000;

std::string const refused = "SsoServer: ERROR! User name holds a control character.\n";

// The claim of the report: a second reply line for another pending login.
std::string const forging =
    "{\"email\":\"evil@b.test\\nSSO_VERIFY_OK|admin|x|1|other-session-------------------\"}";
std::string const cutting = "{\"email\":\"a\\u0000b@b.test\"}";

enum class Road { Background, Blocking };

class HostileUserTest : public ::testing::TestWithParam<std::tuple<Road, std::string>> {
protected:
    void SetUp() override {
        PlatformFakes::clock() = [] { return kNow; };
        LoginChannel::serveDiscovery(idp);
        idp.on("/token", 200, LoginChannel::tokens("at-1", "id-1", "rt-1"));
        idp.on("/me", 200, std::get<1>(GetParam()));
    }
    void TearDown() override {
        host.stop();
        held.release();
        SsoServer::getServer().clearConfigs();
        TestMachine::reset();
    }

    bool blocking() const { return std::get<0>(GetParam()) == Road::Blocking; }

    void startServer() {
        LoginDriver::Entry entry = LoginChannel::entryFor(idp, "keycloak");
        entry.userType = "domain";
        ASSERT_EQ(LoginChannel::startServer(host, {entry}), "SSO_LOAD_CONFIGS_OK\n") << log.text();
    }

    // On the blocking road, a background flow for `session` that never ends keeps the
    // command's own flow from starting.
    void holdForBlockingRoad(std::string const &session) {
        if (!blocking()) {
            return;
        }
        ASSERT_TRUE(held.hold(host, log, session)) << log.text();
    }

    // Sends `command`; its one reply must be `failure`, for the refused user.
    void expectRefused(std::string const &command, std::string const &failure,
                       std::string const &session) {
        log.clear();
        host.send(command);
        EXPECT_EQ(host.readLine(10000), failure) << log.text();
        if (blocking()) {
            EXPECT_TRUE(log.contains("Falling back to sync path")) << log.text();
            held.release();
            EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
        } else {
            EXPECT_FALSE(log.contains("Falling back to sync path")) << log.text();
        }
        EXPECT_EQ(host.repliesBeforeFence(), "");
        EXPECT_EQ(log.count(refused), 1u) << log.text();
        EXPECT_FALSE(log.contains("SsoServer: User from userinfo response: ")) << log.text();
        // The provider's answer stands in the log as it came; no reply line holds its name.
        for (auto const &line : log.lines()) {
            if (line.find("writing result: ") != std::string::npos ||
                line.compare(0, 18, "Sso: Response is: ") == 0) {
                EXPECT_EQ(line.find("admin"), std::string::npos) << line;
            }
        }
    }

    LogCapture log;
    WorkerHost host;
    FailureServer idp;
    HeldSession held;
};

TEST_P(HostileUserTest, VerifyFails) {
    startServer();
    std::string const session = LoginChannel::session("hostile-verify");
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    std::string config = host.readLine();
    ASSERT_EQ(config.compare(0, 18, "SSO_GET_CONFIG_OK|"), 0) << config;
    holdForBlockingRoad(session);
    expectRefused("SSO_VERIFY|code-1|" + session + "\n", "SSO_VERIFY_FAILURE|" + session + "\n",
                  session);
}

TEST_P(HostileUserTest, RefreshFails) {
    std::string const value = LoginChannel::session("hostile-refresh-value");
    // The record that a login left.
    SsoServer::getServer().refreshInfoBySession[value] = OAuthRefreshInfo{0, kNow, "rt-0", "at-0"};
    startServer();
    holdForBlockingRoad(value);
    expectRefused("SSO_REFRESH|uuid-1|" + value + "\n", "SSO_REFRESH_FAILURE|" + value + "\n",
                  value);
}

TEST_P(HostileUserTest, NodeVerifyFails) {
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    std::string const session = "hostile-node";
    holdForBlockingRoad(session);
    expectRefused(
        "SSO_NODE_VERIFY|{\"access_token\":\"at-1\",\"provider\":\"keycloak\","
        "\"qx_user_type\":\"domain\",\"userinfo_uri\":\"" +
            idp.url("/me") + "\"}|" + session + "\n",
        "SSO_NODE_VERIFY_FAILURE|" + session + "\n", session);
}

INSTANTIATE_TEST_SUITE_P(EveryRoad, HostileUserTest,
                         ::testing::Combine(::testing::Values(Road::Background, Road::Blocking),
                                            ::testing::Values(forging, cutting)),
                         [](::testing::TestParamInfo<std::tuple<Road, std::string>> const &info) {
                             return std::string(std::get<0>(info.param) == Road::Blocking
                                                    ? "Blocking"
                                                    : "Background") +
                                    (std::get<1>(info.param) == forging ? "LineBreak" : "Nul");
                         });

TEST(HostileUserNamesTest, BarsAndUtf8StillLogIn) {
    LogCapture log;
    WorkerHost host;
    FailureServer idp;
    LoginChannel::serveDiscovery(idp);
    idp.on("/token", 200, LoginChannel::tokens("at-1", "id-1", "rt-1"));
    idp.on("/me", 200, "{\"email\":\"zo\\u00eb|x@b.test\"}");
    LoginDriver::Entry entry = LoginChannel::entryFor(idp, "keycloak");
    entry.userType = "domain";
    ASSERT_EQ(LoginChannel::startServer(host, {entry}), "SSO_LOAD_CONFIGS_OK\n");
    std::string const session = LoginChannel::session("bar-and-utf8");
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    ASSERT_EQ(host.readLine().compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    host.send("SSO_VERIFY|code-1|" + session + "\n");
    std::string reply = host.readLine(10000);
    // The user token's fields are taken from the right: the name keeps its bar.
    std::string const start = "SSO_VERIFY_OK|zo\xc3\xab|x@b.test|";
    EXPECT_EQ(reply.compare(0, start.size(), start), 0) << reply << log.text();
    EXPECT_EQ(reply.substr(reply.size() - session.size() - 2), "|" + session + "\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_FALSE(log.has(refused));
    host.stop();
    TestMachine::reset();
}

}  // namespace
