// qxss-check --login: a whole login from the terminal through the library's own code, the
// redirect address typed on standard input, against the local provider (a scripted sign-in)
// and scripted servers for what the real providers do that the local one does not.
#include "tests/tools/ToolRun.h"

#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>
#include <vector>

namespace {

char const kPrompt[] = "Then paste the address the browser was sent back to (or the code alone):\n";

// The authorization URL the program printed, once it waits for the answer; "" before that.
std::string printedUrl(std::string const &out) {
    static std::string const head = "Open this address in a browser and sign in:\n\n  ";
    size_t at = out.find(head);
    if (at == std::string::npos || out.find(kPrompt) == std::string::npos) {
        return "";
    }
    at += head.size();
    return out.substr(at, out.find('\n', at) - at);
}

// The value of `key` in the query of `url`.
std::string queryValue(std::string const &url, std::string const &key) {
    size_t at = url.find("?" + key + "=");
    if (at == std::string::npos) {
        at = url.find("&" + key + "=");
    }
    if (at == std::string::npos) {
        return "";
    }
    at += key.size() + 2;
    size_t end = url.find('&', at);
    return url.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// Signs in at the local provider with the printed URL and types what `change` makes of the
// address the browser was sent back to.
ToolAnswer signIn(std::function<std::string(std::string const &)> change =
                      [](std::string const &location) { return location; }) {
    return [change](std::string const &out, std::string &input) {
        std::string url = printedUrl(out);
        if (url.empty()) {
            return false;
        }
        auto login = LocalProvider::shared().login(url);
        EXPECT_TRUE(login.ok) << login.error;
        input = change(login.location) + "\n";
        return true;
    };
}

// Types `typed`, with the printed state put where "<state>" stands.
ToolAnswer type(std::string typed) {
    return [typed](std::string const &out, std::string &input) {
        std::string url = printedUrl(out);
        if (url.empty()) {
            return false;
        }
        input = typed;
        size_t at = input.find("<state>");
        if (at != std::string::npos) {
            input.replace(at, 7, queryValue(url, "state"));
        }
        input += "\n";
        return true;
    };
}

bool has(std::string const &text, std::string const &line) {
    return text.find(line) != std::string::npos;
}

class CheckLoginTest : public CheckToolTest {
protected:
    void SetUp() override {
        CheckToolTest::SetUp();
        ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
        base = LocalProvider::shared().baseUrl();
    }
    void TearDown() override {
        LocalProvider::shared().setRevocationBody(false);
        CheckToolTest::TearDown();
    }

    // One entry of `provider` at the local provider, with qx_refresh as given.
    std::string file(std::string const &provider, bool refresh) {
        Json::Value value = entry("Corp", provider, base);
        value["config"]["qx_refresh"] = refresh;
        return write("login.cfg", {value});
    }

    // A provider that answers the token request with `tokens` and userinfo with `claims`.
    std::string scripted(FailureServer &idp, std::string const &provider, std::string const &tokens,
                         std::string const &claims) {
        idp.on("/.well-known/openid-configuration", 200,
               R"({"issuer":")" + idp.url() + R"(","authorization_endpoint":")" + idp.url("/auth") +
                   R"(","token_endpoint":")" + idp.url("/token") + R"(","userinfo_endpoint":")" +
                   idp.url("/me") + R"(","revocation_endpoint":")" + idp.url("/revoke") + R"("})");
        idp.on("/token", 200, tokens);
        idp.on("/me", 200, claims);
        Json::Value value = entry("Scripted", provider, idp.url());
        value["config"]["qx_refresh"] = true;
        value["config"]["qx_prompt_type"] = "consent";
        return write("scripted.cfg", {value});
    }

    std::string base;
};

