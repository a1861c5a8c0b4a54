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

BadCertificate const kUntrusted = {
    "FromAnUntrustedCa", &TestCa::untrustedPem, &TestCa::untrustedKey,
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

    // A node configuration whose userinfo endpoint is the bad server.
    std::string nodeJson() const {
        return "{\"access_token\":\"at-1\",\"provider\":\"keycloak\",\"qx_user_type\":\"local\","
               "\"userinfo_uri\":\"" +
               bad->url("/me") + "\"}";
    }

    // `command` for `session` starts its `flow` ("verify", "refresh", "node verify"), which
    // fails at the certificate: `failure` is its only reply.
    void expectFlowRefused(WorkerHost &on, std::string const &command, std::string const &failure,
                           std::string const &flow, std::string const &session) {
        SCOPED_TRACE(command);
        log.clear();
        on.send(command + "\n");
        EXPECT_EQ(on.readLine(10000), failure + "\n");
        EXPECT_EQ(on.strayReplies(log, LoginChannel::drained(session)), "");
        EXPECT_TRUE(log.hasInOrder({
            "Sso: Started async " + flow + " flow successfully for user session: '" + session +
                "'.\n",
            "CurlRequest: ERROR! Curl error: " + kPeerFailed + ".\n",
            "CurlRequest: ERROR! 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
            "Sso: Async flow failed: 'Curl error: " + kPeerFailed + "' HTTP: 0.\n",
        })) << log.text();
    }

    // `command` for `session`, whose flow is held, takes the blocking road of `login`
    // ("verify", "refresh", "node"), which fails at the certificate: `failure` is its reply.
    void expectBlockingRefused(WorkerHost &on, std::string const &command,
                               std::string const &failure, std::string const &login,
                               std::string const &session) {
        SCOPED_TRACE(command);
        holdSession(on, session);
        log.clear();
        on.send(command + "\n");
        EXPECT_EQ(on.readLine(10000), failure + "\n");
        EXPECT_EQ(on.strayReplies(log, "Sso: ERROR! Sync " + login + " login also failed.\n"), "");
        EXPECT_TRUE(log.hasInOrder({
            "Sso: Executing sync " + login + " login for user session: '" + session + "'.\n",
            "SsoRequest: ERROR! Sso request failed. CURL error message: '" + problem() + "'.\n",
            "Sso: ERROR! Sync " + login + " login also failed.\n",
        })) << log.text();
        releaseSession(on, session);
    }

    std::unique_ptr<FailureServer> bad;
    std::unique_ptr<FailureServer> front;
};

TEST_P(HttpsRefusalTest, DiscoveryFailsTheLoad) {
    ASSERT_EQ(load(host, {entryAt(*bad)}), "SSO_LOAD_METADATA_FAILURE\n");
    EXPECT_EQ(host.strayReplies(log, "SsoActions: ERROR! Loading configuration metadata failed.\n"),
              "");
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

    expectFlowRefused(host, "SSO_VERIFY|code-1|" + session, "SSO_VERIFY_FAILURE|" + session,
                      "verify", session);
    expectFlowRefused(host, "SSO_REFRESH|uuid-1|refresh-value-1",
                      "SSO_REFRESH_FAILURE|refresh-value-1", "refresh", "refresh-value-1");
    host.stop();
    TestMachine::node();
    WorkerHost node;
    ASSERT_EQ(node.start(), 0);
    expectFlowRefused(node, "SSO_NODE_VERIFY|" + nodeJson() + "|node-session",
                      "SSO_NODE_VERIFY_FAILURE|node-session", "node verify", "node-session");
    expectNothingServed();
}

TEST_P(HttpsRefusalTest, BlockingRoadFails) {
    SsoServer::getServer().refreshInfoBySession["refresh-value-2"] =
        OAuthRefreshInfo{0, kNow, "rt-0", "at-0"};
    ASSERT_EQ(load(host, {entryAt(*front)}), "SSO_LOAD_CONFIGS_OK\n");
    std::string const session = LoginChannel::session("refused-blocking-verify");
    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    ASSERT_EQ(host.readLine(5000).compare(0, 18, "SSO_GET_CONFIG_OK|"), 0);

    expectBlockingRefused(host, "SSO_VERIFY|code-1|" + session, "SSO_VERIFY_FAILURE|" + session,
                          "verify", session);
    expectBlockingRefused(host, "SSO_REFRESH|uuid-1|refresh-value-2",
                          "SSO_REFRESH_FAILURE|refresh-value-2", "refresh", "refresh-value-2");
    host.stop();
    TestMachine::node();
    WorkerHost node;
    ASSERT_EQ(node.start(), 0);
    expectBlockingRefused(node, "SSO_NODE_VERIFY|" + nodeJson() + "|node-session",
                          "SSO_NODE_VERIFY_FAILURE|node-session", "node", "node-session");
    expectNothingServed();
}

INSTANTIATE_TEST_SUITE_P(Certificates, HttpsRefusalTest, ::testing::Values(kUntrusted, kOtherHost),
                         [](::testing::TestParamInfo<BadCertificate> const &info) {
                             return std::string(info.param.name);
                         });

}  // namespace
