// qxss-check on files the library loads: discovery at the local provider and at scripted
// servers, what the report holds, and the URL it builds.
#include "tests/tools/ToolRun.h"

#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>

namespace {

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

}  // namespace
