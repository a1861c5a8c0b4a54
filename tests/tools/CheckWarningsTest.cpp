// qxss-check's own warnings, which never change its exit status: who may read, write or replace
// the file, unencrypted addresses, an issuer that is not the idp_domain, and the real providers'
// rules that fail every login; values from a provider printed with their control characters
// escaped; and --offline, which asks no resolver.
#include "tests/tools/ToolRun.h"

#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

Json::Value offlineEntry(std::string const &provider) {
    Json::Value value = entry("Corp", provider, "https://idp.example");
    value["config"]["redirect_uris"][0] = "https://app.example/cb";
    return value;
}

std::vector<std::string> warningsOf(Json::Value const &list) {
    std::vector<std::string> lines;
    for (auto const &line : list) {
        lines.push_back(line.asString());
    }
    return lines;
}

bool holds(std::vector<std::string> const &lines, std::string const &line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(CheckToolTest, FileReadableByOthersIsWarnedAbout) {
    std::string path = write("open.cfg", {offlineEntry("microsoft")});
    ToolRun quiet = runCheck({"--offline", "--json", path});
    EXPECT_EQ(quiet.status, 0);
    EXPECT_EQ(parsed(quiet.out)["warnings"].size(), 0u) << quiet.out;

    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    std::string expected =
        "the file is readable or writable by group or others (mode 0644), and "
        "it holds client secrets: chmod 600 " +
        path;
    ToolRun json = runCheck({"--offline", "--json", path});
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(warningsOf(parsed(json.out)["warnings"]), std::vector<std::string>{expected});
    ToolRun text = runCheck({"--offline", path});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out.rfind("Configuration file: " + path + "\nwarning: " + expected + "\n\n", 0),
              0u)
        << text.out;
}

TEST_F(CheckToolTest, FileNotOwnedByRootIsWarnedAbout) {
    std::string path = write("owned.cfg", {offlineEntry("microsoft")});
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give the file away";
    }
    ASSERT_EQ(chown(path.c_str(), 65534, static_cast<gid_t>(-1)), 0);
    ToolRun run = runCheck({"--offline", "--json", path});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(warningsOf(parsed(run.out)["warnings"]),
              std::vector<std::string>{"the file is owned by uid 65534, not by root: its owner "
                                       "can change which providers the library trusts (chown "
                                       "root " +
                                       path + ")"});
}

TEST_F(CheckToolTest, DirectoryWritableByOthersIsWarnedAbout) {
    std::string path = write("sso.cfg", {offlineEntry("microsoft")});
    ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
    ToolRun run = runCheck({"--offline", "--json", path});
    chmod(dir.c_str(), 0700);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(warningsOf(parsed(run.out)["warnings"]),
              std::vector<std::string>{"the directory " + dir +
                                       " is writable by others (mode "
                                       "0777): anyone can put another file in its place (chmod "
                                       "o-w " +
                                       dir + ")"});
}

TEST_F(CheckToolTest, PlainHttpAddressesAreWarnedAbout) {
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(provider.ready()) << provider.error;
    std::string base = provider.baseUrl();
    ToolRun run = runCheck({"--json", write("http.cfg", {entry("Corp", "microsoft", base)})});
    EXPECT_EQ(run.status, 0) << run.out;
    std::vector<std::string> expected = {
        "idp_domain " + base +
            " is http://: discovery travels unencrypted, so anyone on the "
            "way can give the library other endpoints",
        "redirect URI http://127.0.0.1:18080/cb is http://: the authorization code travels to "
        "it unencrypted",
    };
    for (char const *name : {"authorization", "token", "userinfo", "revocation"}) {
        std::string path = std::string(name) == "authorization" ? "/auth"
                           : std::string(name) == "token"       ? "/token"
                           : std::string(name) == "userinfo"    ? "/me"
                                                                : "/token/revocation";
        expected.push_back(std::string("the ") + name + " endpoint " + base + "/v2.0" + path +
                           " is http://: what goes to it and comes back travels unencrypted");
    }
    // The issuer of microsoft's document is the idp_domain with "/v2.0": no warning for it.
    EXPECT_EQ(warningsOf(parsed(run.out)["providers"][0]["warnings"]), expected);

    ToolRun https =
        runCheck({"--offline", "--json", write("https.cfg", {offlineEntry("microsoft")})});
    EXPECT_EQ(parsed(https.out)["providers"][0]["warnings"].size(), 0u) << https.out;
}

