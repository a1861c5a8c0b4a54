// SsoClient: the authorization URL built from a client configuration and a PKCE challenge.

#include "client/SsoClient.h"

#include "client/SsoClientConfigOAuth.h"
#include "platform/Log.h"
#include "platform/Strings.h"
#include "platform/Url.h"
#include "support/ConfigValues.h"
#include "support/OAuthKeys.h"
#include "support/OAuthScopes.h"

#include <json/value.h>

SsoClient::SsoClient() {
    Log() << "Sso: Client constructor.\n";
}

SsoClient::~SsoClient() {
    Log() << "Sso: Client destructor.\n";
    removeConfig();
}

bool SsoClient::setConfig(std::string const &configData, std::string const &state,
                          std::string const &nonce) {
    if (config) {
        Log() << "Sso: ERROR! Client config exist. Can't create another one.\n";
        return false;
    }
    if (loginType != kLoginTypeOAuth) {
        Log() << "Sso: ERROR! Unknown login type is set.\n";
        return false;
    }
    config.reset(new SsoClientConfigOAuth());
    if (!config->setConfigData(configData)) {
        Log() << "Sso: ERROR! Set configuration data for client OAuth"
              << " config failed.\n";
        return false;
    }
    if (!config->setSessionData(state, nonce)) {
        Log() << "Sso: ERROR! Set session data for client OAuth"
              << " config failed.\n";
        return false;
    }
    return true;
}

void SsoClient::removeConfig() {
    Log() << "Sso: Removing current client config.\n";
    config.reset();
}

std::string SsoClient::buildQueryString(char const *codeChallenge) {
    Log() << "Sso: Start building query string for client.\n";
    // A JSON object keeps its members sorted by key, which gives the parameters their order.
    Json::Value parameters(Json::objectValue);
    parameters[OAuthKeys::responseType] = OAuthKeys::responseTypeCode;
    parameters[OAuthKeys::clientId] = config->clientId;
    parameters[OAuthKeys::redirectUri] = config->redirectUri;
    parameters[OAuthKeys::scope] = providerScope(config->provider);
    parameters[OAuthKeys::state] = config->state;
    parameters[OAuthKeys::nonce] = config->nonce;
    parameters[OAuthKeys::codeChallenge] = codeChallenge;
    parameters[OAuthKeys::codeChallengeMethod] = OAuthKeys::challengeMethodS256;

    std::string const &provider = config->provider;
    if (provider == ConfigValues::microsoft) {
        Log() << "Sso: Provider is microsoft.\n";
        parameters[OAuthKeys::responseMode] = OAuthKeys::responseModeQuery;
    } else if (provider == ConfigValues::okta) {
        Log() << "Sso: Provider is okta.\n";
        parameters[OAuthKeys::responseMode] = OAuthKeys::responseModeQuery;
    } else if (provider == ConfigValues::google) {
        Log() << "Sso: Provider is google.\n";
        parameters[OAuthKeys::accessType] = OAuthKeys::accessTypeOffline;
    } else if (provider == ConfigValues::keycloak) {
        Log() << "Sso: Provider is keycloak.\n";
    } else {
        Log() << "Sso: Provider unknown.\n";
    }

    if (!config->promptType.empty()) {
        // "none" is logged but sends no prompt at all.
        if (config->promptType != ConfigValues::promptNone) {
            parameters[OAuthKeys::prompt] = config->promptType;
        }
        Log() << "Sso: Prompt type set to: '" << config->promptType << "'"
              << " for query string.\n";
    }

    std::string query;
    query.reserve(400);
    for (auto member = parameters.begin(); member != parameters.end(); ++member) {
        if (!query.empty()) {
            query += "&";
        }
        char *encoded = UrlEncode(member->asString().c_str());
        query += member.name();
        query += "=";
        query += encoded;
        delete[] encoded;
    }
    Log() << "Sso: Finish building query string for client."
          << " Result is:'" << query << "'.\n";
    return query;
}

std::string SsoClient::buildUrl(char const *codeChallenge, char const *purpose) {
    Log() << "Sso: Received OAuthPkce: " << codeChallenge << purpose << ".\n";
    std::string query = buildQueryString(codeChallenge);
    Log() << "Sso: Query string: " << query << purpose << ".\n";
    // The "?" is added whatever the endpoint already holds.
    return config->authUri + "?" + query;
}

int SsoClient::authRequest(char const *codeChallenge, void (*callback)(char const *)) {
    std::string url = buildUrl(codeChallenge, " for authorization request");
    Log() << "Sso: Return url: " << url << " to browser callback for authorization request.\n";
    if (callback == nullptr) {
        return -1;
    }
    callback(url.c_str());
    return 0;
}

char *SsoClient::authUrl(char const *codeChallenge) {
    std::string url = buildUrl(codeChallenge, " for authorization url");
    Log() << "Sso: Request url: " << url << " for authorization url.\n";
    char *copy = nullptr;
    StringInit(copy, url.c_str(), url.size());
    Log() << "Sso: Final result: " << copy << " for authorization url.\n";
    return copy;
}
