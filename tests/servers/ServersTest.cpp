// The local servers themselves, spoken to with plain libcurl: what later tests rely on.
#include "support/SsoUtils.h"
#include "tests/harness/ChildProcess.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <string>
#include <vector>

namespace {

struct Answer {
    long status = 0;
    std::string body;
    Json::Value json;
};

size_t collect(char *bytes, size_t size, size_t count, void *user) {
    static_cast<std::string *>(user)->append(bytes, size * count);
    return size * count;
}

Answer request(std::string const &url, std::string const &form = "",
               std::vector<std::string> const &headers = {}, std::string const &basic = "") {
    Answer answer;
    CURL *curl = curl_easy_init();
    curl_slist *list = nullptr;
    for (auto const &header : headers) {
        list = curl_slist_append(list, header.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    if (!form.empty()) {
        curl_easy_setopt(curl, CURLOPT_COPYPOSTFIELDS, form.c_str());
    }
    if (!basic.empty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        curl_easy_setopt(curl, CURLOPT_USERPWD, basic.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
    curl_slist_free_all(list);
    curl_easy_cleanup(curl);
    Json::Reader().parse(answer.body, answer.json);
    return answer;
}

std::string const kVerifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";

class ProviderTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { ASSERT_TRUE(provider.ready()) << provider.error; }

    std::string base() const { return provider.baseUrl() + GetParam(); }

    std::string code() {
        std::string url = base() + "/auth?client_id=qxss-client&code_challenge=" +
                          getHashBase64Url(kVerifier.c_str()) +
                          "&code_challenge_method=S256&nonce=n&redirect_uri=http%3A%2F%2F127.0.0."
                          "1%3A18080%2Fcb&response_type=code&scope=openid%20email%20profile%20"
                          "offline_access%20https%3A%2F%2Fgraph.microsoft.com%2FUser.Read&state="
                          "s&response_mode=query&access_type=offline&prompt=login";
        auto login = provider.login(url);
        EXPECT_TRUE(login.ok) << login.error;
        EXPECT_EQ(login.state, "s");
        return login.code;
    }

    std::string exchangeForm(std::string const &code) const {
        return "grant_type=authorization_code&code=" + code +
               "&redirect_uri=http%3A%2F%2F127.0.0.1%3A18080%2Fcb&code_verifier=" + kVerifier;
    }

    LocalProvider &provider = LocalProvider::shared();
};

TEST_P(ProviderTest, DiscoveryNamesItsOwnEndpoints) {
    Answer doc = request(base() + "/.well-known/openid-configuration");
    ASSERT_EQ(doc.status, 200);
    EXPECT_EQ(doc.json["issuer"].asString(), base());
    EXPECT_EQ(doc.json["authorization_endpoint"].asString(), base() + "/auth");
    EXPECT_EQ(doc.json["token_endpoint"].asString(), base() + "/token");
    EXPECT_EQ(doc.json["userinfo_endpoint"].asString(), base() + "/me");
    EXPECT_EQ(doc.json["revocation_endpoint"].asString(), base() + "/token/revocation");
}

TEST_P(ProviderTest, CodeExchangeWithFormCredentialsThenRefreshUserinfoAndRevoke) {
    Answer tokens =
        request(base() + "/token",
                exchangeForm(code()) + "&client_id=qxss-client&client_secret=qxss-secret");
    ASSERT_EQ(tokens.status, 200) << tokens.body;
    std::string access = tokens.json["access_token"].asString();
    std::string refresh = tokens.json["refresh_token"].asString();
    EXPECT_FALSE(access.empty());
    EXPECT_FALSE(refresh.empty());
    EXPECT_FALSE(tokens.json["id_token"].asString().empty());

    Answer me = request(base() + "/me", "", {"Authorization: Bearer " + access});
    ASSERT_EQ(me.status, 200) << me.body;
    EXPECT_EQ(me.json["email"].asString(), "alice@example.com");
    EXPECT_EQ(me.json["preferred_username"].asString(), "alice");
    EXPECT_EQ(me.json["qx_login"].asString(), "alice.local");

    Answer renewed = request(base() + "/token", "grant_type=refresh_token&refresh_token=" + refresh,
                             {}, "qxss-client:qxss-secret");
    ASSERT_EQ(renewed.status, 200) << renewed.body;
    EXPECT_FALSE(renewed.json["access_token"].asString().empty());

    Answer revoked = request(base() + "/token/revocation",
                             "token=" + renewed.json["access_token"].asString() +
                                 "&client_id=qxss-client&client_secret=qxss-secret");
    EXPECT_EQ(revoked.status, 200) << revoked.body;
    Answer after = request(base() + "/me", "",
                           {"Authorization: Bearer " + renewed.json["access_token"].asString()});
    EXPECT_EQ(after.status, 401);
}

TEST_P(ProviderTest, CodeExchangeWithBasicCredentials) {
    Answer tokens = request(base() + "/token", exchangeForm(code()), {}, "qxss-client:qxss-secret");
    ASSERT_EQ(tokens.status, 200) << tokens.body;
    EXPECT_FALSE(tokens.json["refresh_token"].asString().empty());
}

TEST_P(ProviderTest, WrongSecretAndWrongVerifierAreRefused) {
    Answer wrongSecret = request(base() + "/token", exchangeForm(code()), {}, "qxss-client:nope");
    EXPECT_EQ(wrongSecret.status, 401) << wrongSecret.body;
    Answer wrongVerifier =
        request(base() + "/token",
                "grant_type=authorization_code&code=" + code() +
                    "&redirect_uri=http%3A%2F%2F127.0.0.1%3A18080%2Fcb&code_verifier=" +
                    std::string(43, 'x'),
                {}, "qxss-client:qxss-secret");
    EXPECT_EQ(wrongVerifier.status, 400) << wrongVerifier.body;
    EXPECT_EQ(wrongVerifier.json["error"].asString(), "invalid_grant");
}

INSTANTIATE_TEST_SUITE_P(BothUrlForms, ProviderTest, ::testing::Values("", "/v2.0"));

TEST(FailureServerTest, ScriptedAnswersAndRecordedRequests) {
    FailureServer server;
    server.on("/bad", 500, "not json");
    FailureServer::Reply typed;
    typed.body = "{\"access_token\":5}";
    server.on("/typed", typed);
    EXPECT_EQ(request(server.url("/bad")).status, 500);
    EXPECT_EQ(request(server.url("/bad")).body, "not json");
    EXPECT_EQ(request(server.url("/typed?x=1"), "a=b").body, "{\"access_token\":5}");
    EXPECT_EQ(request(server.url("/missing")).status, 404);
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[2].method, "POST");
    EXPECT_EQ(requests[2].target, "/typed?x=1");
    EXPECT_EQ(requests[2].body, "a=b");
}

TEST(LocalProxyTest, TunnelsToTheProvider) {
    auto &proxy = LocalProxy::shared();
    auto &provider = LocalProvider::shared();
    ASSERT_TRUE(proxy.ready()) << proxy.error;
    ASSERT_TRUE(provider.ready()) << provider.error;
    int before = proxy.connections();
    CURL *curl = curl_easy_init();
    std::string body;
    std::string url = provider.baseUrl() + "/.well-known/openid-configuration";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy.url().c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPPROXYTUNNEL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    EXPECT_EQ(curl_easy_perform(curl), CURLE_OK);
    curl_easy_cleanup(curl);
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse(body, document)) << body;
    EXPECT_EQ(document["authorization_endpoint"], provider.baseUrl() + "/auth") << body;
    EXPECT_EQ(proxy.connections(), before + 1);
}

// A helper program dies with the test program that started it, even when that program is
// killed outright and the helper does not watch its standard input.
TEST(ChildProcessTest, DiesWithTheProgramThatStartedIt) {
    // Orphans of this process come back to it, so that it can see how the helper ended.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    struct Unset {
        ~Unset() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
    } unset;
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t program = fork();
    if (program == 0) {
        // A stand-in for a test program: starts a helper, reports its pid once the helper
        // runs (a program that dies earlier is the helper's own check), waits to be killed.
        ChildProcess helper;
        bool running = helper.start({"sh", "-c", "echo ready 1; exec sleep 600"}) &&
                       helper.waitForLine("ready ", 10000) == "1";
        int pid = running ? helper.pid : -1;
        ssize_t ignored = write(report[1], &pid, sizeof pid);
        (void)ignored;
        pause();
        _exit(0);
    }
    ASSERT_GT(program, 0);
    close(report[1]);
    int helper = -1;
    ASSERT_EQ(read(report[0], &helper, sizeof helper), static_cast<ssize_t>(sizeof helper));
    close(report[0]);
    ASSERT_GT(helper, 0);
    ASSERT_EQ(kill(program, SIGKILL), 0);
    ASSERT_EQ(waitpid(program, nullptr, 0), program);
    // The helper was orphaned to this process; it must end by SIGKILL, at once.
    int status = 0;
    pid_t ended = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((ended = waitpid(helper, &status, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (ended == 0) {
        kill(helper, SIGKILL);
        waitpid(helper, nullptr, 0);
        FAIL() << "the helper outlived the program that started it";
    }
    ASSERT_EQ(ended, helper);
    EXPECT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

}  // namespace
