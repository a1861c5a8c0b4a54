// Machine type and the configuration file: taken whole or refused with the exact reason.
#include "platform/PlatformFakes.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

#include <functional>
#include <string>

namespace {

Json::Value validEntry(std::string const &name = "Corp", std::string const &type = "OAuth",
                       std::string const &provider = "keycloak") {
    Json::Value entry;
    entry["name"] = name;
    entry["desc"] = "Corporate login";
    entry["type"] = type;
    entry["provider"] = provider;
    Json::Value &config = entry["config"];
    config["idp_domain"] = "https://idp.example/realms/corp";
    config["client_id"] = "cid";
    config["client_secret"] = "secret";
    config["redirect_uris"].append("https://10.0.0.1/cb");
    config["redirect_uris"].append("https://10.0.0.2/cb");
    config["qx_user_type"] = "local";
    return entry;
}

std::string text(Json::Value const &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string fileOf(std::vector<Json::Value> const &entries) {
    Json::Value root(Json::arrayValue);
    for (auto const &entry : entries) {
        root.append(entry);
    }
    return text(root);
}

class ConfigFileTest : public ::testing::Test {
protected:
    void TearDown() override { TestMachine::reset(); }

    // A server ready to load `content`.
    bool load(std::string const &content) {
        TestMachine::server(content);
        EXPECT_TRUE(server.setConfigPath());
        EXPECT_TRUE(server.setMachineType());
        log.clear();
        return server.loadConfigsJson();
    }

    std::string invalid(int id) {
        return "SsoServer: ERROR! Can't load configure. Config with ID: " + std::to_string(id) +
               " is invalid.\n";
    }

    LogCapture log;
    SsoServer server;
};

TEST_F(ConfigFileTest, NoFileMakesANode) {
    TestMachine::node();
    ASSERT_TRUE(server.setConfigPath());
    EXPECT_TRUE(log.has("SsoServer: Set config path to: '" + TestMachine::configDir() + "'\n"));
    EXPECT_TRUE(server.setMachineType());
    EXPECT_EQ(server.machineType, SsoServer::kMachineNode);
    EXPECT_EQ(server.configPath, "");
    EXPECT_TRUE(log.has("SsoServer: File '" + TestMachine::configFile() +
                        "' doesn't exist. Machine type set to 'node'.\n"));
}

TEST_F(ConfigFileTest, AFileMakesAServer) {
    TestMachine::server("[]");
    ASSERT_TRUE(server.setConfigPath());
    EXPECT_TRUE(server.setMachineType());
    EXPECT_EQ(server.machineType, SsoServer::kMachineServer);
    EXPECT_TRUE(log.has("SsoServer: File '" + TestMachine::configFile() +
                        "' exist. Machine type set to 'server'.\n"));
}

TEST_F(ConfigFileTest, FirstCandidateWinsWhenItExists) {
    PlatformFakes::fileExists() = [](char const *path) {
        return std::string(path) == "/usr/QX/etc" ? 1 : 2;
    };
    ASSERT_TRUE(server.setConfigPath());
    EXPECT_EQ(server.configPath, "/usr/QX/etc");
    EXPECT_TRUE(log.has("SsoServer: Set config path to: '/usr/QX/etc'\n"));
}

TEST_F(ConfigFileTest, NoAccessToTheFile) {
    TestMachine::server("[]");
    ASSERT_TRUE(server.setConfigPath());
    std::string file = TestMachine::configFile();
    PlatformFakes::fileExists() = [file](char const *path) {
        return std::string(path) == file ? -1 : std::string(path) == "/usr/QX/etc" ? 0 : 2;
    };
    EXPECT_FALSE(server.setMachineType());
    EXPECT_EQ(server.machineType, SsoServer::kMachineUnset);
    EXPECT_TRUE(
        log.has("SsoServer: ERROR! Can't set machine type. No access to file: '" + file + "'\n"));
    EXPECT_FALSE(server.loadConfigsJson());
    EXPECT_TRUE(
        log.has("SsoServer: ERROR! Can't load configuration file. Machine type is not set.\n"));
}

TEST_F(ConfigFileTest, NoDirectoryAtAll) {
    TestMachine::noConfigDir();
    log.clear();
    EXPECT_FALSE(server.setConfigPath());
    EXPECT_FALSE(server.setMachineType());
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "SsoServer: ERROR! Can't set config path.\n",
                  "SsoServer: ERROR! Can't set machine type. Config path is empty.\n"}));
    EXPECT_EQ(server.machineType, SsoServer::kMachineUnset);
    server.machineType = SsoServer::kMachineServer;
    EXPECT_FALSE(server.loadConfigsJson());
    EXPECT_TRUE(
        log.has("SsoServer: ERROR! Can't load configuration file. Configuration path is empty.\n"));
}

