// SsoServer, token exchange: the code and refresh grants at the provider's token endpoint on
// the blocking road, and the reader of the token endpoint's answer.

#include "platform/Log.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "server/SsoServerResponses.h"
#include "support/ConfigValues.h"
#include "support/OAuthKeys.h"
#include "support/OAuthScopes.h"
#include "support/SsoJson.h"
#include "transport/SsoRequest.h"

#include <json/value.h>

#include <memory>

namespace {

// Form bodies pass through a JSON object, so their fields come out sorted by key.
std::string formBody(Json::Value const &fields) {
    std::string body;
    for (auto const &key : fields.getMemberNames()) {
        if (!body.empty()) {
            body += '&';
        }
        std::unique_ptr<char[]> value(UrlEncode(fields[key].asString().c_str()));
        body += key;
        body += '=';
        body += value.get();
    }
    return body;
}

// One required member of a token answer; false (logged) when missing, of a wrong type or empty.
bool requiredToken(Json::Value const &answer, char const *key, std::string &value) {
    switch (readMember(answer, key, value)) {
        case MemberText::Missing:
            Log() << "SsoServer: ERROR! Exchange doesn't have field '" << key << "'.\n";
            return false;
        case MemberText::WrongType:
            Log() << "SsoServer: ERROR! Exchange field '" << key
                  << "' has a value of a wrong type.\n";
            return false;
        case MemberText::Text:
            break;
    }
    if (value.empty()) {
        Log() << "SsoServer: ERROR! Exchange field '" << key << "' is empty.\n";
        return false;
    }
    return true;
}

}  // namespace

OAuthTokens readExchangeResponse(std::string const &response, std::string const &keptRefreshToken) {
    Json::Value answer;
    if (!readString(response, answer)) {
        Log() << "SsoServer: ERROR! Parsing string exchange to JSON object failed.\n";
        return OAuthTokens();
    }
    if (answer.isNull() || answer.empty()) {
        Log() << "SsoServer: ERROR! Exchange JSON object is empty.\n";
        return OAuthTokens();
    }
    OAuthTokens tokens;
    if (!requiredToken(answer, OAuthKeys::accessToken, tokens.accessToken) ||
        !requiredToken(answer, OAuthKeys::idToken, tokens.idToken)) {
        return OAuthTokens();
    }
    if (!keptRefreshToken.empty()) {
        tokens.refreshToken = keptRefreshToken;
        return tokens;
    }
    if (!requiredToken(answer, OAuthKeys::refreshToken, tokens.refreshToken)) {
        return OAuthTokens();
    }
    return tokens;
}

OAuthTokens SsoServer::exchangeCodeForTokens(std::string const &code, OAuthAuthzInfo const &info) {
    Log() << "SsoServer: Exchanging code: " << code << "' for config ID: " << info.configId
          << " for tokens.\n";
    SsoServerConfig const *entry =
        info.configId < configs.size() ? configs[info.configId] : nullptr;
    if (entry == nullptr || entry->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: Config type is invalid.\n";
        return OAuthTokens();
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(entry);
    Log() << "SsoServer: Original code: '" << code << "'.\n";
    // Decoded once here and encoded once in the body, whatever form the code arrived in.
    std::unique_ptr<char[]> decoded(UrlDecode(code.c_str()));
    Log() << "SsoServer: Decoded code: '" << decoded.get() << "'.\n";
    std::vector<std::string> headers = {OAuthKeys::formContentType};
    Json::Value fields(Json::objectValue);
    fields[OAuthKeys::clientId] = config->clientId;
    fields[OAuthKeys::clientSecret] = config->clientSecret;
    fields[OAuthKeys::code] = decoded.get();
    fields[OAuthKeys::codeVerifier] = info.codeVerifier;
    fields[OAuthKeys::grantType] = OAuthKeys::grantAuthorizationCode;
    fields[OAuthKeys::redirectUri] = info.redirectUri;
    std::string body = formBody(fields);
    Log() << "SsoServer: Prepared query string is: '" << body << "'.\n";
    std::string response =
        SsoRequest::getNetwork().request(HttpPost, config->tokenUri.c_str(), headers, body.c_str(),
                                         config->proxy.empty() ? nullptr : config->proxy.c_str());
    return readExchangeResponse(response, std::string());
}

OAuthTokens SsoServer::exchangeRefreshForTokens(std::string const & /*uuid*/,
                                                std::string const &refreshToken,
                                                uint32_t configId) {
    Log() << "SsoServer: Exchanging refresh: " << refreshToken << "' for config ID: " << configId
          << " for tokens.\n";
    SsoServerConfig const *entry = configId < configs.size() ? configs[configId] : nullptr;
    if (entry == nullptr || entry->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: Config type is invalid.\n";
        return OAuthTokens();
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(entry);
    // The refresh grant authenticates by the Basic header over the raw id and secret.
    std::vector<std::string> headers = {
        "Content-Type: application/x-www-form-urlencoded",
        config->basicAuthorization(),
    };
    Log() << "SsoServer: Provider is: '" << config->provider << "'.\n";
    Json::Value fields(Json::objectValue);
    fields[OAuthKeys::grantType] = OAuthKeys::grantRefreshToken;
    fields[OAuthKeys::refreshToken] = refreshToken;
    fields[OAuthKeys::scope] = providerScope(config->provider);
    std::string body = formBody(fields);
    Log() << "SsoServer: Prepared query string is: '" << body << "'.\n";
    std::string response =
        SsoRequest::getNetwork().request(HttpPost, config->tokenUri.c_str(), headers, body.c_str(),
                                         config->proxy.empty() ? nullptr : config->proxy.c_str());
    // A provider that does not rotate refresh tokens: the one that was sent stays in force.
    return readExchangeResponse(
        response, config->provider == ConfigValues::google ? refreshToken : std::string());
}
