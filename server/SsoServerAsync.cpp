// SsoServer, completion of background flows: the tail of a login or refresh that ran as a
// flow, and of a node verification, with the same rules as the blocking road.

#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "server/SsoServerResponses.h"

namespace {

char *failed(char const *message) {
    Log() << "SsoServer: ERROR! " << message << ".\n";
    return nullptr;
}

}  // namespace

char *SsoServer::completeAsyncLoginFlow(std::string const &userInfo, std::string const &accessToken,
                                        std::string const &refreshToken, uint32_t configId,
                                        std::string const &oldSession) {
    Log() << "SsoServer: Completing async login flow for configId: " << configId << ".\n";
    // Runs first, so that even a completion that fails later leaves no old record behind.
    if (!oldSession.empty()) {
        Log() << "SsoServer: Refresh flow - replacing old session token: '" << oldSession << "'.\n";
        auto lingering = refreshInfoBySession.find(oldSession);
        if (lingering == refreshInfoBySession.end()) {
            Log() << "SsoServer: Verified old session token removed from memory.\n";
        } else {
            Log() << "SsoServer: WARNING! Old session token still in memory. Removing now.\n";
            refreshInfoBySession.erase(lingering);
        }
    }
    if (userInfo.empty()) {
        return failed("UserInfo is empty");
    }
    if (configId >= configs.size()) {
        Log() << "SsoServer: ERROR! Invalid config ID: " << configId << ".\n";
        return nullptr;
    }
    if (configs[configId] == nullptr) {
        Log() << "SsoServer: ERROR! Config is null for ID: " << configId << ".\n";
        return nullptr;
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(configs[configId]);
    std::string user =
        readUserInfoResponse(userInfo, config->provider, config->userName, config->userType);
    if (user.empty()) {
        return failed("Final username is empty");
    }
    if (!revokeRefreshToken(refreshToken, configId)) {
        return failed("Tokens revocation failed");
    }
    std::string session = generateUserSession(configId);
    if (session.empty()) {
        return failed("Generating new user session failed");
    }
    std::string expiry = getTokenExpirationTimestampAsString(configId);
    if (expiry.empty()) {
        return failed("Generating new user session failed");
    }
    std::string token = createUserToken(user, session, expiry);
    char *copy = nullptr;
    if (StringInit(copy, token.c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    if (!saveRefreshInfo(refreshToken, accessToken, configId, session)) {
        delete[] copy;
        return failed("Can't save refresh information");
    }
    if (oldSession.empty()) {
        Log() << "SsoServer: New session token created: '" << session << "'.\n";
    } else {
        Log() << "SsoServer: Token replacement complete.\n";
        Log() << "SsoServer: Old session: '" << oldSession << "'"
              << " New session: '" << session << "'.\n";
    }
    Log() << "SsoServer: Async login flow completed. Result: '" << token << "'.\n";
    return copy;
}

char *SsoServer::completeAsyncNodeFlow(std::string const &userInfo, std::string const &session,
                                       std::string const &provider, std::string const &userName,
                                       std::string const &userType) {
    Log() << "SsoServer: Completing async node flow for session: '" << session << "'.\n";
    if (userInfo.empty()) {
        return failed("UserInfo is empty");
    }
    if (session.empty()) {
        return failed("User session is empty");
    }
    std::string user = readUserInfoResponse(userInfo, provider, userName, userType);
    if (user.empty()) {
        return failed("Final user is empty");
    }
    std::string token = createUserTokenFromNode(user, session);
    char *copy = nullptr;
    if (StringInit(copy, token.c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    Log() << "SsoServer: Async node flow completed. Result: '" << token << "'.\n";
    return copy;
}
