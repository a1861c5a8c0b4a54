// Whole logins over HTTPS, with HTTP/2 offered by the provider, on each road the library has:
// discovery at the load, the background flows, and the blocking road; directly and through a
// forward proxy's CONNECT tunnel. The provider's certificate comes from the run's own CA,
// which the library trusts only because the system bundle holds it.
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestCa.h"
#include "tests/harness/TestMachine.h"
#include "tests/https/HttpsRoads.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class HttpsLoginTest : public HttpsRoads, public ::testing::WithParamInterface<bool> {
protected:
    bool viaProxy() const { return GetParam(); }

    // Loads the HTTPS provider on `on`, with the discovery road's own lines.
    void loadProvider(WorkerHost &on, bool refresh) {
        ASSERT_EQ(load(on, {providerEntry(refresh, viaProxy())}), "SSO_LOAD_CONFIGS_OK\n");
        std::string const discovery =
            LocalProvider::sharedHttps().baseUrl() + "/.well-known/openid-configuration";
        EXPECT_TRUE(log.hasInOrder({
            "SsoServer: Metadata URL is: '" + discovery + "'.\n",
            "CurlRequest: syncRequest called for URL: '" + discovery + "'.\n",
            "CurlRequest: Request completed with code: 0.\n",
            "SsoServer: Loading metadata for all configs - complete.\n",
        })) << log.text();
        EXPECT_TRUE(log.contains("CurlRequest: Sync request succeeded. Response size: "));
    }

    // The node JSON of a "SSO_GET_NODE_CONFIG" for `value`; through the proxy it also names
    // it under "proxy", the key the background node flow reads.
    std::string nodeConfig(std::string const &value) {
        host.send("SSO_GET_NODE_CONFIG|" + value + "\n");
        auto config = LoginChannel::nodeConfig(host.readLine(5000));
        EXPECT_EQ(config.second, value);
        if (!viaProxy() || config.first.empty()) {
            return config.first;
        }
        return "{\"proxy\":\"" + LocalProxy::shared().url() + "\"," + config.first.substr(1);
    }

    void TearDown() override {
        // Through the proxy the test made tunnels; a road may reuse a tunnel that another
        // opened (connections are kept alive), so only the whole test is sure to open one.
        if (TestCa::available() && !HasFatalFailure()) {
            if (viaProxy()) {
                EXPECT_GT(tunnels(), tunnelsAtStart_);
            } else {
                EXPECT_EQ(tunnels(), tunnelsAtStart_);
            }
        }
        HttpsRoads::TearDown();
    }

    static int tunnels() { return LocalProxy::shared().connections(); }
    // Directly, a road opened no tunnel since `before`.
    void expectTunnels(int before, char const *road) const {
        if (!viaProxy()) {
            EXPECT_EQ(tunnels(), before) << road;
        }
    }

private:
    int tunnelsAtStart_ = tunnels();
};

TEST_P(HttpsLoginTest, BackgroundFlowsLogInRefreshAndVerifyANode) {
    int before = tunnels();
    loadProvider(host, true);
    expectTunnels(before, "discovery");

    before = tunnels();
    std::string const session = LoginDriver::newSession();
    std::string code = authorize(host, 0, session);
    ASSERT_NE(code, "");
    log.clear();
    host.send("SSO_VERIFY|" + code + "|" + session + "\n");
    std::string reply = host.readLine(10000);
    std::string value = valueOf(reply, "SSO_VERIFY_OK", session);
    ASSERT_EQ(value.size(), 32u) << reply << log.text();
    EXPECT_EQ(reply, "SSO_VERIFY_OK|alice|" + value + "|" + std::to_string(kNow + 600) + "|" +
                         session + "\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async verify flow successfully for user session: '" + session + "'.\n",
        "CurlRequest: Token exchange successful queuing userinfo request.\n",
        "CurlRequest: Userinfo received processing with SsoServer.\n",
        "CurlRequest: Flow completed for session '" + session + "'.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Falling back to sync path"));
    expectTunnels(before, "verify flow");

    before = tunnels();
    log.clear();
    host.send("SSO_REFRESH|uuid-1|" + value + "\n");
    std::string refreshed = host.readLine(10000);
    std::string next = valueOf(refreshed, "SSO_REFRESH_OK", value);
    ASSERT_EQ(next.size(), 32u) << refreshed << log.text();
    EXPECT_NE(next, value);
    // A refresh flow goes by the session value it was asked for.
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(value)), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async refresh flow successfully for user session: '" + value + "'.\n",
        "CurlRequest: Token refresh successful queuing userinfo request.\n",
        "CurlRequest: Flow completed for session '" + value + "'.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Falling back to sync path"));
    expectTunnels(before, "refresh flow");

    std::string node = nodeConfig(next);
    ASSERT_NE(node, "");
    host.stop();
    TestMachine::node();
    WorkerHost nodeHost;
    ASSERT_EQ(nodeHost.start(), 0);
    before = tunnels();
    log.clear();
    nodeHost.send("SSO_NODE_VERIFY|" + node + "|" + next + "\n");
    EXPECT_EQ(nodeHost.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + next + "\n") << log.text();
    EXPECT_EQ(nodeHost.strayReplies(log, LoginChannel::drained(next)), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async node verify flow successfully for user session: '" + next + "'.\n",
        "CurlRequest: Node userinfo received processing with server operations.\n",
        "CurlRequest: Flow completed for session '" + next + "'.\n",
    })) << log.text();
    expectTunnels(before, "node verify flow");
}

