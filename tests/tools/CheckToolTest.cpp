// qxss-check run as an admin runs it: a separate process on files in a folder of the test's own,
// against the local provider, a scripted server and a port where nothing listens. What it
// reports as a problem is compared with what the library itself logs for the same file.
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#ifndef QXSS_CHECK_TOOL
#error "QXSS_CHECK_TOOL must name the qxss-check binary"
#endif

namespace {

struct ToolRun {
    int status = -1;  // exit status, or -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// Runs qxss-check with `arguments`; gives up (and kills it) after two minutes.
ToolRun runCheck(std::vector<std::string> const &arguments) {
    ToolRun run;
    std::vector<std::string> argv = {QXSS_CHECK_TOOL};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char *> raw;
    for (auto const &argument : argv) {
        raw.push_back(const_cast<char *>(argument.c_str()));
    }
    raw.push_back(nullptr);
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        return run;
    }
    pid_t child = fork();
    if (child == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(raw[0], raw.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (poll(fds, 2, 1000) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
            if (got <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(got));
            }
        }
    }
    for (auto &fd : fds) {
        if (fd.fd >= 0) {
            close(fd.fd);
        }
    }
    if (child > 0) {
        if (open > 0) {
            kill(child, SIGKILL);
        }
        int status = 0;
        waitpid(child, &status, 0);
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return run;
}

Json::Value parsed(std::string const &text) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        ADD_FAILURE() << "not JSON: " << errors << "\n" << text;
    }
    return root;
}

std::string compact(Json::Value const &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value entry(std::string const &name, std::string const &provider,
                  std::string const &idpDomain) {
    Json::Value value;
    value["name"] = name;
    value["desc"] = name + " login";
    value["type"] = "OAuth";
    value["provider"] = provider;
    Json::Value &config = value["config"];
    config["idp_domain"] = idpDomain;
    config["client_id"] = LocalProvider::clientId;
    config["client_secret"] = LocalProvider::clientSecret;
    config["redirect_uris"].append(LocalProvider::redirectUri);
    config["qx_user_type"] = "local";
    return value;
}

// A loopback port where nothing listens (just closed by us).
int closedPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

class CheckToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qxss-check-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override {
        for (auto const &file : files) {
            unlink(file.c_str());
        }
        rmdir(dir.c_str());
    }

    // Writes `text` to `name` in the test's folder and returns the path.
    std::string write(std::string const &name, std::string const &text) {
        std::string path = dir + "/" + name;
        std::ofstream(path) << text;
        files.push_back(path);
        return path;
    }
    std::string write(std::string const &name, std::vector<Json::Value> const &entries) {
        Json::Value root(Json::arrayValue);
        for (auto const &value : entries) {
            root.append(value);
        }
        return write(name, compact(root));
    }

    // The problems the library logs when it loads `text` as its configuration file, in order
    // and without their line ends.
    std::vector<std::string> libraryProblems(std::string const &text) {
        std::string path = write("sso.cfg", text);
        SsoServer server;
        server.configPath = dir;
        server.machineType = 0;
        LogCapture log;
        EXPECT_FALSE(server.loadConfigsJson()) << text;
        std::vector<std::string> problems;
        for (std::string line : log.lines()) {
            if (line.find(": ERROR! ") != std::string::npos ||
                line.find(": WARNING! ") != std::string::npos) {
                line.pop_back();
                problems.push_back(line);
            }
        }
        unlink(path.c_str());
        return problems;
    }

    std::string dir;
    std::vector<std::string> files;
};

std::vector<std::string> problemLines(Json::Value const &problems) {
    std::vector<std::string> lines;
    for (auto const &problem : problems) {
        lines.push_back(problem["line"].asString());
    }
    return lines;
}

