// The guarded server operations, and a host driving them through the channel end to end.
#include "actions/SsoActions.h"
#include "platform/PlatformFakes.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "support/SsoUtils.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <ctime>

namespace {

std::string entry(std::string const &name, std::string const &provider, std::string const &idp,
                  std::string const &type = "OAuth") {
    return "{\"name\":\"" + name + "\",\"desc\":\"Sign in with " + name + "\",\"type\":\"" + type +
           "\",\"provider\":\"" + provider + "\",\"config\":{\"idp_domain\":\"" + idp +
           "\",\"client_id\":\"" + LocalProvider::clientId + "\",\"client_secret\":\"" +
           LocalProvider::clientSecret + "\",\"redirect_uris\":[\"" + LocalProvider::redirectUri +
           "\",\"" + LocalProvider::secondRedirectUri + "\"],\"qx_user_type\":\"local\"}}";
}

std::string providerFile() {
    std::string base = LocalProvider::shared().baseUrl();
    return "[" + entry("Keycloak", "keycloak", base) + "," + entry("Azure", "microsoft", base) +
           "]";
}

class ServerActionsTest : public ::testing::Test {
protected:
    void TearDown() override {
        host.stop();
        TestMachine::reset();
    }

    // Starts a worker on a server with `file` and answers its SSO_LOAD_CONFIGS.
    std::string startServer(std::string const &file) {
        TestMachine::server(file);
        EXPECT_EQ(host.start(), 0);
        host.send("SSO_LOAD_CONFIGS\n");
        return host.readLine(60000);
    }

    std::string startProviderServer() {
        auto &provider = LocalProvider::shared();
        EXPECT_TRUE(provider.ready()) << provider.error;
        return startServer(providerFile());
    }

    WorkerHost host;
    LogCapture log;
};

TEST_F(ServerActionsTest, ServerLoadsItsConfiguration) {
    EXPECT_EQ(startProviderServer(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_TRUE(log.hasInOrder({
        "SsoActions: Start initializing sso environment.\n",
        "SsoActions: Initializing CurlRequest.\n",
        "SsoActions: CurlRequest initialized successfully.\n",
        "SsoActions: Finish initializing sso environment.\n",
        "SsoActions: Start loading configuration.\n",
        "SsoActions: Setting up CurlRequest handlers for each config.\n",
        "CurlRequest: Creating 5 handlers for config 0.\n",
        "CurlRequest: Creating 5 handlers for config 1.\n",
        "SsoServer: Loading metadata.\n",
        "SsoActions: Finish loading configuration.\n",
    }));
    EXPECT_EQ(SsoServer::getServer().configs.size(), 2u);
    char *options = SsoGetUserLoginOptions();
    ASSERT_NE(options, nullptr);
    char *decoded = UrlDecode(options);
    EXPECT_STREQ(decoded,
                 "id=0 name=Keycloak desc=Sign in with Keycloak type=OAuth provider=keycloak|"
                 "id=1 name=Azure desc=Sign in with Azure type=OAuth provider=microsoft");
    delete[] decoded;
    SsoFreeString(options);
}

TEST_F(ServerActionsTest, EveryProviderKindLoadsAgainstTheLocalProvider) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string base = provider.baseUrl();
    ASSERT_EQ(
        startServer("[" + entry("M", "microsoft", base) + "," + entry("O", "okta", base) + "," +
                    entry("G", "google", base) + "," + entry("K", "keycloak", base) + "]"),
        "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(SsoServer::getServer().configs.size(), 4u);
    EXPECT_EQ(
        log.count("SsoServer: Metadata URL is: '" + base + "/.well-known/openid-configuration'.\n"),
        3u);
    EXPECT_EQ(log.count("SsoServer: Metadata URL is: '" + base +
                        "/v2.0/.well-known/openid-configuration'.\n"),
              1u);
}

TEST_F(ServerActionsTest, BadFileFailsTheLoad) {
    EXPECT_EQ(startServer("[{\"name\":1}]"), "SSO_LOAD_CONFIGS_FAILURE\n");
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! Field 'name' has not string value in config.\n",
                                "SsoServer: ERROR! Can't load configure. Config with ID: 0 is "
                                "invalid.\n",
                                "SsoActions: ERROR! Loading configuration file failed.\n"}));
}

