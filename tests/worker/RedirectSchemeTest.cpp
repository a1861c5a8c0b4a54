// What the background road and discovery refuse to follow: a redirect from the provider (a 3xx
// is an answer, not a pointer to follow) and a URL of a scheme other than http and https.
#include "platform/PlatformFakes.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A redirect: FailureServer writes the content type into its header block as it is, so a
// second header rides along with it.
FailureServer::Reply redirectTo(std::string const &location) {
    FailureServer::Reply reply;
    reply.status = 302;
    reply.body = "{\"moved\":true}";
    reply.contentType = "application/json\r\nLocation: " + location;
    return reply;
}

bool startsWith(std::string const &text, std::string const &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

class RedirectSchemeTest : public ::testing::Test {
protected:
    void SetUp() override {
        elsewhere.on("/token", 200, LoginChannel::tokens("at-1", "id-1", "rt-1"));
        elsewhere.on("/me", 200, "{\"email\":\"ann@b.test\"}");
        elsewhere.on("/.well-known/openid-configuration", 200, "{}");
    }
    void TearDown() override {
        host.stop();
        TestMachine::reset();
    }

    // Loads a server whose provider `idp` plays, asks for a login and sends its code; the
    // reply line.
    std::string verify() {
        EXPECT_EQ(LoginChannel::startServer(host, {LoginChannel::entryFor(idp, "keycloak")}),
                  "SSO_LOAD_CONFIGS_OK\n")
            << log.text();
        host.send("SSO_GET_CONFIG|0|" + session + "\n");
        EXPECT_TRUE(startsWith(host.readLine(), "SSO_GET_CONFIG_OK|"));
        log.clear();
        host.send("SSO_VERIFY|code-1|" + session + "\n");
        return host.readLine(10000);
    }

    std::string const session = LoginChannel::session("redirect-scheme");
    LogCapture log;
    WorkerHost host;
    FailureServer idp;
    FailureServer elsewhere;
};

TEST_F(RedirectSchemeTest, TheBackgroundRoadDoesNotFollowARedirect) {
    LoginChannel::serveDiscovery(idp);
    idp.on("/token", redirectTo(elsewhere.url("/token")));
    EXPECT_EQ(verify(), "SSO_VERIFY_FAILURE|" + session + "\n") << log.text();
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_TRUE(log.hasInOrder({
        "CurlRequest: ERROR! HTTP error 302 response: '{\"moved\":true}'.\n",
        "Sso: Async flow failed: 'HTTP error: {\"moved\":true}' HTTP: 302.\n",
    })) << log.text();
    EXPECT_FALSE(log.contains("Falling back to sync path"));
    EXPECT_TRUE(elsewhere.requests().empty());
}

TEST_F(RedirectSchemeTest, TheBackgroundRoadRefusesAnEndpointOfAnotherScheme) {
    struct Row {
        std::string tokenEndpoint;
        std::string userinfoEndpoint;
    };
    std::string const ftpToken = "ftp://127.0.0.1:" + std::to_string(elsewhere.port) + "/token";
    for (Row const &row : {Row{ftpToken, elsewhere.url("/me")},
                           Row{elsewhere.url("/token"), "file:///etc/hostname"}}) {
        SCOPED_TRACE(row.tokenEndpoint + " " + row.userinfoEndpoint);
        idp.on("/.well-known/openid-configuration", 200,
               "{\"issuer\":\"" + idp.url() + "\",\"authorization_endpoint\":\"" +
                   idp.url("/auth") + "\",\"token_endpoint\":\"" + row.tokenEndpoint +
                   "\",\"userinfo_endpoint\":\"" + row.userinfoEndpoint +
                   "\",\"revocation_endpoint\":\"" + idp.url("/revoke") + "\"}");
        size_t before = elsewhere.requests().size();
        EXPECT_EQ(verify(), "SSO_VERIFY_FAILURE|" + session + "\n") << log.text();
        EXPECT_EQ(host.repliesBeforeFence(), "");
        EXPECT_TRUE(log.has("CurlRequest: ERROR! Curl error: Unsupported protocol.\n"))
            << log.text();
        EXPECT_TRUE(
            log.has("Sso: Async flow failed: 'Curl error: Unsupported protocol' HTTP: 0.\n"))
            << log.text();
        EXPECT_FALSE(log.contains("Falling back to sync path"));
        // The ftp URL names the other server's port: nothing ever connected to it. The file
        // URL's login got as far as the userinfo request.
        EXPECT_EQ(elsewhere.requests().size(), before + (row.tokenEndpoint == ftpToken ? 0 : 1));
        host.stop();
    }
}

TEST_F(RedirectSchemeTest, DiscoveryDoesNotFollowARedirectToAnyScheme) {
    for (std::string const &location :
         {elsewhere.url("/.well-known/openid-configuration"), std::string("file:///etc/hostname"),
          "ftp://127.0.0.1:" + std::to_string(elsewhere.port) + "/"}) {
        SCOPED_TRACE(location);
        idp.on("/.well-known/openid-configuration", redirectTo(location));
        size_t before = elsewhere.requests().size();
        EXPECT_EQ(LoginChannel::startServer(host, {LoginChannel::entryFor(idp, "keycloak")}),
                  "SSO_LOAD_METADATA_FAILURE\n")
            << log.text();
        EXPECT_EQ(elsewhere.requests().size(), before);
        host.stop();
    }
}

}  // namespace