TEST_F(ConfigFileTest, EmptyRoots) {
    for (std::string root : {"[]", "{}", "null"}) {
        EXPECT_FALSE(load(root));
        EXPECT_EQ(log.lines().back(),
                  "SsoServer: ERROR! Can't load configure. JSON object is empty.\n")
            << root;
    }
    EXPECT_FALSE(load("5"));
    EXPECT_EQ(log.lines().back(),
              "SsoServer: ERROR! Can't load configure. JSON object type is. invalid.\n");
}

TEST_F(ConfigFileTest, UnparsableAndEmptyFiles) {
    EXPECT_FALSE(load("[{"));
    EXPECT_EQ(log.lines().back(),
              "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed.\n");
    EXPECT_TRUE(log.has("SsoJson: ERROR! Parsing file data to JSON failed.\n"));
    EXPECT_FALSE(load(""));
    EXPECT_TRUE(log.hasInOrder(
        {"SsoJson: ERROR! Source string is empty.\n",
         "SsoJson: ERROR! Parsing file data to JSON failed.\n",
         "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed.\n"}));
}

TEST_F(ConfigFileTest, OneEntryLoadsWithItsLogAndLoginOptions) {
    ASSERT_TRUE(load(fileOf({validEntry()})));
    ASSERT_EQ(server.configs.size(), 1u);
    auto *config = static_cast<SsoServerConfigOAuth *>(server.configs[0]);
    EXPECT_EQ(config->configId, 0);
    EXPECT_EQ(config->clientSecret, "secret");
    EXPECT_EQ(config->redirectUris.size(), 2u);
    std::string options = "id=0 name=Corp desc=Corporate login type=OAuth provider=keycloak";
    EXPECT_TRUE(log.hasInOrder({
        "SsoServer: Loading configuration file.\n",
        "SsoServer: Validating config with ID: 0.\n",
        "SsoServer: 'redirect_uris' element: 'https://10.0.0.1/cb'.\n",
        "SsoServer: 'redirect_uris' element: 'https://10.0.0.2/cb'.\n",
        "SsoServer: Added config with ID: 0\n",
        "SsoServer: Set config for OAuth.\n",
        "SsoServerConfigOAuth: Server OAuth config constructor.\n",
        "SsoServer: Login options buffer: '" + options + "'\n",
    }));
    EXPECT_EQ(
        server.loginOptions,
        "id%3D0%20name%3DCorp%20desc%3DCorporate%20login%20type%3DOAuth%20provider%3Dkeycloak");
}

TEST_F(ConfigFileTest, SecondBadEntryRejectsTheWholeFile) {
    server.loginOptions = "before";
    Json::Value bad = validEntry("Two");
    bad["config"]["qx_user_type"] = "global";
    EXPECT_FALSE(load(fileOf({validEntry(), bad})));
    EXPECT_TRUE(server.configs.empty());
    EXPECT_EQ(server.loginOptions, "before");
    EXPECT_EQ(log.lines().back(), invalid(1));
}

TEST_F(ConfigFileTest, SamlEntryTakesAnIdButNoRecord) {
    ASSERT_TRUE(load(fileOf({validEntry("S", "SAML", "okta"), validEntry("O")})));
    ASSERT_EQ(server.configs.size(), 1u);
    EXPECT_EQ(server.configs[0]->configId, 1);
    EXPECT_TRUE(
        log.has("SsoServer: Login options buffer: 'id=0 name=S desc=Corporate login type=SAML "
                "provider=okta|"
                "id=1 name=O desc=Corporate login type=OAuth provider=keycloak'\n"));
}

TEST_F(ConfigFileTest, RootObjectWithEntriesTakesThemByName) {
    Json::Value root;
    root["b"] = validEntry("Second");
    root["a"] = validEntry("First");
    ASSERT_TRUE(load(text(root)));
    EXPECT_TRUE(
        log.has("SsoServer: Login options buffer: 'id=0 name=First desc=Corporate login "
                "type=OAuth provider=keycloak|id=1 name=Second desc=Corporate login type=OAuth "
                "provider=keycloak'\n"));
}

