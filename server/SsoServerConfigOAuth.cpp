// SsoServerConfigOAuth: one provider record filled from its file entry and its discovery
// document, and the client and node JSON made from it.

#include "server/SsoServerConfigOAuth.h"

#include "platform/Log.h"
#include "support/ConfigKeys.h"
#include "support/OAuthKeys.h"
#include "support/SsoJson.h"
#include "support/SsoUtils.h"

#include <json/value.h>

#include <cstring>
#include <exception>

namespace {

// The member `key` of an object, or null for any other value (an array has no members).
Json::Value const &member(Json::Value const &value, char const *key) {
    // Never destroyed: the worker may still read it while the process exits.
    static Json::Value const &none = *new Json::Value;
    if (!value.isObject() || !value.isMember(key)) {
        return none;
    }
    return value[key];
}

}  // namespace

SsoServerConfigOAuth::SsoServerConfigOAuth() {
    Log() << "SsoServerConfigOAuth: Server OAuth config constructor.\n";
}

SsoServerConfigOAuth::~SsoServerConfigOAuth() {
    Log() << "SsoServerConfigOAuth: Server OAuth config destructor.\n";
}

void SsoServerConfigOAuth::setConfigData(Json::Value const &entry) {
    if (entry.empty()) {
        Log() << "SsoServerConfigOAuth: ERROR! Config as JSON object is empty.\n";
        return;
    }
    if (!entry.isConvertibleTo(Json::objectValue) && !entry.isConvertibleTo(Json::arrayValue)) {
        Log() << "SsoServerConfigOAuth: ERROR! Config is not JSON object or JSON array.\n";
        return;
    }
    if (entry.isNull()) {
        Log() << "SsoServerConfigOAuth: ERROR! Config value as JSON object is null.\n";
        return;
    }
    Log() << "SsoServerConfigOAuth: Config as JSON object is: .\n";
    print(entry);
    Json::Value const &config = member(entry, ConfigKeys::config);
    if (!entry.isObject() || !entry.isMember(ConfigKeys::config)) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'config' is not set in server config.\n";
        return;
    }
    Json::Value const &uris = member(config, ConfigKeys::redirectUris);
    if (!uris.isArray()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'redirect_uris' is not array type.\n";
        return;
    }
    if (uris.empty()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'redirect_uris' is empty array.\n";
        return;
    }
    // The loader validated every type already; a value that still surprises the JSON library
    // leaves the record where it got to instead of escaping as an exception.
    try {
        configId = entry[ConfigKeys::id].asInt();
        provider = entry[ConfigKeys::provider].asString();
        idpDomain = config[ConfigKeys::idpDomain].asString();
        clientId = config[ConfigKeys::clientId].asString();
        clientSecret = config[ConfigKeys::clientSecret].asString();
        userType = config[ConfigKeys::userType].asString();
        redirectUris.reserve(uris.size());
        for (auto const &uri : uris) {
            redirectUris.push_back(uri.asString());
        }
        // An absent optional member leaves the field at its default.
        auto optionalText = [&config](char const *key, std::string &field) {
            if (config.isMember(key)) {
                field = config[key].asString();
            }
        };
        optionalText(ConfigKeys::userinfoUri, userinfoUri);
        optionalText(ConfigKeys::userName, userName);
        optionalText(ConfigKeys::promptType, promptType);
        if (config.isMember(ConfigKeys::refresh)) {
            refresh = config[ConfigKeys::refresh].asBool();
        }
        if (config.isMember(ConfigKeys::refreshLifetime)) {
            refreshLifetime = config[ConfigKeys::refreshLifetime].asInt64();
        }
        optionalText(ConfigKeys::proxy, proxy);
    } catch (std::exception const &error) {
        Log() << "SsoServerConfigOAuth: ERROR! Config has a value of a wrong type: '"
              << error.what() << "'.\n";
    }
}

