// SsoClientConfigOAuth: the client's copy of a provider's settings, read from the client
// JSON, with the login's state and nonce.

#include "client/SsoClientConfigOAuth.h"

#include "platform/Log.h"
#include "support/ConfigKeys.h"
#include "support/SsoJson.h"

#include <json/value.h>

namespace {

// A required key: present and a string (an empty string counts as set).
bool readRequired(Json::Value const &root, char const *key, std::string &field) {
    if (!root.isObject() || !root.isMember(key) || !root[key].isString()) {
        Log() << "SsoClientConfigOAuth: ERROR! Field '" << key
              << "' is not set in client config.\n";
        return false;
    }
    field = root[key].asString();
    return true;
}

}  // namespace

SsoClientConfigOAuth::SsoClientConfigOAuth() {
    Log() << "SsoClientConfigOAuth: Client OAuth config constructor.\n";
}

SsoClientConfigOAuth::~SsoClientConfigOAuth() {
    Log() << "SsoClientConfigOAuth: Client OAuth config destructor.\n";
}

bool SsoClientConfigOAuth::setConfigData(std::string const &data) {
    Json::Value root;
    if (!readString(data, root)) {
        Log() << "SsoClientConfigOAuth: ERROR! Parsing client config to JSON failed.\n";
        return false;
    }
    if (!readRequired(root, ConfigKeys::provider, provider) ||
        !readRequired(root, ConfigKeys::authUri, authUri) ||
        !readRequired(root, ConfigKeys::clientId, clientId) ||
        !readRequired(root, ConfigKeys::redirectUri, redirectUri)) {
        return false;
    }
    if (root.isMember(ConfigKeys::promptType) && root[ConfigKeys::promptType].isString()) {
        promptType = root[ConfigKeys::promptType].asString();
    } else {
        Log() << "SsoClientConfigOAuth: WARNING! Field 'qx_prompt_type' is not set in client"
              << " config.\n";
    }
    printConfig();
    return true;
}

bool SsoClientConfigOAuth::setSessionData(std::string const &newState,
                                          std::string const &newNonce) {
    if (newState.empty() || newNonce.empty()) {
        Log() << "SsoClientConfigOAuth: ERROR! Client config state or nonce is empty!.\n";
        return false;
    }
    state = newState;
    nonce = newNonce;
    Log() << "SsoClientConfigOAuth: Client config state: '" << state << "'"
          << " nonce: '" << nonce << "'.\n";
    return true;
}

void SsoClientConfigOAuth::printConfig() const {
    Json::Value config(Json::objectValue);
    config[ConfigKeys::provider] = provider;
    config[ConfigKeys::authUri] = authUri;
    config[ConfigKeys::clientId] = clientId;
    config[ConfigKeys::redirectUri] = redirectUri;
    config[ConfigKeys::promptType] = promptType;
    Log() << "SsoClientConfigOAuth: Client config is: .\n";
    print(config);
}
