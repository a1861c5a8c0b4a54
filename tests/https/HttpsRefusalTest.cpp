// A provider whose certificate comes from a CA the system does not trust, or names another
// host, is refused on every road: discovery, each background flow and each blocking request.
// The scripted provider behind the bad certificate would answer every call; only the
// certificate stands in the way.
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestCa.h"
#include "tests/harness/TestMachine.h"
#include "tests/https/HttpsRoads.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

namespace {

struct BadCertificate {
    char const *name;
    std::string (*certificate)();
    std::string (*key)();
    // What libcurl's error buffer says about it.
    char const *problem;
};

BadCertificate const kUntrusted = {"FromAnUntrustedCa", &TestCa::untrustedPem,
                                   &TestCa::untrustedKey,
                                   "SSL certificate problem: unable to get local issuer certificate"};
BadCertificate const kOtherHost = {
    "ForAnotherHostName", &TestCa::otherHostPem, &TestCa::otherHostKey,
    "SSL: no alternative certificate subject name matches target host name '127.0.0.1'"};

// GoogleTest names a failing case's parameter by this.
void PrintTo(BadCertificate const &bad, std::ostream *out) {
    *out << bad.name;
}

// What libcurl's error code says about either (CURLE_PEER_FAILED_VERIFICATION).
std::string const kPeerFailed = "SSL peer certificate or SSH remote key was not OK";

class HttpsRefusalTest : public HttpsRoads, public ::testing::WithParamInterface<BadCertificate> {
protected:
    void SetUp() override {
        HttpsRoads::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        bad = std::make_unique<FailureServer>(GetParam().certificate(), GetParam().key());
        ASSERT_NE(bad->port, 0);
        // Everything a provider would answer, so that only the certificate can refuse.
        LoginChannel::serveDiscovery(*bad);
        bad->on("/token", 200, LoginChannel::tokens("at-1", "it-1", "rt-1"));
        bad->on("/me", 200, "{\"email\":\"alice@example.com\",\"preferred_username\":\"alice\"}");
        bad->on("/revoke", 200, "{}");
        // A trusted front whose discovery sends every call to the bad server.
        front = std::make_unique<FailureServer>(TestCa::serverPem(), TestCa::serverKey());
        ASSERT_NE(front->port, 0);
        LoginChannel::serveDiscovery(*front, bad->url());
    }

    LoginDriver::Entry entryAt(FailureServer const &server) const {
        LoginDriver::Entry entry = LoginChannel::entryFor(server, "keycloak");
        entry.lifetime = 600;
        return entry;
    }

    std::string problem() const { return GetParam().problem; }
    // Nothing of a refused connection reached the scripted provider.
    void expectNothingServed() const {
        for (auto const &request : bad->requests()) {
            ADD_FAILURE() << "served " << request.method << " " << request.target;
        }
    }

    std::unique_ptr<FailureServer> bad;
    std::unique_ptr<FailureServer> front;
};

TEST_P(HttpsRefusalTest, DiscoveryFailsTheLoad) {
    ASSERT_EQ(load(host, {entryAt(*bad)}), "SSO_LOAD_METADATA_FAILURE\n");
    EXPECT_EQ(host.readFor(300), "");
    std::string const url = bad->url("/.well-known/openid-configuration");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: syncRequest called for URL: '" + url + "'.\n",
        "CurlRequest: Request completed with code: 60.\n",
        "CurlRequest: ERROR! Sync request failed: '" + problem() + "' (code: 60)\n",
        "SsoServer: ERROR! Metadata response is empty.\n",
        "SsoServer: ERROR! Loading metadata for config with ID: 0 failed.\n",
        "SsoActions: ERROR! Loading configuration metadata failed.\n",
    })) << log.text();
    expectNothingServed();
}

