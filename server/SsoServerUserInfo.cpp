// SsoServer, user resolution: the userinfo request on the blocking road and the reader that
// turns a userinfo document into the final user name on every road.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "server/SsoServerResponses.h"
#include "support/ConfigValues.h"
#include "support/OAuthKeys.h"
#include "support/SsoJson.h"
#include "transport/SsoRequest.h"

#include <json/value.h>

std::string readUserInfoResponse(std::string const &response, std::string const &provider,
                                 std::string const &userName, std::string const &userType) {
    Log() << "SsoServer: Reading userinfo response. Provider: '" << provider << "'"
          << " , user name preference: '" << userName << "'"
          << " , user type preference: '" << userType << "'.\n";
    Json::Value document;
    if (!readString(response, document)) {
        Log() << "SsoServer: ERROR! Parsing string userinfo response to JSON object"
              << " failed.\n";
        return std::string();
    }
    // A configured claim is a hard demand: no other member is tried when it is missing.
    // "preferred_username" counts for "okta" alone; "email" is everyone's default.
    char const *claim = nullptr;
    std::string text;
    if (!userName.empty()) {
        claim = userName.c_str();
    } else if (provider == ConfigValues::okta &&
               readMember(document, OAuthKeys::preferredUsername, text) != MemberText::Missing) {
        claim = OAuthKeys::preferredUsername;
    } else {
        claim = OAuthKeys::email;
    }
    std::string user;
    if (readMember(document, claim, user) == MemberText::WrongType) {
        Log() << "SsoServer: ERROR! Userinfo member '" << claim
              << "' has a value of a wrong type.\n";
        return std::string();
    }
    if (user.empty()) {
        Log() << "SsoServer: ERROR! Can't get user from userinfo response.\n";
        return std::string();
    }
    // The user goes into a reply line and a NUL-terminated token: a line break there would
    // forge a reply for another login, a NUL would cut the token short. Bytes from 0x80 up
    // (UTF-8) and "|" stay; hosts read a token's fields from the right.
    for (unsigned char byte : user) {
        if (byte < 0x20 || byte == 0x7F) {
            Log() << "SsoServer: ERROR! User name holds a control character.\n";
            return std::string();
        }
    }
    Log() << "SsoServer: User from userinfo response: '" << user << "'.\n";
    if (userType == ConfigValues::userTypeLocal) {
        size_t at = user.find('@');
        if (at != std::string::npos) {
            user.erase(at);
        }
    }
    Log() << "SsoServer: Final user is: '" << user << "'.\n";
    return user;
}

std::string SsoServer::fetchUserInfo(std::string const &accessToken, uint32_t configId) {
    Log() << "SsoServer: Exchanging access token: " << accessToken
          << "' for config ID: " << configId << " for userinfo.\n";
    if (accessToken.empty()) {
        Log() << "SsoServer: Access token is empty.\n";
        return std::string();
    }
    SsoServerConfig const *entry = configId < configs.size() ? configs[configId] : nullptr;
    if (entry == nullptr || entry->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: Config type is invalid.\n";
        return std::string();
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(entry);
    Log() << "SsoServer: Userinfo URL is: '" << config->userinfoUri << "'.\n";
    std::string response = SsoRequest::getNetwork().request(
        HttpGet, config->userinfoUri.c_str(), {OAuthKeys::bearerPrefix + accessToken}, nullptr,
        config->proxy.empty() ? nullptr : config->proxy.c_str());
    return readUserInfoResponse(response, config->provider, config->userName, config->userType);
}
