#include "tests/harness/LoginDriver.h"

#include "platform/Url.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <memory>

std::string LoginDriver::entry(Entry const &e) {
    std::string idp = e.idp.empty() ? LocalProvider::shared().baseUrl() : e.idp;
    std::string config = "\"idp_domain\":\"" + idp + "\",\"client_id\":\"" +
                         LocalProvider::clientId + "\",\"client_secret\":\"" +
                         LocalProvider::clientSecret + "\",\"redirect_uris\":[\"" +
                         LocalProvider::redirectUri + "\"],\"qx_user_type\":\"" + e.userType +
                         "\",\"qx_refresh\":" + (e.refresh ? "true" : "false");
    if (!e.userName.empty()) {
        config += ",\"qx_user_name\":\"" + e.userName + "\"";
    }
    if (e.lifetime >= 0) {
        config += ",\"qx_refresh_lifetime\":" + std::to_string(e.lifetime);
    }
    if (!e.proxy.empty()) {
        config += ",\"qx_proxy\":\"" + e.proxy + "\"";
    }
    return "{\"name\":\"" + e.name + "\",\"desc\":\"Sign in with " + e.name +
           "\",\"type\":\"OAuth\",\"provider\":\"" + e.provider + "\",\"config\":{" + config + "}}";
}

std::string LoginDriver::file(std::vector<Entry> const &entries) {
    std::string text = "[";
    for (auto const &e : entries) {
        text += (text.size() > 1 ? "," : "") + entry(e);
    }
    return text + "]";
}

std::string LoginDriver::authorizationUrl(WorkerHost &host, int id, std::string const &session,
                                          Authorization &result) {
    host.send("SSO_GET_CONFIG|" + std::to_string(id) + "|" + session + "\n");
    result.reply = host.readLine(10000);
    std::string const prefix = "SSO_GET_CONFIG_OK|";
    // SSO_GET_CONFIG_OK|<client JSON>|<challenge>|<session>: the JSON holds no "|".
    size_t jsonEnd = result.reply.find('|', prefix.size());
    size_t challengeEnd =
        jsonEnd == std::string::npos ? jsonEnd : result.reply.find('|', jsonEnd + 1);
    if (result.reply.compare(0, prefix.size(), prefix) != 0 || challengeEnd == std::string::npos) {
        result.error = "no client configuration: '" + result.reply + "'";
        return std::string();
    }
    std::string json = result.reply.substr(prefix.size(), jsonEnd - prefix.size());
    std::string challenge = result.reply.substr(jsonEnd + 1, challengeEnd - jsonEnd - 1);
    std::unique_ptr<char[]> encoded(
        UrlEncode(("OAuth|" + json + "|state-" + session + "|nonce-1|" + challenge).c_str()));
    char *url = SsoLoginUrl(encoded.get());
    if (url == nullptr) {
        result.error = "SsoLoginUrl refused the login data";
        return std::string();
    }
    std::string text = url;
    SsoFreeString(url);
    return text;
}

LoginDriver::Authorization LoginDriver::authorize(WorkerHost &host, int id,
                                                  std::string const &session,
                                                  std::string const &user,
                                                  LocalProvider const *provider) {
    Authorization result;
    std::string url = authorizationUrl(host, id, session, result);
    if (url.empty()) {
        return result;
    }
    auto login = (provider != nullptr ? *provider : LocalProvider::shared()).login(url, user);
    if (!login.ok) {
        result.error = login.error;
        return result;
    }
    if (login.state != "state-" + session) {
        result.error = "the state came back as '" + login.state + "'";
        return result;
    }
    result.code = login.code;
    result.ok = true;
    return result;
}

std::string LoginDriver::newSession() {
    char *session = SsoGetUserSession();
    std::string text = session ? session : "";
    SsoFreeString(session);
    return text;
}