TEST_F(CheckToolTest, AnIssuerThatIsNotTheIdpDomainIsWarnedAbout) {
    for (std::string provider : {"keycloak", "microsoft"}) {
        SCOPED_TRACE(provider);
        FailureServer idp;
        std::string prefix = provider == "microsoft" ? "/v2.0" : "";
        idp.on(prefix + "/.well-known/openid-configuration", 200,
               R"({"issuer":"https://elsewhere.example","authorization_endpoint":"https://a/auth",)"
               R"("token_endpoint":"https://a/token","userinfo_endpoint":"https://a/me",)"
               R"("revocation_endpoint":"https://a/revoke"})");
        Json::Value value = entry("Corp", provider, idp.url());
        value["config"]["qx_refresh"] = true;
        value["config"]["redirect_uris"][0] = "https://app.example/cb";
        ToolRun run = runCheck({"--json", write("issuer.cfg", {value})});
        EXPECT_EQ(run.status, 0) << run.out;
        std::vector<std::string> warnings = warningsOf(parsed(run.out)["providers"][0]["warnings"]);
        std::string expected =
            provider == "microsoft"
                ? "the discovered issuer 'https://elsewhere.example' is not '" + idp.url() +
                      "/v2.0', the idp_domain with \"/v2.0\" it was fetched from: the document "
                      "may describe another provider"
                : "the discovered issuer 'https://elsewhere.example' is not '" + idp.url() +
                      "', the idp_domain it was fetched from: the document may describe another "
                      "provider";
        EXPECT_TRUE(holds(warnings, expected)) << run.out;
    }
}

TEST_F(CheckToolTest, ProviderRulesThatFailEveryLoginNameTheirSetting) {
    std::vector<Json::Value> entries;
    for (char const *provider : {"okta", "google", "keycloak", "microsoft"}) {
        entries.push_back(offlineEntry(provider));
    }
    Json::Value fixedGoogle = offlineEntry("google");
    fixedGoogle["config"]["qx_refresh"] = true;
    fixedGoogle["config"]["qx_prompt_type"] = "consent";
    entries.push_back(fixedGoogle);
    Json::Value fixedOkta = offlineEntry("okta");
    fixedOkta["config"]["qx_refresh"] = true;
    entries.push_back(fixedOkta);
    ToolRun run = runCheck({"--offline", "--json", write("rules.cfg", entries)});
    EXPECT_EQ(run.status, 0) << run.out;
    Json::Value providers = parsed(run.out)["providers"];
    auto revocation = [](std::string const &provider) {
        return "every login fails: with qx_refresh off the library revokes the refresh token, "
               "and " +
               provider +
               " answers a successful revocation with an empty 200, which "
               "the library counts as a failed revocation; set \"qx_refresh\": true";
    };
    std::string consent =
        "logins fail after a user's first: google sends a refresh token only when the user "
        "consents, and the library fails every login whose answer has none; set "
        "\"qx_prompt_type\": \"consent\"";
    EXPECT_EQ(warningsOf(providers[0]["warnings"]), std::vector<std::string>{revocation("okta")});
    EXPECT_EQ(warningsOf(providers[1]["warnings"]),
              (std::vector<std::string>{revocation("google"), consent}));
    EXPECT_EQ(warningsOf(providers[2]["warnings"]),
              std::vector<std::string>{revocation("keycloak")});
    for (int fixed : {3, 4, 5}) {
        EXPECT_EQ(providers[fixed]["warnings"].size(), 0u) << fixed;
    }
    ToolRun text = runCheck({"--offline", write("rules.cfg", entries)});
    EXPECT_NE(text.out.find("  warning: " + consent + "\n"), std::string::npos) << text.out;
}

TEST_F(CheckToolTest, MicrosoftUserNameClaimMustBeInItsUserinfo) {
    Json::Value upn = offlineEntry("microsoft");
    upn["config"]["qx_user_name"] = "preferred_username";
    Json::Value email = offlineEntry("microsoft");
    email["config"]["qx_user_name"] = "email";
    ToolRun run = runCheck({"--offline", "--json", write("ms.cfg", {upn, email})});
    EXPECT_EQ(run.status, 0) << run.out;
    Json::Value providers = parsed(run.out)["providers"];
    EXPECT_EQ(warningsOf(providers[0]["warnings"]),
              std::vector<std::string>{
                  "every login fails: microsoft's userinfo answer holds only sub, the name "
                  "claims and email, never 'preferred_username', and qx_user_name admits no "
                  "other claim; set \"qx_user_name\": \"email\" or leave it out"});
    EXPECT_EQ(providers[1]["warnings"].size(), 0u);
}

TEST_F(CheckToolTest, ValuesFromTheProviderAreEscaped) {
    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 200,
           R"({"issuer":"evil\u001b[31m\r\nResult: fine","authorization_endpoint":")" +
               idp.url("/auth") + R"(","token_endpoint":")" + idp.url("/token\u0085") +
               R"(","userinfo_endpoint":")" + idp.url("/me") + R"("})");
    ToolRun run = runCheck({write("evil.cfg", {entry("Corp", "okta", idp.url())})});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("  issuer:             evil\\x1b[31m\\r\\nResult: fine\n"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("  token:              " + idp.url("/token\\u0085") + "\n"),
              std::string::npos)
        << run.out;
    EXPECT_EQ(linesStartingWith(run.out, "Result: ").size(), 1u) << run.out;
}