TEST_F(CheckLoginTest, FlowRoadLogsInAndKeepsTheRefreshRecord) {
    ToolRun run = runCheck({"--login", "0", file("keycloak", true)}, signIn());
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::string const &out = run.out;
    EXPECT_TRUE(has(out, "Login option ID 0: provider 'keycloak', record of ID 0, qx_refresh on\n"))
        << out;
    EXPECT_TRUE(has(out, "state: the one this login sent\n")) << out;
    EXPECT_TRUE(
        has(out, "SSO_VERIFY on the background flow:\n  token: POST " + base + "/token -> 200 in "))
        << out;
    EXPECT_EQ(linesStartingWith(out, "  userinfo: GET " + base + "/me -> 200 in ").size(), 1u);
    EXPECT_TRUE(linesStartingWith(out, "  revocation: ").empty());
    EXPECT_TRUE(has(out, "Userinfo claims:\n")) << out;
    EXPECT_TRUE(has(out, "  email: alice@example.com\n")) << out;
    EXPECT_TRUE(has(out,
                    "User name:\n  no qx_user_name: the claim 'email' counts (the default "
                    "of every provider)\n  email is 'alice@example.com'\n  qx_user_type "
                    "'local': the name is cut before its first '@'\n  local user name: "
                    "'alice'\n"))
        << out;
    EXPECT_TRUE(has(out,
                    "Refresh: the library keeps a refresh record under the session value; "
                    "SSO_REFRESH with it works for 3600 s\n"))
        << out;
    std::vector<std::string> token = linesStartingWith(out, "User token: alice|");
    ASSERT_EQ(token.size(), 1u) << out;
    // The session value, 32 characters, shows its first four only.
    EXPECT_EQ(token[0].substr(22, 28), std::string(28, '*')) << token[0];
    EXPECT_EQ(token[0][50], '|') << token[0];
    EXPECT_TRUE(has(out, "\nResult: Logged in: a host's SSO_VERIFY gets the user 'alice'.\n"));
}

TEST_F(CheckLoginTest, ShowSecretsShowsTheSessionValue) {
    ToolRun run = runCheck({"--login", "0", "--show-secrets", file("keycloak", true)}, signIn());
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::vector<std::string> token = linesStartingWith(run.out, "User token: alice|");
    ASSERT_EQ(token.size(), 1u) << run.out;
    EXPECT_EQ(token[0].find('*'), std::string::npos) << token[0];
}

TEST_F(CheckLoginTest, BlockingRoadLogsInToo) {
    ToolRun run = runCheck({"--login", "0", "--road", "blocking", file("okta", true)}, signIn());
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(has(
        run.out, "SSO_VERIFY on the blocking road:\n  token: POST " + base + "/token -> 200 in "))
        << run.out;
    EXPECT_TRUE(has(run.out, "Result: Logged in: a host's SSO_VERIFY gets the user 'alice'.\n"));
}

TEST_F(CheckLoginTest, TheCodeAloneIsTakenWithoutAStateCheck) {
    ToolRun run = runCheck({"--login", "0", file("keycloak", true)},
                           signIn([](std::string const &l) { return queryValue(l, "code"); }));
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(has(run.out, "state: not checked (the code was given alone)\n")) << run.out;
}

TEST_F(CheckLoginTest, AnEmptyRevocationAnswerFailsTheLoginAndSaysWhy) {
    std::string path = file("keycloak", false);
    for (char const *road : {"flow", "blocking"}) {
        SCOPED_TRACE(road);
        ToolRun run = runCheck({"--login", "0", "--road", road, path}, signIn());
        EXPECT_EQ(run.status, 1) << run.out << run.err;
        EXPECT_TRUE(has(run.out,
                        "warning: every login fails: with qx_refresh off the library "
                        "revokes the refresh token, and keycloak answers a successful "
                        "revocation with an empty 200, which the library counts as a "
                        "failed revocation; set \"qx_refresh\": true\n"))
            << run.out;
        EXPECT_EQ(linesStartingWith(run.out,
                                    "  revocation: POST " + base + "/token/revocation -> 200 in ")
                      .size(),
                  1u)
            << run.out;
        EXPECT_TRUE(has(run.out, "  local user name: 'alice' (the login failed after it)\n"))
            << run.out;
        EXPECT_TRUE(has(run.out, "  SsoServer: ERROR! Tokens revocation failed.\n")) << run.out;
        EXPECT_TRUE(has(run.out,
                        "hint: the provider answered the revocation with an empty 200, "
                        "which the library counts as a failed revocation; set "
                        "\"qx_refresh\": true for this entry\n"))
            << run.out;
        EXPECT_TRUE(has(run.out,
                        "\nResult: Not logged in: SSO_VERIFY was answered "
                        "SSO_VERIFY_FAILURE.\n"))
            << run.out;
    }
}