TEST_F(ServerActionsTest, UnreachableProviderFailsTheMetadataAndClearsAll) {
    EXPECT_EQ(startServer("[" + entry("Down", "okta", "http://127.0.0.1:1") + "]"),
              "SSO_LOAD_METADATA_FAILURE\n");
    EXPECT_TRUE(
        log.hasInOrder({"SsoServer: ERROR! Loading metadata for config with ID: 0 failed.\n",
                        "SsoActions: ERROR! Loading configuration metadata failed.\n",
                        "SsoServer: Cleaning server configs.\n"}));
    EXPECT_TRUE(SsoServer::getServer().configs.empty());
    // The handlers made before discovery stay.
    EXPECT_EQ(CurlRequest::getNetwork().handlers.size(), 5u);
}

TEST_F(ServerActionsTest, NodeLoadSucceedsWithItsWarning) {
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_TRUE(
        log.hasInOrder({"SsoActions: Start loading configuration.\n",
                        "SsoActions: WARNING! Machine type is node. Skip loading configs.\n"}));
    EXPECT_FALSE(log.has("SsoActions: Finish loading configuration.\n"));
    host.send("SSO_GET_NODE_CONFIG|abc\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|abc\n");
    EXPECT_TRUE(log.has("SsoActions: WARNING! Machine type is node. Can not get node config.\n"));
    host.send("SSO_GET_CONFIG|0|" + std::string(32, 'a') + "\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|" + std::string(32, 'a') + "\n");
    EXPECT_TRUE(
        log.has("SsoActions: WARNING! Machine type is node. Can not get config based on "
                "user login option id.\n"));
    EXPECT_EQ(SsoGetUserLoginOptions(), nullptr);
    EXPECT_TRUE(
        log.has("SsoActions: WARNING! Machine type is node. User login options does not exist.\n"));
}

TEST_F(ServerActionsTest, NodeConfigThroughTheChannel) {
    // A refresh record as a finished login with refresh would leave it, stored before the
    // worker starts (the test thread never writes into the stores while a worker runs); the
    // load keeps it. The clock stands still, so the record's age is 0.
    PlatformFakes::clock() = [] { return int64_t{1700000000}; };
    SsoServer::getServer().refreshInfoBySession["sessionvalue"] =
        OAuthRefreshInfo{0, 1700000000, "rt", "access-1"};
    ASSERT_EQ(startProviderServer(), "SSO_LOAD_CONFIGS_OK\n");
    host.send("SSO_GET_NODE_CONFIG|unknown\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|unknown\n");
    EXPECT_TRUE(
        log.hasInOrder({"SsoActions: Start get node config. Received user session: "
                        "'unknown'.\n",
                        "SsoServer: ERROR! Refresh information not found.\n",
                        "SsoActions: ERROR! Get node config failed.\n"}));
    std::string base = LocalProvider::shared().baseUrl();
    std::string expected =
        "SSO_GET_NODE_CONFIG_OK|{\"access_token\":\"access-1\",\"provider\":"
        "\"keycloak\",\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        base + "/me\"}|sessionvalue\n";
    for (int round = 0; round < 2; ++round) {
        host.send("SSO_GET_NODE_CONFIG|sessionvalue\n");
        EXPECT_EQ(host.readLine(), expected);
    }
    // Read after the replies, which the worker wrote after its last change to the store.
    EXPECT_EQ(SsoServer::getServer().refreshInfoBySession.count("sessionvalue"), 1u);
}

TEST_F(ServerActionsTest, ClientConfigurationAndARealAuthorization) {
    ASSERT_EQ(startProviderServer(), "SSO_LOAD_CONFIGS_OK\n");
    char *sessionRaw = SsoGetUserSession();
    ASSERT_NE(sessionRaw, nullptr);
    std::string session = sessionRaw;
    SsoFreeString(sessionRaw);
    EXPECT_EQ(session.size(), 32u);

    host.send("SSO_GET_CONFIG|0|" + session + "\n");
    std::string reply = host.readLine();
    std::string base = LocalProvider::shared().baseUrl();
    std::string json = "{\"auth_uri\":\"" + base +
                       "/auth\",\"client_id\":\"qxss-client\","
                       "\"provider\":\"keycloak\",\"qx_prompt_type\":\"\",\"redirect_uri\":\"" +
                       LocalProvider::redirectUri + "\"}";
    std::string prefix = "SSO_GET_CONFIG_OK|" + json + "|";
    // The pending login, read (never written) after the reply that followed its making.
    auto const &pending = SsoServer::getServer().authzInfoBySession;
    ASSERT_EQ(pending.count(session), 1u);
    std::string verifier = pending.at(session).codeVerifier;
    EXPECT_EQ(verifier.size(), 48u);
    std::string challenge = getHashBase64Url(verifier.c_str());
    ASSERT_EQ(reply, prefix + challenge + "|" + session + "\n");

    // The host's login data from the reply, and the user's side at the real provider.
    char *encoded = UrlEncode(("OAuth|" + json + "|state-1|nonce-1|" + challenge).c_str());
    char *url = SsoLoginUrl(encoded);
    delete[] encoded;
    ASSERT_NE(url, nullptr);
    auto login = LocalProvider::shared().login(url);
    SsoFreeString(url);
    EXPECT_TRUE(login.ok) << login.error;
    EXPECT_EQ(login.state, "state-1");
    EXPECT_FALSE(login.code.empty());
}