TEST_F(ConfigFileTest, CommentsAreAccepted) {
    ASSERT_TRUE(load("// providers\n/* all of them */ " + fileOf({validEntry()})));
    EXPECT_EQ(server.configs.size(), 1u);
}

TEST_F(ConfigFileTest, IdInTheFileIsOverwritten) {
    Json::Value entry = validEntry();
    entry["id"] = 7;
    ASSERT_TRUE(load(fileOf({entry})));
    EXPECT_EQ(server.configs[0]->configId, 0);
}

TEST_F(ConfigFileTest, EmptyClientIdIsAcceptedHere) {
    Json::Value entry = validEntry();
    entry["config"]["client_id"] = "";
    ASSERT_TRUE(load(fileOf({entry})));
    ASSERT_EQ(server.configs.size(), 1u);
    EXPECT_EQ(static_cast<SsoServerConfigOAuth *>(server.configs[0])->clientId, "");
}

TEST_F(ConfigFileTest, RefreshLifetimeBounds) {
    Json::Value entry = validEntry();
    entry["config"]["qx_refresh_lifetime"] = Json::Value::Int64(9223372036854775807LL);
    ASSERT_TRUE(load(fileOf({entry})));
    EXPECT_EQ(static_cast<SsoServerConfigOAuth *>(server.configs.back())->refreshLifetime,
              9223372036854775807LL);
    std::string file = fileOf({validEntry()});
    size_t at = file.find("\"qx_user_type\"");
    EXPECT_FALSE(load(file.substr(0, at) + "\"qx_refresh_lifetime\":9223372036854775808," +
                      file.substr(at)));
    EXPECT_TRUE(log.has("SsoServer: ERROR! Field 'qx_refresh_lifetime' type is not integer.\n"));
    EXPECT_FALSE(load(file.substr(0, at) + "\"qx_refresh_lifetime\":-1," + file.substr(at)));
    EXPECT_TRUE(
        log.has("SsoServer: ERROR! Field 'qx_refresh_lifetime' value is negative or too big.\n"));
    EXPECT_TRUE(load(file.substr(0, at) + "\"qx_refresh_lifetime\":30.0," + file.substr(at)));
}

TEST_F(ConfigFileTest, ProxyThroughTheRealLocalProxy) {
    auto &proxy = LocalProxy::shared();
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    Json::Value entry = validEntry();
    entry["config"]["qx_proxy"] = proxy.url();
    ASSERT_TRUE(load(fileOf({entry})));
    EXPECT_EQ(static_cast<SsoServerConfigOAuth *>(server.configs.back())->proxy, proxy.url());
    EXPECT_TRUE(log.has("SsoUtils: Proxy host '127.0.0.1' port '" + std::to_string(proxy.port) +
                        "' is valid.\n"));
}

TEST_F(ConfigFileTest, HttpsProxyNeedsACaBundle) {
    Json::Value entry = validEntry();
    entry["config"]["qx_proxy"] = "https://127.0.0.1:3128";
    TestMachine::server(fileOf({entry}));
    ASSERT_TRUE(server.setConfigPath());
    ASSERT_TRUE(server.setMachineType());
    PlatformFakes::fileExists() = [](char const *path) {
        std::string p = path;
        return p == "/usr/QX/etc" || p == "/etc/debian_version" || p == "/etc/redhat-release" ? 0
                                                                                              : 2;
    };
    log.clear();
    EXPECT_FALSE(server.loadConfigsJson());
    EXPECT_TRUE(log.hasInOrder({"SsoUtils: ERROR! Can't detect CA file.\n",
                                "SsoServer: ERROR! Can't detect CA chain file.\n", invalid(0)}));
}

// Each row breaks a valid entry in one way and names the message that must follow.
struct Row {
    std::string what;
    std::function<void(Json::Value &)> mutate;
    std::string message;
};