TEST_F(CheckLoginTest, ARevocationWithABodyLetsTheLoginThrough) {
    ASSERT_TRUE(LocalProvider::shared().setRevocationBody(true));
    ToolRun run = runCheck({"--login", "0", file("keycloak", false)}, signIn());
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(has(run.out, "Revocation: the refresh token was revoked at the provider (200)\n"))
        << run.out;
    EXPECT_EQ(linesStartingWith(run.out, "User token: alice|000|").size(), 1u) << run.out;
}

TEST_F(CheckLoginTest, MicrosoftIsNotRevoked) {
    ToolRun run = runCheck({"--login", "0", file("microsoft", false)}, signIn());
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(linesStartingWith(run.out, "  revocation: ").empty()) << run.out;
    EXPECT_TRUE(has(run.out,
                    "Revocation: none: the library does not revoke at microsoft; the "
                    "refresh token stays valid at the provider until it expires "
                    "there\n"))
        << run.out;
}

TEST_F(CheckLoginTest, WhatThePastedAddressMustHold) {
    std::string path = file("keycloak", true);
    struct Row {
        ToolAnswer answer;
        std::string result;
    };
    std::vector<Row> rows = {
        {signIn([](std::string const &l) {
             std::string changed = l;
             size_t at = changed.find("state=") + 6;
             changed[at] = changed[at] == 'A' ? 'B' : 'A';
             return changed;
         }),
         "the state of the pasted address is not the one this login sent"},
        {signIn([](std::string const &l) { return l.substr(0, l.find("&state=")); }),
         "the pasted address has no state"},
        {type("http://127.0.0.1:18080/cb?state=<state>"), "the pasted address has no code"},
        {type("http://127.0.0.1:18080/cb?error=access_denied&error_description=The%20user%20said%"
              "20no&state=<state>"),
         "the provider sent the error 'access_denied' ('The user said no')"},
        {nullptr, "nothing was pasted (end of input)"},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(row.result);
        ToolRun run = runCheck({"--login", "0", path}, row.answer);
        EXPECT_EQ(run.status, 1) << run.out << run.err;
        EXPECT_TRUE(has(run.out, "\nResult: Not logged in: " + row.result + ".\n")) << run.out;
        EXPECT_TRUE(linesStartingWith(run.out, "SSO_VERIFY on ").empty()) << run.out;
    }
}

TEST_F(CheckLoginTest, FilesAndIdsThatCannotLogIn) {
    std::string nowhere = "http://127.0.0.1:" + std::to_string(closedPort());
    Json::Value refused = entry("Bad", "keycloak", base);
    refused["config"]["qx_user_type"] = "Local";
    struct Row {
        std::vector<std::string> arguments;
        std::string result;
    };
    std::vector<Row> rows = {
        {{"--login", "0", dir + "/absent.cfg"}, dir + "/absent.cfg: No such file or directory"},
        {{"--login", "0", write("refused.cfg", {refused})},
         "the library would not load this file (SSO_LOAD_CONFIGS_FAILURE)"},
        {{"--login", "0", write("gone.cfg", {entry("Gone", "okta", nowhere)})},
         "discovery failed (SSO_LOAD_METADATA_FAILURE)"},
        {{"--login", "7", file("keycloak", true)},
         "no OAuth record answers to the login option ID 7 (SSO_GET_CONFIG_FAILURE)"},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(row.result);
        ToolRun run = runCheck(row.arguments, type("never asked"));
        EXPECT_EQ(run.status, 1) << run.out << run.err;
        EXPECT_TRUE(has(run.out, "\nResult: Not logged in: " + row.result + ".\n")) << run.out;
        EXPECT_EQ(run.out.find(kPrompt), std::string::npos) << run.out;
    }
}