TEST_F(ServerActionsTest, ClusterConfigurationPicksTheAddress) {
    ASSERT_EQ(startProviderServer(), "SSO_LOAD_CONFIGS_OK\n");
    std::string session(32, 'c');
    host.send("SSO_GET_CONFIG_CLUSTER|1|127.0.0.1:18081|" + session + "\n");
    std::string reply = host.readLine();
    std::string base = LocalProvider::shared().baseUrl();
    std::string prefix = "SSO_GET_CONFIG_CLUSTER_OK|{\"auth_uri\":\"" + base +
                         "/v2.0/auth\",\"client_id\":\"qxss-client\",\"provider\":\"microsoft\","
                         "\"qx_prompt_type\":\"\",\"redirect_uri\":\"" +
                         LocalProvider::secondRedirectUri + "\"}|";
    auto const &pending = SsoServer::getServer().authzInfoBySession;
    ASSERT_EQ(pending.count(session), 1u);
    EXPECT_EQ(pending.at(session).redirectUri, LocalProvider::secondRedirectUri);
    std::string challenge = getHashBase64Url(pending.at(session).codeVerifier.c_str());
    ASSERT_EQ(reply, prefix + challenge + "|" + session + "\n");
    EXPECT_TRUE(
        log.has("SsoActions: Start get config. Received user login option id: 1 user "
                "session: '" +
                session + "' and cluster IP (optional): '127.0.0.1:18081'.\n"));

    // The authorization at the provider with the microsoft URL form works too.
    std::string json = reply.substr(reply.find('|') + 1, prefix.size() - reply.find('|') - 2);
    char *encoded = UrlEncode(("OAuth|" + json + "|st|nc|" + challenge).c_str());
    char *url = SsoLoginUrl(encoded);
    delete[] encoded;
    ASSERT_NE(url, nullptr);
    auto login = LocalProvider::shared().login(url, "bob");
    SsoFreeString(url);
    EXPECT_TRUE(login.ok) << login.error;
}

TEST_F(ServerActionsTest, ClientConfigurationFailures) {
    ASSERT_EQ(startProviderServer(), "SSO_LOAD_CONFIGS_OK\n");
    std::string const failed = "SsoActions: ERROR! Get config failed.\n";
    log.clear();
    host.send("SSO_GET_CONFIG|0|short\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|short\n");
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! User session is invalid.\n", failed}));
    log.clear();
    host.send("SSO_GET_CONFIG|2|" + std::string(32, 'x') + "\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|" + std::string(32, 'x') + "\n");
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! Config ID is invalid.\n", failed}));
    log.clear();
    host.send("SSO_GET_CONFIG_CLUSTER|9|10.0.0.1|" + std::string(32, 'y') + "\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_CLUSTER_FAILURE|" + std::string(32, 'y') + "\n");
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! Config ID is invalid.\n", failed}));
    // "12x" reads as 12: served (and refused as beyond the records).
    log.clear();
    host.send("SSO_GET_CONFIG|12x|abc\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_CONFIG_FAILURE|abc\n");
    EXPECT_TRUE(
        log.has("SsoActions: Start get config. Received user login option id: 12 user "
                "session: 'abc' and cluster IP (optional): 'nil'.\n"));
    EXPECT_TRUE(log.hasInOrder({"SsoServer: ERROR! Config ID is invalid.\n", failed}));
    // "00" and "-1" read below 1, and an empty session is missing: no reply at all, and the
    // action is never asked.
    log.clear();
    host.send("SSO_GET_CONFIG|00|abc\nSSO_GET_CONFIG|-1|abc\nSSO_GET_CONFIG_CLUSTER|0|ip|\n");
    EXPECT_EQ(host.repliesBeforeFence(), "");
    EXPECT_EQ(log.startingWith("SsoActions: Start get config."), std::vector<std::string>{});
}

TEST_F(ServerActionsTest, ExtraElementsAreIgnored) {
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_LOAD_CONFIGS|anything\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
}