TEST_F(CheckToolTest, GoodFileGivesEveryProvidersUrl) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string base = provider.baseUrl();
    std::string file =
        write("corp.cfg", {entry("Microsoft", "microsoft", base), entry("Okta", "okta", base),
                           entry("Google", "google", base), entry("Keycloak", "keycloak", base)});
    ToolRun run = runCheck({file});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Configuration file: " + file + "\n"), std::string::npos);
    EXPECT_NE(run.out.find("ID 0: Microsoft\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("ID 3: Keycloak\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("  kind:               OAuth, microsoft\n"), std::string::npos);
    EXPECT_NE(run.out.find("  discovery:          " + base +
                           "/v2.0/.well-known/openid-configuration (succeeded)\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("  authorization URL:  " + base + "/v2.0/auth?"), std::string::npos);
    size_t urls = 0;
    for (size_t at = run.out.find("  authorization URL:  "); at != std::string::npos;
         at = run.out.find("  authorization URL:  ", at + 1)) {
        ++urls;
    }
    EXPECT_EQ(urls, 4u);
    EXPECT_NE(run.out.find("Result: The library would load this file"), std::string::npos);
    EXPECT_EQ(run.out.find("problems:"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
}

TEST_F(CheckToolTest, TheUrlIsOneTheProviderAccepts) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string file = write("one.cfg", {entry("Corp", "keycloak", provider.baseUrl())});
    ToolRun run = runCheck({"--json", file});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::string url = parsed(run.out)["providers"][0]["authorization_url"].asString();
    ASSERT_EQ(url.rfind(provider.baseUrl() + "/auth?", 0), 0u) << url;
    auto login = provider.login(url);
    EXPECT_TRUE(login.ok) << login.error;
    EXPECT_FALSE(login.code.empty());
}

TEST_F(CheckToolTest, JsonReportParsesBack) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string base = provider.baseUrl();
    Json::Value withUserinfo = entry("Okta", "okta", base);
    withUserinfo["config"]["userinfo_uri"] = base + "/me";
    withUserinfo["config"]["qx_refresh"] = true;
    withUserinfo["config"]["qx_prompt_type"] = "login";
    std::string file = write("two.cfg", {entry("Microsoft", "microsoft", base), withUserinfo});
    ToolRun run = runCheck({"--json", file});
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    Json::Value report = parsed(run.out);
    EXPECT_EQ(report["file"].asString(), file);
    EXPECT_TRUE(report["loads"].asBool());
    EXPECT_FALSE(report["offline"].asBool());
    EXPECT_EQ(report["problems"].size(), 0u);
    ASSERT_EQ(report["providers"].size(), 2u);
    Json::Value const &microsoft = report["providers"][0];
    EXPECT_EQ(microsoft["id"].asInt(), 0);
    EXPECT_EQ(microsoft["name"].asString(), "Microsoft");
    EXPECT_EQ(microsoft["type"].asString(), "OAuth");
    EXPECT_EQ(microsoft["provider"].asString(), "microsoft");
    EXPECT_EQ(microsoft["proxy"].asString(), "");
    EXPECT_EQ(microsoft["discovery"]["result"].asString(), "succeeded");
    EXPECT_EQ(microsoft["discovery"]["url"].asString(),
              base + "/v2.0/.well-known/openid-configuration");
    EXPECT_EQ(microsoft["endpoints"]["authorization"].asString(), base + "/v2.0/auth");
    EXPECT_EQ(microsoft["endpoints"]["token"].asString(), base + "/v2.0/token");
    EXPECT_EQ(microsoft["endpoints"]["issuer"].asString(), base + "/v2.0");
    std::string url = microsoft["authorization_url"].asString();
    EXPECT_EQ(url.rfind(base + "/v2.0/auth?", 0), 0u) << url;
    EXPECT_NE(url.find("client_id=qxss-client"), std::string::npos);
    EXPECT_NE(url.find("code_challenge_method=S256"), std::string::npos);
    EXPECT_NE(url.find("redirect_uri=http%3A%2F%2F127.0.0.1%3A18080%2Fcb"), std::string::npos);
    Json::Value const &okta = report["providers"][1];
    EXPECT_EQ(okta["id"].asInt(), 1);
    EXPECT_TRUE(okta["refresh"].asBool());
    EXPECT_EQ(okta["prompt_type"].asString(), "login");
    EXPECT_TRUE(okta["endpoints"]["userinfo_from_file"].asBool());
    EXPECT_EQ(okta["endpoints"]["userinfo"].asString(), base + "/me");
    EXPECT_NE(okta["authorization_url"].asString().find("prompt=login"), std::string::npos);
}

// One row per kind of file the loader refuses; the tool must report exactly the statements
// that the library logs for it, end with status 1, and list no provider.
TEST_F(CheckToolTest, EveryRefusedFileWithTheLibrarysOwnStatements) {
    Json::Value good = entry("Corp", "keycloak", "https://idp.example/realms/corp");
    auto changed = [&](std::function<void(Json::Value &)> const &change) {
        Json::Value value = good;
        change(value);
        Json::Value root(Json::arrayValue);
        root.append(value);
        return compact(root);
    };
    struct Row {
        std::string file;
        std::string expected;  // one statement that must be among the problems
    };
    std::vector<Row> rows = {
        {"{not json",
         "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed."},
        {"", "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed."},
        {"[]", "SsoServer: ERROR! Can't load configure. JSON object is empty."},
        {"null", "SsoServer: ERROR! Can't load configure. JSON object is empty."},
        {"5", "SsoServer: ERROR! Can't load configure. JSON object type is. invalid."},
        {"[1]", "SsoServer: ERROR! Can't load configure. Config with ID: 0 is invalid."},
        {changed([](Json::Value &v) { v.removeMember("name"); }),
         "SsoServer: ERROR! Field 'name' not set in config."},
        {changed([](Json::Value &v) { v["desc"] = Json::Value(); }),
         "SsoServer: ERROR! Field 'desc' has not string value in config."},
        {changed([](Json::Value &v) { v.removeMember("config"); }),
         "SsoServer: ERROR! Field 'config' not set in config."},
        {changed([](Json::Value &v) { v["config"].removeMember("client_secret"); }),
         "SsoServer: ERROR! Field 'client_secret' not set in config."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"] = "https://a/cb"; }),
         "SsoServer: ERROR! Field 'redirect_uris' is not an array type."},
        {changed([](Json::Value &v) { v["type"] = "oauth"; }),
         "SsoServer: ERROR! Field 'type' has wrong value."},
        {changed([](Json::Value &v) { v["provider"] = "Google"; }),
         "SsoServer: ERROR! Field 'provider' has wrong value."},
        {changed([](Json::Value &v) { v["config"]["idp_domain"] = "HTTPS://idp.example"; }),
         "SsoServer: ERROR! Field 'idp_domain' has wrong value. It has to start with 'http://' "
         "or 'https://'."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"] = Json::arrayValue; }),
         "SsoServer: ERROR! Field 'redirect_uris' is empty."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"][0] = 7; }),
         "SsoServer: ERROR! Element type is not a string."},
        {changed([](Json::Value &v) { v["config"]["redirect_uris"][0] = "ftp://a/cb"; }),
         "SsoServer: ERROR! Element has wrong value. It has to start with 'http://' or "
         "'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_user_type"] = "Local"; }),
         "SsoServer: ERROR! Field 'qx_user_type' has wrong value. It has to be 'local' or "
         "'domain'."},
        {changed([](Json::Value &v) { v["config"]["userinfo_uri"] = 1; }),
         "SsoServer: ERROR! Field 'userinfo_uri' value is not string."},
        {changed([](Json::Value &v) { v["config"]["userinfo_uri"] = "idp.example/me"; }),
         "SsoServer: ERROR! Field 'userinfo_uri' has wrong value. It has to start with "
         "'http://' or 'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_user_name"] = true; }),
         "SsoServer: ERROR! Field 'qx_user_name' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_prompt_type"] = 0; }),
         "SsoServer: ERROR! Field 'qx_prompt_type' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh"] = "yes"; }),
         "SsoServer: ERROR! Field 'qx_refresh' value is not bool."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh_lifetime"] = 1.5; }),
         "SsoServer: ERROR! Field 'qx_refresh_lifetime' type is not integer."},
        {changed([](Json::Value &v) { v["config"]["qx_refresh_lifetime"] = -1; }),
         "SsoServer: ERROR! Field 'qx_refresh_lifetime' value is negative or too big."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = 3128; }),
         "SsoServer: ERROR! Field 'qx_proxy' value is not string."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = "socks5://10.0.0.1:1080"; }),
         "SsoServer: ERROR! Field 'qx_proxy' has wrong value. It has to start with 'http://' or "
         "'https://'."},
        {changed([](Json::Value &v) { v["config"]["qx_proxy"] = "http://10.0.0.1:3128/"; }),
         "SsoServer: ERROR! Proxy validation failed."},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(row.file);
        std::vector<std::string> expected = libraryProblems(row.file);
        ASSERT_FALSE(expected.empty());
        EXPECT_NE(std::find(expected.begin(), expected.end(), row.expected), expected.end());

        std::string file = write("refused.cfg", row.file);
        ToolRun json = runCheck({"--offline", "--json", file});
        EXPECT_EQ(json.status, 1) << json.out << json.err;
        Json::Value report = parsed(json.out);
        EXPECT_FALSE(report["loads"].asBool());
        EXPECT_EQ(problemLines(report["problems"]), expected);
        EXPECT_EQ(report["providers"].size(), 0u);

        ToolRun text = runCheck({file});
        EXPECT_EQ(text.status, 1);
        for (std::string const &line : expected) {
            if (line.find('\n') == std::string::npos) {
                EXPECT_NE(text.out.find("  " + line + "\n"), std::string::npos) << text.out;
            }
        }
        EXPECT_NE(text.out.find("Result: The library would refuse this file"), std::string::npos);
    }
}

