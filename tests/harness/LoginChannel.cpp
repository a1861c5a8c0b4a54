#include "tests/harness/LoginChannel.h"

#include "tests/harness/FailureServer.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

LoginChannel::Token LoginChannel::parse(std::string const &line, std::string const &word) {
    Token token;
    if (line.compare(0, word.size(), word) != 0 || line.empty() || line.back() != '\n') {
        return token;
    }
    std::vector<std::string> fields;
    std::string rest = line.substr(word.size(), line.size() - word.size() - 1);
    size_t start = 0;
    for (size_t bar = rest.find('|'); bar != std::string::npos; bar = rest.find('|', start)) {
        fields.push_back(rest.substr(start, bar - start));
        start = bar + 1;
    }
    fields.push_back(rest.substr(start));
    if (fields.size() != 4) {
        return token;
    }
    token.user = fields[0];
    token.sessionValue = fields[1];
    token.expiry = fields[2];
    token.userSession = fields[3];
    token.ok = true;
    return token;
}

std::string LoginChannel::session(std::string const &name) {
    return name.size() >= 32 ? name : name + std::string(32 - name.size(), '-');
}

std::string LoginChannel::startServer(WorkerHost &host,
                                      std::vector<LoginDriver::Entry> const &entries) {
    TestMachine::server(LoginDriver::file(entries));
    if (host.start() != 0) {
        return std::string();
    }
    host.send("SSO_LOAD_CONFIGS\n");
    return host.readLine(60000);
}

std::string LoginChannel::login(WorkerHost &host, int id, std::string const &session,
                                std::string const &user, LocalProvider const *provider) {
    auto authorization = LoginDriver::authorize(host, id, session, user, provider);
    if (!authorization.ok) {
        return "no code: " + authorization.error;
    }
    host.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
    return host.readLine(10000);
}

void LoginChannel::serveDiscovery(FailureServer &idp, std::string const &endpoints) {
    std::string base = endpoints.empty() ? idp.url() : endpoints;
    std::string document = "{\"issuer\":\"" + idp.url() + "\",\"authorization_endpoint\":\"" +
                           base + "/auth\",\"token_endpoint\":\"" + base +
                           "/token\",\"userinfo_endpoint\":\"" + base +
                           "/me\",\"revocation_endpoint\":\"" + base + "/revoke\"}";
    idp.on("/.well-known/openid-configuration", 200, document);
    idp.on("/v2.0/.well-known/openid-configuration", 200, document);
}

std::string LoginChannel::tokens(std::string const &access, std::string const &id,
                                 std::string const &refresh) {
    std::string text;
    auto add = [&text](char const *key, std::string const &value) {
        if (value != "-") {
            text += (text.empty() ? "" : ",") + std::string("\"") + key + "\":\"" + value + "\"";
        }
    };
    add("access_token", access);
    add("id_token", id);
    add("refresh_token", refresh);
    return "{" + text + (text.empty() ? "" : ",") + "\"token_type\":\"Bearer\"}";
}

LoginDriver::Entry LoginChannel::entryFor(FailureServer const &idp, std::string const &provider,
                                          bool refresh) {
    LoginDriver::Entry entry;
    entry.name = "Scripted";
    entry.provider = provider;
    entry.idp = idp.url();
    entry.refresh = refresh;
    return entry;
}

std::pair<std::string, std::string> LoginChannel::nodeConfig(std::string const &line) {
    std::string const word = "SSO_GET_NODE_CONFIG_OK|";
    size_t bar = line.rfind('|');
    if (line.compare(0, word.size(), word) != 0 || line.empty() || line.back() != '\n' ||
        bar < word.size()) {
        return {};
    }
    return {line.substr(word.size(), bar - word.size()),
            line.substr(bar + 1, line.size() - bar - 2)};
}

std::string LoginChannel::drained(std::string const &session) {
    return "Sso: Processing completed async flow for session: '" + session + "'.\n";
}

std::string LoginChannel::noAuthInfo(std::string const &session) {
    return "Sso: ERROR! Can't get auth info for user session: '" + session + "'.\n";
}

std::string LoginChannel::noRefreshInfo(std::string const &value) {
    return "Sso: ERROR! Can't get refresh info for user session: '" + value + "'.\n";
}
