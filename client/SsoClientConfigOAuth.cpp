#include "client/SsoClientConfigOAuth.h"

#include "platform/Log.h"
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
    if (!readRequired(root, "provider", provider) || !readRequired(root, "auth_uri", authUri) ||
        !readRequired(root, "client_id", clientId) ||
        !readRequired(root, "redirect_uri", redirectUri)) {
        return false;
    }
    if (root.isMember("qx_prompt_type") && root["qx_prompt_type"].isString()) {
        promptType = root["qx_prompt_type"].asString();
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
    config["provider"] = provider;
    config["auth_uri"] = authUri;
    config["client_id"] = clientId;
    config["redirect_uri"] = redirectUri;
    config["qx_prompt_type"] = promptType;
    Log() << "SsoClientConfigOAuth: Client config is: .\n";
    print(config);
}
