// The system bundle is what the library trusts, read anew for new connections: a CA added to
// the file is trusted from the next connection on, on every road. The scripted servers close
// every connection after one answer, so each request below opens a new one. (Taking a CA out
// again is not tested: a client may resume a TLS session that it verified while the CA was
// trusted, without verifying the certificate again.)
#include "tests/harness/FailureServer.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TempDir.h"
#include "tests/harness/TestCa.h"
#include "tests/harness/TestMachine.h"
#include "tests/https/HttpsRoads.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

std::string const kUnknownIssuer =
    "SSL certificate problem: unable to get local issuer certificate";
std::string const kPeerFailed = "SSL peer certificate or SSH remote key was not OK";

std::string readFile(std::string const &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

class HttpsBundleTest : public HttpsRoads {
protected:
    void SetUp() override {
        HttpsRoads::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        original = TestCa::readBundle();
        ASSERT_NE(original, "");
        // A CA of its own, made now: the bundle does not hold it yet.
        ASSERT_NE(world_.path, "");
        ASSERT_TRUE(TestCa::makeWorld(world_.path));
        lateCa = readFile(world_.path + "/ca.pem");
        ASSERT_NE(lateCa, "");
        late = std::make_unique<FailureServer>(world_.path + "/server.pem",
                                               world_.path + "/server.key");
        ASSERT_NE(late->port, 0);
        LoginChannel::serveDiscovery(*late);
        late->on("/token", 200, LoginChannel::tokens("at-1", "it-1", "rt-1"));
        late->on("/me", 200, "{\"email\":\"bob@example.com\"}");
        late->on("/revoke", 200, "{\"revoked\":true}");

        // Revocations go to the late server, everything else to a trusted one: the blocking
        // road alone meets the late certificate.
        revokingFront = std::make_unique<FailureServer>(TestCa::serverPem(), TestCa::serverKey());
        ASSERT_NE(revokingFront->port, 0);
        std::string const base = revokingFront->url();
        std::string const document =
            "{\"issuer\":\"" + base + "\",\"authorization_endpoint\":\"" + base +
            "/auth\",\"token_endpoint\":\"" + base + "/token\",\"userinfo_endpoint\":\"" + base +
            "/me\",\"revocation_endpoint\":\"" + late->url("/revoke") + "\"}";
        revokingFront->on("/.well-known/openid-configuration", 200, document);
        revokingFront->on("/token", 200, LoginChannel::tokens("at-2", "it-2", "rt-2"));
        revokingFront->on("/me", 200, "{\"email\":\"bob@example.com\"}");
        // Token exchange and userinfo at the late server: the flows meet it.
        flowFront = std::make_unique<FailureServer>(TestCa::serverPem(), TestCa::serverKey());
        ASSERT_NE(flowFront->port, 0);
        LoginChannel::serveDiscovery(*flowFront, late->url());
    }
    void TearDown() override {
        if (!original.empty()) {
            EXPECT_TRUE(TestCa::writeBundle(original));
        }
        HttpsRoads::TearDown();
    }

    LoginDriver::Entry entryAt(FailureServer const &server, bool refresh) const {
        LoginDriver::Entry entry = LoginChannel::entryFor(server, "keycloak", refresh);
        entry.lifetime = 600;
        return entry;
    }

    // Loads configuration 0 with revocations at the late server, configuration 1 with the
    // flows' calls there.
    void loadFronts() {
        TestMachine::server(
            LoginDriver::file({entryAt(*revokingFront, false), entryAt(*flowFront, true)}));
        host.send("SSO_LOAD_CONFIGS\n");
        ASSERT_EQ(host.readLine(30000), "SSO_LOAD_CONFIGS_OK\n");
    }
    // Discovery at the late server: the load's reply.
    std::string loadLate() {
        TestMachine::server(LoginDriver::file({entryAt(*late, true)}));
        host.send("SSO_LOAD_CONFIGS\n");
        return host.readLine(30000);
    }
    // "SSO_GET_CONFIG" and "SSO_VERIFY" for a new session on configuration `id`: the reply.
    std::string verify(int id) {
        std::string const session = LoginChannel::session("bundle-" + std::to_string(++logins_));
        host.send("SSO_GET_CONFIG|" + std::to_string(id) + "|" + session + "\n");
        std::string config = host.readLine(5000);
        EXPECT_EQ(config.compare(0, 18, "SSO_GET_CONFIG_OK|"), 0) << config;
        host.send("SSO_VERIFY|code-" + std::to_string(logins_) + "|" + session + "\n");
        std::string reply = host.readLine(10000);
        EXPECT_EQ(host.strayReplies(log, LoginChannel::drained(session)), "");
        lastSession = session;
        return reply;
    }

    // Every road refuses the late certificate.
    void expectRefusedEverywhere() {
        log.clear();
        EXPECT_EQ(loadLate(), "SSO_LOAD_METADATA_FAILURE\n");
        EXPECT_TRUE(log.has("CurlRequest: ERROR! Sync request failed: '" + kUnknownIssuer +
                            "' (code: 60)\n"))
            << log.text();
        loadFronts();

        log.clear();
        std::string reply = verify(0);
        EXPECT_EQ(reply, "SSO_VERIFY_FAILURE|" + lastSession + "\n");
        EXPECT_TRUE(log.hasInOrder({
            "SsoServer: Refresh flow NOT set in configuration. Continuation of token revocation.\n",
            "SsoRequest: ERROR! Sso request failed. CURL error message: '" + kUnknownIssuer +
                "'.\n",
            "SsoServer: ERROR! Revoke response is empty.\n",
        })) << log.text();

        log.clear();
        reply = verify(1);
        EXPECT_EQ(reply, "SSO_VERIFY_FAILURE|" + lastSession + "\n");
        EXPECT_TRUE(log.has("Sso: Async flow failed: 'Curl error: " + kPeerFailed + "' HTTP: 0.\n"))
            << log.text();
    }

    std::unique_ptr<FailureServer> late;
    std::unique_ptr<FailureServer> revokingFront;
    std::unique_ptr<FailureServer> flowFront;
    std::string lateCa;
    std::string lastSession;
    // The bundle as the test found it; put back at the end.
    std::string original;

private:
    TempDir world_{"late-ca"};
    int logins_ = 0;
};

TEST_F(HttpsBundleTest, CaAddedToTheBundleIsTrustedFromTheNextConnectionOn) {
    // A server from the start (the role is settled when the worker starts).
    TestMachine::server(LoginDriver::file({entryAt(*late, true)}));
    ASSERT_EQ(host.start(), 0);
    expectRefusedEverywhere();
    EXPECT_TRUE(late->requests().empty());

    ASSERT_TRUE(TestCa::writeBundle(original + "\n" + lateCa));
    {
        SCOPED_TRACE("with the CA in the bundle");
        log.clear();
        std::string reply = verify(0);
        EXPECT_EQ(reply,
                  "SSO_VERIFY_OK|bob|000|" + std::to_string(kNow + 600) + "|" + lastSession + "\n")
            << log.text();
        EXPECT_TRUE(log.has("SsoRequest: Sso request success.\n"));
        reply = verify(1);
        auto token = LoginChannel::parse(reply);
        EXPECT_TRUE(token.ok) << reply << log.text();
        EXPECT_EQ(token.user, "bob");
        EXPECT_EQ(token.sessionValue.size(), 32u);
        EXPECT_EQ(token.userSession, lastSession);
        EXPECT_TRUE(log.has("CurlRequest: Flow completed for session '" + lastSession + "'.\n"));
        log.clear();
        EXPECT_EQ(loadLate(), "SSO_LOAD_CONFIGS_OK\n") << log.text();
        EXPECT_FALSE(late->requests().empty());
    }
}

}  // namespace