TEST_F(ServerActionsTest, SeveralCommandsAnswerInOrder) {
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_GET_NODE_CONFIG|a\nSSO_LOAD_CONFIGS\nSSO_GET_NODE_CONFIG|b\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|a\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    EXPECT_EQ(host.readLine(), "SSO_GET_NODE_CONFIG_FAILURE|b\n");
}

TEST(SsoActionsTest, InitializeFailsWithoutAConfigurationDirectory) {
    TestMachine::noConfigDir();
    LogCapture log;
    EXPECT_EQ(SsoActions::initialize(), -1);
    EXPECT_TRUE(log.hasInOrder({"SsoActions: Start initializing sso environment.\n",
                                "SsoServer: ERROR! Can't set config path.\n",
                                "SsoActions: ERROR! Set configuration path failed.\n"}));
    WorkerHost host;
    log.clear();
    EXPECT_EQ(host.start(), -1);
    int readFd = -1;
    int writeFd = -1;
    for (auto const &line : log.lines()) {
        sscanf(line.c_str(), "Sso: Internal pipe read FD#%d write FD#%d", &readFd, &writeFd);
    }
    EXPECT_TRUE(log.hasInOrder({"Sso: Initializing sso environment.\n",
                                "SsoActions: ERROR! Set configuration path failed.\n",
                                "Sso: ERROR! Can't initialize sso environment.\n",
                                "Sso: Closing FD#" + std::to_string(readFd) + " and FD#" +
                                    std::to_string(writeFd) + ".\n"}));
    EXPECT_FALSE(log.has("SsoActions: Start destroying sso environment.\n"));
    TestMachine::node();
    EXPECT_EQ(host.start(), 0);
}

TEST(SsoActionsTest, InitializeFailsWhenTheTransportIsUp) {
    // The blocking request logs its construction once per process; make it
    // here so the lines below do not depend on which test ran first.
    SsoRequest::getNetwork();
    ASSERT_TRUE(CurlRequest::getNetwork().init(CURL_GLOBAL_ALL));
    LogCapture log;
    EXPECT_EQ(SsoActions::initialize(), -1);
    EXPECT_TRUE(log.hasInOrder({"CurlRequest: ERROR! Already initialized.\n",
                                "SsoActions: ERROR! CurlRequest initialization failed.\n"}));
    log.clear();
    SsoActions::destroy();
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoActions: Start destroying sso environment.\n",
                                        "CurlRequest: Clean up.\n",
                                        "SsoRequest: WARNING! Curl was never initialized before.\n",
                                        "SsoServer: Cleaning server configs.\n",
                                        "SsoActions: Finish destroying sso environment.\n"}));
}

TEST(SsoActionsTest, UserSession) {
    LogCapture log;
    char *session = SsoGetUserSession();
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(std::string(session).size(), 32u);
    char *other = SsoGetUserSession();
    EXPECT_STRNE(session, other);
    SsoFreeString(session);
    SsoFreeString(other);
    PlatformFakes::random() = [](char *, int) { return 0; };
    log.clear();
    EXPECT_EQ(SsoGetUserSession(), nullptr);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"SsoActions: Get user session.\n",
                                        "SsoActions: ERROR! User session generation failed.\n"}));
    PlatformFakes::reset();
}

TEST(SsoActionsTest, GuardsReadOnlyTheNodeType) {
    SsoServer &server = SsoServer::getServer();
    int32_t saved = server.machineType;
    LogCapture log;
    server.machineType = SsoServer::kMachineUnset;
    EXPECT_EQ(SsoActions::getNodeConfig("x"), nullptr);
    EXPECT_TRUE(log.has("SsoActions: Start get node config. Received user session: 'x'.\n"));
    server.machineType = SsoServer::kMachineNode;
    log.clear();
    EXPECT_EQ(SsoActions::getUserLoginOptions(), nullptr);
    EXPECT_EQ(SsoActions::getClientConfig(0, "s", nullptr), nullptr);
    EXPECT_EQ(SsoActions::getNodeConfig("x"), nullptr);
    EXPECT_EQ(SsoActions::loadConfigs(), 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoActions: Sending user login options.\n",
                  "SsoActions: WARNING! Machine type is node. User login options does not exist.\n",
                  "SsoActions: WARNING! Machine type is node. Can not get config based on user "
                  "login option id.\n",
                  "SsoActions: WARNING! Machine type is node. Can not get node config.\n",
                  "SsoActions: Start loading configuration.\n",
                  "SsoActions: WARNING! Machine type is node. Skip loading configs.\n"}));
    server.machineType = saved;
}

}  // namespace
