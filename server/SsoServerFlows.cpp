// SsoServer, blocking road: the whole login, refresh and node verification as one call each.
// Each step is guarded by the one before, and the first failure ends the flow; nothing is
// rolled back, so a consumed record stays consumed.

#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "server/SsoServerResponses.h"
#include "support/ConfigKeys.h"
#include "support/OAuthKeys.h"
#include "support/SsoJson.h"
#include "transport/SsoRequest.h"

#include <json/value.h>

namespace {

char *failed(char const *message) {
    Log() << "SsoServer: ERROR! " << message << ".\n";
    return nullptr;
}

// Member `key` of a node configuration as text into `value` ("" when absent, `present`
// false); false (logged) when it is an object or an array.
bool readField(Json::Value const &config, char const *key, std::string &value, bool &present) {
    MemberText how = readMember(config, key, value);
    if (how == MemberText::WrongType) {
        Log() << "SsoServer: ERROR! Field '" << key << "' has a value of a wrong type.\n";
        return false;
    }
    present = how == MemberText::Text;
    if (!present) {
        value.clear();
    }
    return true;
}

// One required member of a node configuration: present, text and not empty.
bool requiredField(Json::Value const &config, char const *key, std::string &value) {
    bool present = false;
    if (!readField(config, key, value, present)) {
        return false;
    }
    if (!present) {
        Log() << "SsoServer: ERROR! Field '" << key << "' is not set in config.\n";
        return false;
    }
    if (value.empty()) {
        Log() << "SsoServer: ERROR! Value of field '" << key << "' is empty.\n";
        return false;
    }
    return true;
}

// An optional member of a node configuration; "" with a warning when absent or empty, false
// (logged) when of a wrong type.
bool optionalField(Json::Value const &config, char const *key, std::string &value) {
    bool present = false;
    if (!readField(config, key, value, present)) {
        return false;
    }
    if (value.empty()) {
        Log() << "SsoServer: WARNING! Field '" << key << "' is not set in config.\n";
    }
    return true;
}

}  // namespace

// Steps 6 to 13 of a login and a refresh; they differ only in the tokens' origin and in how
// steps 9 and 10 name their failure.
char *SsoServer::finishBlockingLogin(OAuthTokens const &tokens, uint32_t configId,
                                     char const *sessionFailure, char const *expiryFailure) {
    if (!validateOAuthTokens(tokens)) {
        return failed("Tokens validation failed");
    }
    std::string user = fetchUserInfo(tokens.accessToken, configId);
    if (user.empty()) {
        return failed("Final username is empty");
    }
    if (!revokeRefreshToken(tokens.refreshToken, configId)) {
        return failed("Tokens revocation failed");
    }
    std::string session = generateUserSession(configId);
    if (session.empty()) {
        return failed(sessionFailure);
    }
    std::string expiry = getTokenExpirationTimestampAsString(configId);
    if (expiry.empty()) {
        return failed(expiryFailure);
    }
    char *token = nullptr;
    if (StringInit(token, createUserToken(user, session, expiry).c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    if (!saveRefreshInfo(tokens.refreshToken, tokens.accessToken, configId, session)) {
        delete[] token;
        return failed("Can't save refresh information");
    }
    return token;
}

char *SsoServer::loginFlow(std::string const &code, std::string const &session) {
    Log() << "SsoServer: Received OAuth code: '" << code << "'"
          << " and user session: '" << session << "'"
          << " for login flow..\n";
    if (code.empty() || session.empty()) {
        return failed("Login flow arguments are empty");
    }
    OAuthAuthzInfo info;
    if (!getOAuthAuthzInfo(session, info)) {
        Log() << "SsoServer: ERROR! Login information doesn't exist for specified session"
              << " token.\n";
        return nullptr;
    }
    if (!validateOAuthAuthzInfo(info)) {
        return failed("Login information validation failed");
    }
    OAuthTokens tokens = exchangeCodeForTokens(code, info);
    return finishBlockingLogin(tokens, info.configId, "Generating new user session failed",
                               "Generating new user session failed");
}

char *SsoServer::refreshFlow(std::string const &uuid, std::string const &sessionToken) {
    Log() << "SsoServer: Received uuid: '" << uuid << "'"
          << " and session token: '" << sessionToken << "'"
          << " for refresh flow.\n";
    // The uuid is checked here and has no other effect: the session token alone authorizes.
    if (uuid.empty() || sessionToken.empty()) {
        return failed("Refresh flow arguments are empty");
    }
    OAuthRefreshInfo info;
    if (!getOAuthRefreshInfo(sessionToken, info)) {
        Log() << "SsoServer: ERROR! Refresh information doesn't exist for specified session"
              << " token.\n";
        return nullptr;
    }
    if (!validateOAuthRefreshInfo(info)) {
        return failed("Refresh information validation failed");
    }
    OAuthTokens tokens = exchangeRefreshForTokens(uuid, info.refreshToken, info.configId);
    return finishBlockingLogin(tokens, info.configId, "Generating new session token failed",
                               "Generating new user session failed");
}

char *SsoServer::nodeFlow(std::string const &nodeConfig, std::string const &session) {
    Log() << "SsoServer: Received node configure: '" << nodeConfig << "'"
          << " and user session: '" << session << "'"
          << " for node flow..\n";
    if (nodeConfig.empty() || session.empty()) {
        return failed("Node flow arguments are empty");
    }
    Json::Value config;
    if (!readString(nodeConfig, config)) {
        return failed("Parsing config string to JSON object failed");
    }
    if (config.isNull() || config.empty()) {
        return failed("JSON object is empty");
    }
    std::string provider;
    std::string userinfoUri;
    std::string accessToken;
    std::string userType;
    if (!requiredField(config, ConfigKeys::provider, provider) ||
        !requiredField(config, ConfigKeys::userinfoUri, userinfoUri) ||
        !requiredField(config, ConfigKeys::accessToken, accessToken) ||
        !requiredField(config, ConfigKeys::userType, userType)) {
        return nullptr;
    }
    std::string proxy;
    std::string userName;
    if (!optionalField(config, ConfigKeys::proxy, proxy) ||
        !optionalField(config, ConfigKeys::userName, userName)) {
        return nullptr;
    }
    std::string response = SsoRequest::getNetwork().request(
        HttpGet, userinfoUri.c_str(), {OAuthKeys::bearerPrefix + accessToken}, nullptr,
        proxy.empty() ? nullptr : proxy.c_str());
    std::string user = readUserInfoResponse(response, provider, userName, userType);
    if (user.empty()) {
        return failed("Final user is empty");
    }
    char *token = nullptr;
    if (StringInit(token, createUserTokenFromNode(user, session).c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    return token;
}