std::vector<Row> const kRows = {
    {"name missing", [](Json::Value &e) { e.removeMember("name"); },
     "Field 'name' not set in config"},
    {"name null", [](Json::Value &e) { e["name"] = Json::Value(); },
     "Field 'name' has not string value in config"},
    {"desc missing", [](Json::Value &e) { e.removeMember("desc"); },
     "Field 'desc' not set in config"},
    {"desc number", [](Json::Value &e) { e["desc"] = 1; },
     "Field 'desc' has not string value in config"},
    {"type missing", [](Json::Value &e) { e.removeMember("type"); },
     "Field 'type' not set in config"},
    {"type bool", [](Json::Value &e) { e["type"] = true; },
     "Field 'type' has not string value in config"},
    {"provider missing", [](Json::Value &e) { e.removeMember("provider"); },
     "Field 'provider' not set in config"},
    {"provider array", [](Json::Value &e) { e["provider"] = Json::Value(Json::arrayValue); },
     "Field 'provider' has not string value in config"},
    {"two missing: earlier reported",
     [](Json::Value &e) {
         e.removeMember("provider");
         e.removeMember("desc");
     },
     "Field 'desc' not set in config"},
    {"config missing", [](Json::Value &e) { e.removeMember("config"); },
     "Field 'config' not set in config"},
    {"config string", [](Json::Value &e) { e["config"] = "x"; },
     "Field 'config' not set in config"},
    {"idp_domain missing", [](Json::Value &e) { e["config"].removeMember("idp_domain"); },
     "Field 'idp_domain' not set in config"},
    {"idp_domain number", [](Json::Value &e) { e["config"]["idp_domain"] = 5; },
     "Field 'idp_domain' has not string value in config"},
    {"client_id missing", [](Json::Value &e) { e["config"].removeMember("client_id"); },
     "Field 'client_id' not set in config"},
    {"client_secret missing", [](Json::Value &e) { e["config"].removeMember("client_secret"); },
     "Field 'client_secret' not set in config"},
    {"client_secret object",
     [](Json::Value &e) { e["config"]["client_secret"] = Json::Value(Json::objectValue); },
     "Field 'client_secret' has not string value in config"},
    {"redirect_uris missing", [](Json::Value &e) { e["config"].removeMember("redirect_uris"); },
     "Field 'redirect_uris' not set in config"},
    {"redirect_uris string", [](Json::Value &e) { e["config"]["redirect_uris"] = "https://x"; },
     "Field 'redirect_uris' is not an array type"},
    {"qx_user_type missing", [](Json::Value &e) { e["config"].removeMember("qx_user_type"); },
     "Field 'qx_user_type' not set in config"},
    {"qx_user_type number", [](Json::Value &e) { e["config"]["qx_user_type"] = 2; },
     "Field 'qx_user_type' has not string value in config"},
    {"type lower case", [](Json::Value &e) { e["type"] = "oauth"; },
     "Field 'type' has wrong value"},
    {"provider unknown", [](Json::Value &e) { e["provider"] = "Google"; },
     "Field 'provider' has wrong value"},
    {"idp_domain scheme", [](Json::Value &e) { e["config"]["idp_domain"] = "HTTPS://idp"; },
     "Field 'idp_domain' has wrong value. It has to start with 'http://' or 'https://'"},
    {"redirect_uris empty",
     [](Json::Value &e) { e["config"]["redirect_uris"] = Json::Value(Json::arrayValue); },
     "Field 'redirect_uris' is empty"},
    {"redirect element number", [](Json::Value &e) { e["config"]["redirect_uris"][1] = 5; },
     "Element type is not a string"},
    {"redirect element array",
     [](Json::Value &e) { e["config"]["redirect_uris"][0] = Json::Value(Json::arrayValue); },
     "Element type is not a string"},
    {"redirect element object",
     [](Json::Value &e) { e["config"]["redirect_uris"][0] = Json::Value(Json::objectValue); },
     "Element type is not a string"},
    {"redirect element scheme", [](Json::Value &e) { e["config"]["redirect_uris"][1] = "ftp://x"; },
     "Element has wrong value. It has to start with 'http://' or 'https://'"},
    {"qx_user_type value", [](Json::Value &e) { e["config"]["qx_user_type"] = "Local"; },
     "Field 'qx_user_type' has wrong value. It has to be 'local' or 'domain'"},
    {"userinfo_uri number", [](Json::Value &e) { e["config"]["userinfo_uri"] = 1; },
     "Field 'userinfo_uri' value is not string"},
    {"userinfo_uri scheme", [](Json::Value &e) { e["config"]["userinfo_uri"] = "idp/me"; },
     "Field 'userinfo_uri' has wrong value. It has to start with 'http://' or 'https://'"},
    {"qx_user_name bool", [](Json::Value &e) { e["config"]["qx_user_name"] = false; },
     "Field 'qx_user_name' value is not string"},
    {"qx_prompt_type number", [](Json::Value &e) { e["config"]["qx_prompt_type"] = 0; },
     "Field 'qx_prompt_type' value is not string"},
    {"qx_refresh string", [](Json::Value &e) { e["config"]["qx_refresh"] = "true"; },
     "Field 'qx_refresh' value is not bool"},
    {"qx_refresh_lifetime string",
     [](Json::Value &e) { e["config"]["qx_refresh_lifetime"] = "60"; },
     "Field 'qx_refresh_lifetime' type is not integer"},
    {"qx_refresh_lifetime fraction",
     [](Json::Value &e) { e["config"]["qx_refresh_lifetime"] = 1.5; },
     "Field 'qx_refresh_lifetime' type is not integer"},
    {"qx_refresh_lifetime negative",
     [](Json::Value &e) { e["config"]["qx_refresh_lifetime"] = -1; },
     "Field 'qx_refresh_lifetime' value is negative or too big"},
    {"qx_proxy number", [](Json::Value &e) { e["config"]["qx_proxy"] = 3128; },
     "Field 'qx_proxy' value is not string"},
    {"qx_proxy socks", [](Json::Value &e) { e["config"]["qx_proxy"] = "socks5://127.0.0.1:1080"; },
     "Field 'qx_proxy' has wrong value. It has to start with 'http://' or 'https://'"},
    {"qx_proxy slash after port",
     [](Json::Value &e) { e["config"]["qx_proxy"] = "http://127.0.0.1:3128/"; },
     "Proxy validation failed"},
    {"qx_proxy no port", [](Json::Value &e) { e["config"]["qx_proxy"] = "http://127.0.0.1"; },
     "Proxy validation failed"},
};