TEST_F(CheckToolTest, UnreachableProviderFailsAndOthersAreStillTried) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string nowhere = "http://127.0.0.1:" + std::to_string(closedPort());
    std::string file = write("nowhere.cfg", {entry("Gone", "okta", nowhere),
                                             entry("Here", "keycloak", provider.baseUrl())});
    ToolRun run = runCheck({"--json", file});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    Json::Value report = parsed(run.out);
    EXPECT_FALSE(report["loads"].asBool());
    Json::Value const &gone = report["providers"][0];
    EXPECT_EQ(gone["discovery"]["result"].asString(), "failed");
    EXPECT_EQ(gone["discovery"]["url"].asString(), nowhere + "/.well-known/openid-configuration");
    EXPECT_EQ(gone["authorization_url"].asString(), "");
    std::vector<std::string> lines = problemLines(gone["problems"]);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "SsoServer: ERROR! Metadata response is empty.");
    EXPECT_EQ(lines.front().rfind("CurlRequest: ERROR! ", 0), 0u) << lines.front();
    Json::Value const &here = report["providers"][1];
    EXPECT_EQ(here["discovery"]["result"].asString(), "succeeded");
    EXPECT_NE(here["authorization_url"].asString(), "");

    ToolRun text = runCheck({file});
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("    SsoServer: ERROR! Metadata response is empty.\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("discovery failed for 1 of 2 provider(s)"), std::string::npos);
}