TEST_F(CheckLoginTest, NoRefreshTokenNamesTheSettingForGoogle) {
    FailureServer idp;
    std::string tokens = R"({"access_token":"at","id_token":"it","token_type":"Bearer"})";
    std::string claims = R"({"sub":"1","email":"bob@example.com"})";
    struct Row {
        std::string provider;
        std::string hint;
    };
    std::vector<Row> rows = {
        {"google",
         "hint: the token answer has no refresh token: google sends one only when the user "
         "consents; set \"qx_prompt_type\": \"consent\" for this entry\n"},
        {"keycloak",
         "hint: the token answer has no refresh token, and the library fails a login without "
         "one: the provider must issue one to this client\n"},
    };
    for (Row const &row : rows) {
        SCOPED_TRACE(row.provider);
        ToolRun run = runCheck({"--login", "0", scripted(idp, row.provider, tokens, claims)},
                               type("http://127.0.0.1:18080/cb?code=c0de&state=<state>"));
        EXPECT_EQ(run.status, 1) << run.out << run.err;
        EXPECT_TRUE(has(run.out, row.hint)) << run.out;
        EXPECT_TRUE(has(run.out,
                        "\nResult: Not logged in: SSO_VERIFY was answered "
                        "SSO_VERIFY_FAILURE.\n"))
            << run.out;
    }
}

TEST_F(CheckLoginTest, AProviderThatNeverAnswersEndsInTheTimeOut) {
    FailureServer idp;
    std::string path = scripted(idp, "keycloak", "{}", "{}");
    idp.on("/token", FailureServer::Mode::Hang);
    ToolRun run = runCheck({"--login", "0", "--timeout", "1", path},
                           type("http://127.0.0.1:18080/cb?code=c0de&state=<state>"));
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_TRUE(has(run.out, "\nResult: Not logged in: SSO_VERIFY got no reply within 1 s.\n"))
        << run.out;
}

TEST_F(CheckLoginTest, ClaimsAreShownWithTheirControlCharactersEscaped) {
    FailureServer idp;
    std::string tokens = R"({"access_token":"at","id_token":"it","refresh_token":"rt"})";
    std::string claims =
        R"({"email":"bob@example.com","name":"Bob\u001b[2J\r\nResult: Logged in","groups":["a"]})";
    ToolRun run = runCheck({"--login", "0", scripted(idp, "okta", tokens, claims)},
                           type("http://127.0.0.1:18080/cb?code=c0de&state=<state>"));
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_TRUE(has(run.out, "  name: Bob\\x1b[2J\\r\\nResult: Logged in\n")) << run.out;
    EXPECT_TRUE(has(run.out, "  groups: [\"a\"]\n")) << run.out;
    EXPECT_TRUE(has(run.out,
                    "  no qx_user_name: the claim 'email' counts (the answer has no "
                    "'preferred_username')\n"))
        << run.out;
    EXPECT_EQ(linesStartingWith(run.out, "Result: ").size(), 1u) << run.out;
    EXPECT_TRUE(has(run.out, "Result: Logged in: a host's SSO_VERIFY gets the user 'bob'.\n"));
}

TEST_F(CheckLoginTest, OptionsThatDoNotGoWithLogin) {
    struct Row {
        std::vector<std::string> arguments;
        std::string error;
    };
    std::vector<Row> rows = {
        {{"--login", "0", "--offline"}, "--offline does not go with --login"},
        {{"--login", "0", "--json"}, "--json does not go with --login"},
        {{"--road", "flow"}, "--road goes with --login only"},
        {{"--timeout", "5"}, "--timeout goes with --login only"},
        {{"--show-secrets"}, "--show-secrets goes with --login only"},
        {{"--login", "0", "--road", "fast"}, "--road takes 'flow' or 'blocking', not 'fast'"},
        {{"--login", "x"}, "--login takes a login option ID (digits), not 'x'"},
        {{"--login", "0", "--timeout", "0"}, "--timeout takes seconds (1 to 9999), not '0'"},
        {{"--login"}, "option '--login' needs a value"},
    };
    for (Row const &row : rows) {
        ToolRun run = runCheck(row.arguments);
        EXPECT_EQ(run.status, 2) << row.error;
        EXPECT_EQ(run.err, "qxss-check: " + row.error + "\nTry 'qxss-check --help'.\n");
    }
}

}  // namespace