TEST_F(CheckToolTest, OfflineChecksProxyNamesForFormOnly) {
    Json::Value named = offlineEntry("microsoft");
    named["config"]["qx_proxy"] = "http://proxy.invalid:3128";
    Json::Value literal = offlineEntry("microsoft");
    literal["config"]["qx_proxy"] = "http://127.0.0.1:3128";
    ToolRun run = runCheck({"--offline", "--json", write("named.cfg", {named, literal})});
    // A resolver would know no ".invalid" name: passing shows that none was asked.
    EXPECT_EQ(run.status, 0) << run.out;
    Json::Value providers = parsed(run.out)["providers"];
    EXPECT_EQ(providers[0]["notes"][0].asString(),
              "proxy host 'proxy.invalid' was checked for form only: --offline looks up no name");
    EXPECT_EQ(providers[1]["notes"].size(), 0u);

    Json::Value badName = offlineEntry("microsoft");
    badName["config"]["qx_proxy"] = "http://bad_name:3128";
    ToolRun refused = runCheck({"--offline", "--json", write("bad.cfg", {badName})});
    EXPECT_EQ(refused.status, 1) << refused.out;
    EXPECT_TRUE(holds(problemLines(parsed(refused.out)["problems"]),
                      "SsoServer: ERROR! Proxy validation failed."))
        << refused.out;
}

// The entries that docs/configuration.md gives for the real providers: valid, and free of every
// warning (the documented rules are the ones the checker knows).
TEST_F(CheckToolTest, TheDocumentedProviderEntriesPassEveryRule) {
    std::string source = __FILE__;
    std::string docs = source.substr(0, source.rfind("/tests/tools/")) + "/docs/configuration.md";
    std::ifstream in(docs);
    ASSERT_TRUE(in) << docs;
    std::stringstream text;
    text << in.rdbuf();
    std::string page = text.str();
    size_t at = page.find("## Providers");
    ASSERT_NE(at, std::string::npos);
    std::string file = "[";
    int blocks = 0;
    for (at = page.find("```json\n", at); at != std::string::npos;
         at = page.find("```json\n", at)) {
        at += 8;
        size_t end = page.find("```", at);
        file += (blocks++ ? "," : "") + page.substr(at, end - at);
        at = end;
    }
    file += "]";
    ASSERT_EQ(blocks, 4);
    ToolRun run = runCheck({"--offline", "--json", write("documented.cfg", file)});
    EXPECT_EQ(run.status, 0) << run.out;
    Json::Value report = parsed(run.out);
    std::vector<std::string> providers;
    for (auto const &provider : report["providers"]) {
        providers.push_back(provider["provider"].asString());
        EXPECT_EQ(provider["warnings"].size(), 0u) << run.out;
    }
    EXPECT_EQ(providers, (std::vector<std::string>{"microsoft", "okta", "google", "keycloak"}));
}

}  // namespace