TEST_F(CheckToolTest, OfflineSkipsDiscovery) {
    std::string nowhere = "http://127.0.0.1:" + std::to_string(closedPort());
    Json::Value proxied = entry("Proxied", "google", nowhere);
    proxied["config"]["qx_proxy"] = "http://127.0.0.1:3128";
    std::string file = write("offline.cfg", {entry("Gone", "okta", nowhere), proxied});
    ToolRun run = runCheck({"--offline", "--json", file});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    Json::Value report = parsed(run.out);
    EXPECT_TRUE(report["loads"].asBool());
    EXPECT_TRUE(report["offline"].asBool());
    ASSERT_EQ(report["providers"].size(), 2u);
    for (auto const &provider : report["providers"]) {
        EXPECT_EQ(provider["discovery"]["result"].asString(), "skipped");
        EXPECT_EQ(provider["discovery"]["url"].asString(), "");
        EXPECT_EQ(provider["authorization_url"].asString(), "");
        EXPECT_EQ(provider["problems"].size(), 0u);
    }
    EXPECT_EQ(report["providers"][1]["proxy"].asString(), "http://127.0.0.1:3128");

    ToolRun text = runCheck({"--offline", file});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("  discovery:          skipped\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("  proxy:              http://127.0.0.1:3128\n"), std::string::npos);
    EXPECT_EQ(text.out.find("authorization URL"), std::string::npos);
}

TEST_F(CheckToolTest, WarningsOfDiscoveryAreShownButTheFileLoads) {
    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 200,
           R"({"authorization_endpoint":")" + idp.url("/auth") + R"(","token_endpoint":")" +
               idp.url("/token") + R"(","userinfo_endpoint":")" + idp.url("/me") + R"("})");
    std::string file = write("sparse.cfg", {entry("Sparse", "keycloak", idp.url())});
    ToolRun run = runCheck({"--json", file});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    Json::Value report = parsed(run.out);
    Json::Value const &problems = report["providers"][0]["problems"];
    ASSERT_EQ(problems.size(), 2u) << run.out;
    EXPECT_EQ(problems[0]["level"].asString(), "warning");
    EXPECT_EQ(problems[0]["line"].asString(),
              "SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in oauth "
              "metadata response.");
    EXPECT_EQ(problems[1]["line"].asString(),
              "SsoServerConfigOAuth: WARNING! Field 'issuer' is not set in oauth metadata "
              "response.");
    EXPECT_EQ(report["providers"][0]["authorization_url"].asString().rfind(idp.url("/auth?"), 0),
              0u);
}