int32_t SsoServerConfigOAuth::setMetadata(std::string const &response) {
    Json::Value document;
    if (!readString(response, document)) {
        Log() << "SsoServerConfigOAuth: ERROR! Parsing metadata response to JSON failed.\n";
        return -1;
    }
    if (document.empty()) {
        Log() << "SsoServerConfigOAuth: ERROR! Metadata response is empty.\n";
        return -1;
    }
    if (!document.isConvertibleTo(Json::objectValue) &&
        !document.isConvertibleTo(Json::arrayValue)) {
        Log() << "SsoServerConfigOAuth: ERROR! Metadata response is not JSON object or JSON array "
                 "object.\n";
        return -1;
    }
    if (document.isNull()) {
        Log() << "SsoServerConfigOAuth: ERROR! Metadata response value as JSON object is null.\n";
        return -1;
    }
    // A document that is an array has no members: it fails on the first required key.
    Json::Value const &authorization = member(document, OAuthKeys::authorizationEndpoint);
    if (!authorization.isString()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'authorization_endpoint' is not set in oauth "
                 "metadata response.\n";
        return -1;
    }
    authUri = authorization.asString();
    Json::Value const &token = member(document, OAuthKeys::tokenEndpoint);
    if (!token.isString()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'token_endpoint' is not set in oauth metadata "
                 "response.\n";
        authUri.clear();
        return -1;
    }
    tokenUri = token.asString();
    // Required even when the file names its own userinfo URI, which then wins.
    Json::Value const &userinfo = member(document, OAuthKeys::userinfoEndpoint);
    if (!userinfo.isString()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'userinfo_endpoint' is not set in oauth "
                 "metadata response.\n";
        authUri.clear();
        tokenUri.clear();
        return -1;
    }
    if (userinfoUri.empty()) {
        userinfoUri = userinfo.asString();
    }
    Json::Value const &revocation = member(document, OAuthKeys::revocationEndpoint);
    if (revocation.isString()) {
        revokeUri = revocation.asString();
    } else {
        Log() << "SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in oauth "
                 "metadata response.\n";
    }
    Json::Value const &issuerValue = member(document, OAuthKeys::issuer);
    if (issuerValue.isString()) {
        issuer = issuerValue.asString();
    } else {
        Log() << "SsoServerConfigOAuth: WARNING! Field 'issuer' is not set in oauth metadata "
                 "response.\n";
    }
    return 0;
}

uint32_t SsoServerConfigOAuth::getClientRedirectIndex(char const *clusterIp) const {
    Log() << "SsoServerConfigOAuth: Getting client redirect index for IP preferretion: '"
          << clusterIp << "'.\n";
    if (clusterIp == nullptr) {
        return 0;
    }
    // A textual match behind "http://", kept textual on purpose: the first URI that holds the
    // address wins.
    size_t const schemeLength = std::strlen("http://");
    for (uint32_t index = 0; index < redirectUris.size(); ++index) {
        std::string const &uri = redirectUris[index];
        if (uri.size() >= schemeLength && uri.find(clusterIp, schemeLength) != std::string::npos) {
            return index;
        }
    }
    return 0;
}

std::string SsoServerConfigOAuth::getClientConfigAsJson(uint32_t index) const {
    if (provider.empty() || authUri.empty() || clientId.empty() || redirectUris.empty()) {
        Log() << "SsoServerConfigOAuth: ERROR! Can't create client oauth configuration Required "
                 "parameters (provider, authUri, clientId, redirectUri) are empty.\n";
        return std::string();
    }
    Json::Value client(Json::objectValue);
    client[ConfigKeys::provider] = provider;
    client[ConfigKeys::authUri] = authUri;
    client[ConfigKeys::clientId] = clientId;
    client[ConfigKeys::redirectUri] = redirectUris[index];
    client[ConfigKeys::promptType] = promptType;
    std::string text;
    if (!writeString(client, text)) {
        Log() << "SsoServerConfigOAuth: ERROR! Serializing client oauth configuration from JSON to "
                 "string failed.\n";
        return std::string();
    }
    return text;
}

std::string SsoServerConfigOAuth::getNodeConfigJson(std::string const &accessToken) const {
    if (userinfoUri.empty() || accessToken.empty()) {
        Log() << "SsoServerConfigOAuth: ERROR! Can't create node oauth configuration Required "
                 "parameters (userinfoUri, accessToken) are empty.\n";
        return std::string();
    }
    Json::Value node(Json::objectValue);
    node[ConfigKeys::provider] = provider;
    node[ConfigKeys::userinfoUri] = userinfoUri;
    node[ConfigKeys::accessToken] = accessToken;
    node[ConfigKeys::userType] = userType;
    if (!proxy.empty()) {
        node[ConfigKeys::proxy] = proxy;
    }
    if (!userName.empty()) {
        node[ConfigKeys::userName] = userName;
    }
    std::string text;
    if (!writeString(node, text)) {
        Log() << "SsoServerConfigOAuth: ERROR! Serializing node oauth configuration from JSON to "
                 "string failed.\n";
        return std::string();
    }
    return text;
}

std::string SsoServerConfigOAuth::basicAuthorization() const {
    return OAuthKeys::basicPrefix + getBase64((clientId + ":" + clientSecret).c_str());
}
