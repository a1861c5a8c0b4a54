#include "tests/harness/LocalProvider.h"

#include <json/reader.h>

#include <unistd.h>

namespace {

std::string serversDirectory() {
    return std::string(QXSS_SOURCE_DIR) + "/tests/servers";
}

}  // namespace

LocalProvider &LocalProvider::shared() {
    static LocalProvider provider;
    return provider;
}

LocalProvider::LocalProvider() {
    std::string directory = serversDirectory();
    if (access((directory + "/node_modules/oidc-provider").c_str(), F_OK) != 0) {
        error = "tests/servers/node_modules is missing: run scripts/install-test-deps.sh";
        return;
    }
    if (!node_.start({"node", "provider.js", "0"}, directory)) {
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

LocalProvider::LoginResult LocalProvider::login(std::string const &authUrl,
                                                std::string const &user) const {
    LoginResult result;
    std::string line = runProgram({"node", "login.js", authUrl, user}, serversDirectory());
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