TEST_F(CheckToolTest, SamlInFrontIsNamed) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    Json::Value saml = entry("Saml", "okta", provider.baseUrl());
    saml["type"] = "SAML";
    std::string file = write("saml.cfg", {saml, entry("Google", "google", provider.baseUrl()),
                                          entry("Okta", "okta", provider.baseUrl())});
    ToolRun run = runCheck({"--json", file});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    Json::Value report = parsed(run.out);
    ASSERT_EQ(report["providers"].size(), 3u);
    EXPECT_FALSE(report["providers"][0]["served"].asBool());
    EXPECT_EQ(report["providers"][0]["notes"][0].asString(),
              "listed in the login options, but the library serves OAuth entries only");
    // ID 1 reaches the record of ID 2, and ID 2 reaches none: the library's own numbering.
    EXPECT_NE(report["providers"][1]["notes"][0].asString().find("selects the record of ID 2"),
              std::string::npos);
    EXPECT_NE(report["providers"][1]["authorization_url"].asString().find("offline_access"),
              std::string::npos);
    EXPECT_NE(report["providers"][2]["notes"][0].asString().find("selects no record"),
              std::string::npos);
    EXPECT_EQ(report["providers"][2]["authorization_url"].asString(), "");
}

TEST_F(CheckToolTest, ADirectoryStandsForItsSsoCfg) {
    write("sso.cfg", {entry("Corp", "keycloak", "https://idp.example")});
    ToolRun run = runCheck({"--offline", dir});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Configuration file: " + dir + "/sso.cfg\n"), std::string::npos);
}

TEST_F(CheckToolTest, MissingFile) {
    ToolRun run = runCheck({dir + "/absent.cfg"});
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.out.find("  qxss-check: " + dir + "/absent.cfg: No such file or directory\n"),
              std::string::npos)
        << run.out;
    ToolRun json = runCheck({"--json", dir + "/absent.cfg"});
    EXPECT_EQ(json.status, 1);
    EXPECT_FALSE(parsed(json.out)["loads"].asBool());
}

TEST_F(CheckToolTest, NoArgumentsChecksTheProductionFile) {
    ToolRun run = runCheck({"--offline"});
    EXPECT_NE(run.out.find("Configuration file: /usr/QX/etc/sso.cfg\n"), std::string::npos)
        << run.out;
    struct stat info;
    if (stat("/usr/QX/etc/sso.cfg", &info) != 0) {
        EXPECT_EQ(run.status, 1);
    } else {
        EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status;
    }
}

TEST_F(CheckToolTest, UsageErrorsAndHelp) {
    ToolRun unknown = runCheck({"--frobnicate"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err, "qxss-check: unknown option '--frobnicate'\nTry 'qxss-check --help'.\n");
    EXPECT_EQ(runCheck({"a.cfg", "b.cfg"}).status, 2);
    ToolRun help = runCheck({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: qxss-check [--offline] [--json] [--verbose] [FILE]\n", 0), 0u);
    EXPECT_NE(help.out.find("Exit status:"), std::string::npos);
    ToolRun version = runCheck({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("qxss-check ", 0), 0u);
}

TEST_F(CheckToolTest, VerboseShowsTheWholeLogOnStandardError) {
    std::string file = write("v.cfg", {entry("Corp", "keycloak", "https://idp.example")});
    ToolRun run = runCheck({"--offline", "--verbose", file});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.err.find("SsoServer: Loading configuration file.\n"), std::string::npos);
    EXPECT_NE(run.err.find("SsoServer: Added config with ID: 0\n"), std::string::npos);
    ToolRun quiet = runCheck({"--offline", file});
    EXPECT_EQ(quiet.err, "");
}

}  // namespace