TEST_F(ConfigFileTest, EveryValidationRowWithItsMessage) {
    for (auto const &row : kRows) {
        Json::Value entry = validEntry();
        row.mutate(entry);
        EXPECT_FALSE(load(fileOf({entry}))) << row.what;
        auto lines = log.lines();
        ASSERT_GE(lines.size(), 2u) << row.what;
        EXPECT_EQ(lines[lines.size() - 2], "SsoServer: ERROR! " + row.message + ".\n") << row.what;
        EXPECT_EQ(lines.back(), invalid(0)) << row.what;
        EXPECT_TRUE(server.configs.empty()) << row.what;
    }
}

TEST_F(ConfigFileTest, AnEntryThatIsNotAnObjectFailsItsEntry) {
    EXPECT_FALSE(load("[\"just a string\"]"));
    EXPECT_EQ(log.lines().back(), invalid(0));
    EXPECT_FALSE(load("[[1,2]]"));
    EXPECT_EQ(log.lines().back(), invalid(0));
    EXPECT_TRUE(log.has("SsoServer: ERROR! Config entry is not a JSON object.\n"));
}

TEST_F(ConfigFileTest, ASecondLoadAppendsAndClearConfigsEmptiesAll) {
    ASSERT_TRUE(load(fileOf({validEntry()})));
    ASSERT_TRUE(server.loadConfigsJson());
    EXPECT_EQ(server.configs.size(), 2u);
    server.authzInfoBySession["s"] = OAuthAuthzInfo{0, "v", "r"};
    server.refreshInfoBySession["t"] = OAuthRefreshInfo{0, 1, "rt", "at"};
    log.clear();
    server.clearConfigs();
    EXPECT_TRUE(server.configs.empty());
    EXPECT_TRUE(server.authzInfoBySession.empty());
    EXPECT_TRUE(server.refreshInfoBySession.empty());
    EXPECT_EQ(server.loginOptions, "");
    EXPECT_EQ(server.machineType, SsoServer::kMachineServer);
    EXPECT_FALSE(server.configPath.empty());
    EXPECT_EQ(log.lines().front(), "SsoServer: Cleaning server configs.\n");
    EXPECT_EQ(log.count("SsoServerConfigOAuth: Server OAuth config destructor.\n"), 2u);
}

}  // namespace
