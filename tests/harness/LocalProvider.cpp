#include "tests/harness/LocalProvider.h"

#include "tests/harness/TestCa.h"

#include <curl/curl.h>
#include <json/reader.h>

#include <unistd.h>

namespace {

std::string serversDirectory() {
    return std::string(QXSS_SOURCE_DIR) + "/tests/servers";
}

size_t collect(char *bytes, size_t size, size_t count, void *user) {
    static_cast<std::string *>(user)->append(bytes, size * count);
    return size * count;
}

// A plain GET for the provider's test controls; the body, or "" on failure. Over HTTPS the
// test CA is trusted by name, so that a test may change the system bundle meanwhile.
std::string fetch(std::string const &url) {
    CURL *handle = curl_easy_init();
    if (handle == nullptr) {
        return std::string();
    }
    std::string body;
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    if (url.compare(0, 8, "https://") == 0) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, TestCa::caPem().c_str());
    }
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 10L);
    CURLcode result = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    return result == CURLE_OK ? body : std::string();
}

}  // namespace

LocalProvider &LocalProvider::shared() {
    static LocalProvider provider;
    return provider;
}

LocalProvider &LocalProvider::sharedHttps() {
    // Outside the test CA's world the empty names leave it not ready, saying why.
    bool world = TestCa::available();
    static LocalProvider provider(world ? TestCa::serverPem() : std::string(),
                                  world ? TestCa::serverKey() : std::string());
    return provider;
}

LocalProvider::LocalProvider() {
    start({"node", "provider.js", "0"});
}

LocalProvider::LocalProvider(std::string const &certificate, std::string const &key, bool http2) {
    if (certificate.empty() || key.empty()) {
        error = TestCa::why();
        return;
    }
    std::vector<std::string> arguments = {"node", "provider.js", "0", "--tls", certificate, key};
    if (!http2) {
        arguments.push_back("--http1");
    }
    start(arguments);
}

void LocalProvider::start(std::vector<std::string> const &arguments) {
    std::string directory = serversDirectory();
    if (access((directory + "/node_modules/oidc-provider").c_str(), F_OK) != 0) {
        error = "tests/servers/node_modules is missing: run scripts/install-test-deps.sh";
        return;
    }
    if (!node_.start(arguments, directory)) {
        error = "cannot start node";
        return;
    }
    base = node_.waitForLine("READY ", 20000);
    if (base.empty()) {
        error = "the local provider did not start within 20 seconds";
        node_.stop();
    }
}

LocalProvider::~LocalProvider() {
    node_.stop();
}

namespace {

// One line of login.js taken apart.
LocalProvider::LoginResult loginResult(std::string const &line) {
    LocalProvider::LoginResult result;
    Json::Value answer;
    Json::Reader reader;
    if (line.empty() || !reader.parse(line, answer) || !answer.isObject()) {
        result.error = "no answer from login.js: '" + line + "'";
        return result;
    }
    auto text = [&](char const *key) {
        return answer.isMember(key) && answer[key].isString() ? answer[key].asString() : "";
    };
    result.code = text("code");
    result.state = text("state");
    result.location = text("location");
    result.error = text("error");
    result.ok = !result.code.empty() && result.error.empty();
    return result;
}

}  // namespace

LocalProvider::LoginResult LocalProvider::login(std::string const &authUrl,
                                                std::string const &user) const {
    return loginResult(runProgram({"node", "login.js", authUrl, user}, serversDirectory()));
}

std::vector<LocalProvider::LoginResult> LocalProvider::loginAll(
    std::vector<std::string> const &authUrls, std::string const &user, int parallel) const {
    std::vector<LoginResult> results(authUrls.size());
    ChildProcess helper;
    if (!helper.start({"node", "login.js", "--batch", user, std::to_string(parallel)},
                      serversDirectory())) {
        return results;
    }
    std::string input;
    for (auto const &url : authUrls) {
        input += url + "\n";
    }
    helper.send(input);
    helper.closeInput();
    // Each sign-in takes a few milliseconds of the provider's time; a minute for the slowest.
    int ms = 60000 + static_cast<int>(authUrls.size()) * 100;
    for (size_t i = 0; i < authUrls.size(); ++i) {
        std::string line = helper.waitForLine("", ms);
        if (line.empty()) {
            break;
        }
        Json::Value answer;
        Json::Reader reader;
        if (!reader.parse(line, answer) || !answer.isObject() || !answer["index"].isUInt() ||
            answer["index"].asUInt() >= results.size()) {
            continue;
        }
        results[answer["index"].asUInt()] = loginResult(line);
    }
    return results;
}

bool LocalProvider::setRevocationBody(bool on) const {
    std::string answer = fetch(base + "/qxss-test/revocation-body/" + (on ? "on" : "off"));
    return answer == std::string("{\"revocationBody\":") + (on ? "true" : "false") + "}";
}

bool LocalProvider::setDelay(int ms) const {
    return fetch(base + "/qxss-test/delay/" + std::to_string(ms)) ==
           "{\"delay\":" + std::to_string(ms) + "}";
}

int LocalProvider::requestCount(std::string const &path) const {
    Json::Value counts;
    Json::Reader reader;
    if (!reader.parse(fetch(base + "/qxss-test/requests"), counts) || !counts.isObject() ||
        !counts.isMember(path)) {
        return 0;
    }
    return counts[path].asInt();
}

bool LocalProvider::hold(int calls) const {
    return fetch(base + "/qxss-test/hold/" + std::to_string(calls)) ==
           "{\"hold\":" + std::to_string(calls) + "}";
}

namespace {

// The number in a control's answer {"<key>":<n>}, or -1.
int countIn(std::string const &answer, char const *key) {
    Json::Value value;
    Json::Reader reader;
    if (!reader.parse(answer, value) || !value.isObject() || !value[key].isInt()) {
        return -1;
    }
    return value[key].asInt();
}

}  // namespace

int LocalProvider::held() const {
    return countIn(fetch(base + "/qxss-test/held"), "held");
}

int LocalProvider::release() const {
    return countIn(fetch(base + "/qxss-test/release"), "released");
}
