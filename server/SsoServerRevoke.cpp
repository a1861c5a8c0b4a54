// SsoServer, revocation: the keep-or-give-back decision on the refresh token of a finished
// login, and the blocking revocation request at the provider.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/ConfigValues.h"
#include "support/OAuthKeys.h"
#include "transport/SsoRequest.h"

bool SsoServer::revokeRefreshToken(std::string const &refreshToken, uint32_t configId) {
    Log() << "SsoServer: Revoking refresh: " << refreshToken << "' for config ID: " << configId
          << ".\n";
    SsoServerConfig const *entry = configId < configs.size() ? configs[configId] : nullptr;
    if (entry == nullptr || entry->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: Config type is invalid.\n";
        return false;
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(entry);
    if (config->refresh) {
        Log() << "SsoServer: Refresh flow set in configuration. Abort token revocation.\n";
        return true;
    }
    Log() << "SsoServer: Refresh flow NOT set in configuration."
          << " Continuation of token revocation.\n";
    if (config->provider == ConfigValues::microsoft) {
        Log() << "SsoServer: WARNING! Microsoft does not support token revocation."
              << " Abort token revocation.\n";
        return true;
    }
    if (refreshToken.empty()) {
        Log() << "SsoServer: ERROR! Refresh token is empty.\n";
        return false;
    }
    std::vector<std::string> headers = {
        "Content-Type: application/x-www-form-urlencoded",
        config->basicAuthorization(),
    };
    // The token goes into this body as it stands, without percent-encoding.
    std::string body = std::string(OAuthKeys::token) + "=" + refreshToken + "&" +
                       OAuthKeys::tokenTypeHint + "=" + OAuthKeys::grantRefreshToken;
    std::string response =
        SsoRequest::getNetwork().request(HttpPost, config->revokeUri.c_str(), headers, body.c_str(),
                                         config->proxy.empty() ? nullptr : config->proxy.c_str());
    // Only a body counts as an answer: a provider that revokes with an empty 200 fails here.
    if (response.empty()) {
        Log() << "SsoServer: ERROR! Revoke response is empty.\n";
        return false;
    }
    return true;
}
