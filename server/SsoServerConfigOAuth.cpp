#include "server/SsoServerConfigOAuth.h"

#include "platform/Log.h"
#include "support/SsoJson.h"

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
    Json::Value const &config = member(entry, "config");
    if (!entry.isObject() || !entry.isMember("config")) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'config' is not set in server config.\n";
        return;
    }
    Json::Value const &uris = member(config, "redirect_uris");
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
        configId = entry["id"].asInt();
        provider = entry["provider"].asString();
        idpDomain = config["idp_domain"].asString();
        clientId = config["client_id"].asString();
        clientSecret = config["client_secret"].asString();
        userType = config["qx_user_type"].asString();
        redirectUris.reserve(uris.size());
        for (auto const &uri : uris) {
            redirectUris.push_back(uri.asString());
        }
        if (config.isMember("userinfo_uri")) {
            userinfoUri = config["userinfo_uri"].asString();
        }
        if (config.isMember("qx_user_name")) {
            userName = config["qx_user_name"].asString();
        }
        if (config.isMember("qx_prompt_type")) {
            promptType = config["qx_prompt_type"].asString();
        }
        if (config.isMember("qx_refresh")) {
            refresh = config["qx_refresh"].asBool();
        }
        if (config.isMember("qx_refresh_lifetime")) {
            refreshLifetime = config["qx_refresh_lifetime"].asInt64();
        }
        if (config.isMember("qx_proxy")) {
            proxy = config["qx_proxy"].asString();
        }
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
    Json::Value const &authorization = member(document, "authorization_endpoint");
    if (!authorization.isString()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'authorization_endpoint' is not set in oauth "
                 "metadata response.\n";
        return -1;
    }
    authUri = authorization.asString();
    Json::Value const &token = member(document, "token_endpoint");
    if (!token.isString()) {
        Log() << "SsoServerConfigOAuth: ERROR! Field 'token_endpoint' is not set in oauth metadata "
                 "response.\n";
        authUri.clear();
        return -1;
    }
    tokenUri = token.asString();
    // Required even when the file names its own userinfo URI, which then wins.
    Json::Value const &userinfo = member(document, "userinfo_endpoint");
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
    Json::Value const &revocation = member(document, "revocation_endpoint");
    if (revocation.isString()) {
        revokeUri = revocation.asString();
    } else {
        Log() << "SsoServerConfigOAuth: WARNING! Field 'revocation_endpoint' is not set in oauth "
                 "metadata response.\n";
    }
    Json::Value const &issuerValue = member(document, "issuer");
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
    for (uint32_t index = 0; index < redirectUris.size(); ++index) {
        std::string const &uri = redirectUris[index];
        if (uri.size() >= 7 && uri.find(clusterIp, 7) != std::string::npos) {
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
    client["provider"] = provider;
    client["auth_uri"] = authUri;
    client["client_id"] = clientId;
    client["redirect_uri"] = redirectUris[index];
    client["qx_prompt_type"] = promptType;
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
    node["provider"] = provider;
    node["userinfo_uri"] = userinfoUri;
    node["access_token"] = accessToken;
    node["qx_user_type"] = userType;
    if (!proxy.empty()) {
        node["qx_proxy"] = proxy;
    }
    if (!userName.empty()) {
        node["qx_user_name"] = userName;
    }
    std::string text;
    if (!writeString(node, text)) {
        Log() << "SsoServerConfigOAuth: ERROR! Serializing node oauth configuration from JSON to "
                 "string failed.\n";
        return std::string();
    }
    return text;
}