TEST_P(HttpsLoginTest, RevocationOfALoginWithoutRefreshReachesTheProvider) {
    auto &provider = LocalProvider::sharedHttps();
    ASSERT_TRUE(provider.setRevocationBody(true));
    loadProvider(host, false);
    int revocations = provider.requestCount("/token/revocation");
    int before = tunnels();
    std::string const session = LoginDriver::newSession();
    std::string code = authorize(host, 0, session);
    ASSERT_NE(code, "");
    host.send("SSO_VERIFY|" + code + "|" + session + "\n");
    EXPECT_EQ(host.readLine(10000),
              "SSO_VERIFY_OK|alice|000|" + std::to_string(kNow + 600) + "|" + session + "\n")
        << log.text();
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
    EXPECT_EQ(provider.requestCount("/token/revocation"), revocations + 1);
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Refresh flow NOT set in configuration. Continuation of token revocation.\n",
        "SsoRequest: Sso request success.\n",
        "SsoServer: New session token created: '000'.\n",
    })) << log.text();
    expectTunnels(before, "verify flow with revocation");
}

TEST_P(HttpsLoginTest, BlockingRoadLogsInRefreshesAndVerifiesANode) {
    loadProvider(host, true);
    int before = tunnels();
    std::string const session = LoginDriver::newSession();
    std::string code = authorize(host, 0, session);
    ASSERT_NE(code, "");
    holdSession(host, session);
    log.clear();
    host.send("SSO_VERIFY|" + code + "|" + session + "\n");
    std::string reply = host.readLine(10000);
    std::string value = valueOf(reply, "SSO_VERIFY_OK", session);
    ASSERT_EQ(value.size(), 32u) << reply << log.text();
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync verify login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! Session already has active flow.\n",
        "Sso: Executing sync verify login for user session: '" + session + "'.\n",
        "SsoRequest: Sso request success.\n",
        "Sso: Sync verify login succeeded (failover).\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("SsoRequest: ERROR!"));
    releaseSession(host, session);
    expectTunnels(before, "blocking verify");

    before = tunnels();
    holdSession(host, value);
    log.clear();
    host.send("SSO_REFRESH|uuid-1|" + value + "\n");
    std::string refreshed = host.readLine(10000);
    std::string next = valueOf(refreshed, "SSO_REFRESH_OK", value);
    ASSERT_EQ(next.size(), 32u) << refreshed << log.text();
    EXPECT_EQ(host.strayReplies(log, "Sso: Sync refresh login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Executing sync refresh login for user session: '" + value + "'.\n",
        "SsoRequest: Sso request success.\n",
        "Sso: Sync refresh login succeeded (failover).\n",
    })) << log.text();
    releaseSession(host, value);
    expectTunnels(before, "blocking refresh");

    // The blocking node road reads the proxy under "qx_proxy", as the server writes it.
    host.send("SSO_GET_NODE_CONFIG|" + next + "\n");
    auto node = LoginChannel::nodeConfig(host.readLine(5000));
    ASSERT_NE(node.first, "");
    host.stop();
    TestMachine::node();
    WorkerHost nodeHost;
    ASSERT_EQ(nodeHost.start(), 0);
    before = tunnels();
    holdSession(nodeHost, next);
    log.clear();
    nodeHost.send("SSO_NODE_VERIFY|" + node.first + "|" + next + "\n");
    EXPECT_EQ(nodeHost.readLine(10000), "SSO_NODE_VERIFY_OK|alice|" + next + "\n") << log.text();
    EXPECT_EQ(nodeHost.strayReplies(log, "Sso: Sync node login succeeded (failover).\n"), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Executing sync node login for user session: '" + next + "'.\n",
        "SsoRequest: Sso request success.\n",
        "Sso: Sync node login succeeded (failover).\n",
    })) << log.text();
    releaseSession(nodeHost, next);
    expectTunnels(before, "blocking node verify");
}

INSTANTIATE_TEST_SUITE_P(Roads, HttpsLoginTest, ::testing::Values(false, true),
                         [](::testing::TestParamInfo<bool> const &info) {
                             return info.param ? "ThroughTheProxy" : "Directly";
                         });

}  // namespace