TEST_P(HttpsRefusalTest, BackgroundFlowsFail) {
    // A refresh record for the bad provider, in place before the worker runs.
    SsoServer::getServer().refreshInfoBySession["refresh-value-1"] =
        OAuthRefreshInfo{0, kNow, "rt-0", "at-0"};
    ASSERT_EQ(load(host, {entryAt(*front)}), "SSO_LOAD_CONFIGS_OK\n");
    std::string const session = LoginChannel::session("refused-verify");
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    std::vector<std::string> const failed = {
        "CurlRequest: ERROR! Curl error: " + kPeerFailed + ".\n",
        "CurlRequest: ERROR! 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
    };

    log.clear();
    host.send("SSO_VERIFY|code-1|" + session + "\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async verify flow successfully for user session: '" + session + "'.\n",
        failed[0],
        failed[1],
        "Sso: Async flow failed: 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
    })) << log.text();

    log.clear();
    host.send("SSO_REFRESH|uuid-1|refresh-value-1\n");
    EXPECT_EQ(host.readLine(10000), "SSO_REFRESH_FAILURE|refresh-value-1\n");
    EXPECT_EQ(host.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async refresh flow successfully for user session: 'refresh-value-1'.\n",
        failed[0],
        failed[1],
        "Sso: Async flow failed: 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
    })) << log.text();

    host.stop();
    TestMachine::node();
    WorkerHost node;
    ASSERT_EQ(node.start(), 0);
    log.clear();
    node.send("SSO_NODE_VERIFY|{\"access_token\":\"at-1\",\"provider\":\"keycloak\","
              "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
              bad->url("/me") + "\"}|node-session\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_FAILURE|node-session\n");
    EXPECT_EQ(node.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Started async node verify flow successfully for user session: 'node-session'.\n",
        failed[0],
        failed[1],
        "Sso: Async flow failed: 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
    })) << log.text();
    expectNothingServed();
}

TEST_P(HttpsRefusalTest, BlockingRoadFails) {
    SsoServer::getServer().refreshInfoBySession["refresh-value-2"] =
        OAuthRefreshInfo{0, kNow, "rt-0", "at-0"};
    ASSERT_EQ(load(host, {entryAt(*front)}), "SSO_LOAD_CONFIGS_OK\n");
    std::string const refused =
        "SsoRequest: ERROR! Sso request failed. CURL error message: '" + problem() + "'.\n";

    std::string const session = LoginChannel::session("refused-blocking-verify");
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);
    holdSession(host, session);
    log.clear();
    host.send("SSO_VERIFY|code-1|" + session + "\n");
    EXPECT_EQ(host.readLine(10000), "SSO_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(host.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Executing sync verify login for user session: '" + session + "'.\n",
        refused,
        "Sso: ERROR! Sync verify login also failed.\n",
    })) << log.text();
    releaseSession(host, session);

    holdSession(host, "refresh-value-2");
    log.clear();
    host.send("SSO_REFRESH|uuid-1|refresh-value-2\n");
    EXPECT_EQ(host.readLine(10000), "SSO_REFRESH_FAILURE|refresh-value-2\n");
    EXPECT_EQ(host.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Executing sync refresh login for user session: 'refresh-value-2'.\n",
        refused,
        "Sso: ERROR! Sync refresh login also failed.\n",
    })) << log.text();
    releaseSession(host, "refresh-value-2");

    host.stop();
    TestMachine::node();
    WorkerHost node;
    ASSERT_EQ(node.start(), 0);
    holdSession(node, "node-session");
    log.clear();
    node.send("SSO_NODE_VERIFY|{\"access_token\":\"at-1\",\"provider\":\"keycloak\","
              "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
              bad->url("/me") + "\"}|node-session\n");
    EXPECT_EQ(node.readLine(10000), "SSO_NODE_VERIFY_FAILURE|node-session\n");
    EXPECT_EQ(node.readFor(300), "");
    EXPECT_TRUE(log.hasInOrder({
        "Sso: Executing sync node login for user session: 'node-session'.\n",
        refused,
        "Sso: ERROR! Sync node login also failed.\n",
    })) << log.text();
    releaseSession(node, "node-session");
    expectNothingServed();
}

INSTANTIATE_TEST_SUITE_P(Certificates, HttpsRefusalTest, ::testing::Values(kUntrusted, kOtherHost),
                         [](::testing::TestParamInfo<BadCertificate> const &info) {
                             return std::string(info.param.name);
                         });

}  // namespace
