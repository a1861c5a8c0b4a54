// LocalGrant: a provider record for the local provider and real tokens from a signed-in user.
#include "tests/harness/LocalGrant.h"

#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoUtils.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/ProviderRecord.h"
#include "worker/libqxss.h"

#include <memory>

SsoServerConfigOAuth *LocalGrant::addRecord(SsoServer &server, std::string const &provider) {
    std::string const base = LocalProvider::shared().baseUrl();
    return ProviderRecord(provider)
        .domain(base)
        .client(LocalProvider::clientId, LocalProvider::clientSecret)
        .redirects({LocalProvider::redirectUri})
        .authAt(base + "/auth")
        .tokenAt(base + "/token")
        .userinfoAt(base + "/me")
        .revokeAt(base + "/token/revocation")
        .with([base](SsoServerConfigOAuth &record) { record.issuer = base; })
        .localUsers()
        .refresh(true)
        .addTo(server);
}

LocalGrant::Code LocalGrant::authorize(SsoServer &server, uint32_t configId,
                                       std::string const &user) {
    Code result;
    result.session = getRandomAsciiString(32);
    std::unique_ptr<char[]> reply(
        server.getClientConfig(configId, result.session.c_str(), nullptr));
    if (!reply) {
        result.error = "no client configuration";
        return result;
    }
    // "<client JSON>|<challenge>|<session>": the JSON holds no "|".
    std::string text = reply.get();
    size_t jsonEnd = text.find('|');
    size_t challengeEnd = jsonEnd == std::string::npos ? jsonEnd : text.find('|', jsonEnd + 1);
    if (challengeEnd == std::string::npos) {
        result.error = "client configuration without its fields: '" + text + "'";
        return result;
    }
    std::string json = text.substr(0, jsonEnd);
    std::string challenge = text.substr(jsonEnd + 1, challengeEnd - jsonEnd - 1);
    std::unique_ptr<char[]> encoded(
        UrlEncode(("OAuth|" + json + "|state-1|nonce-1|" + challenge).c_str()));
    char *url = SsoLoginUrl(encoded.get());
    if (url == nullptr) {
        result.error = "SsoLoginUrl refused the login data";
        return result;
    }
    auto login = LocalProvider::shared().login(url, user);
    SsoFreeString(url);
    if (!login.ok) {
        result.error = login.error;
        return result;
    }
    result.code = login.code;
    result.ok = true;
    return result;
}

OAuthTokens LocalGrant::tokens(SsoServer &server, uint32_t configId, std::string &error,
                               std::string const &user) {
    Code code = authorize(server, configId, user);
    if (!code.ok) {
        error = code.error;
        return OAuthTokens();
    }
    OAuthAuthzInfo info;
    if (!server.getOAuthAuthzInfo(code.session, info)) {
        error = "the pending login was not stored";
        return OAuthTokens();
    }
    OAuthTokens tokens = server.exchangeCodeForTokens(code.code, info);
    if (!server.validateOAuthTokens(tokens)) {
        error = "the code exchange failed";
    }
    return tokens;
}
