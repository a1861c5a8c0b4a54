// SsoServer, user tokens: session values, expiries, the user token strings, refresh records
// and their periodic clean-up.

#include "platform/Clock.h"
#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoUtils.h"

#include <limits>
#include <string>
#include <vector>

bool SsoServer::cleanTokens() {
    Log() << "SsoServer: Clearing up old tokens.\n";
    int64_t now = ClockSeconds();
    // A null slot is left out of the list without a hole, so later records then measure
    // against their neighbour's limit; records are looked up by configId all the same.
    std::vector<SsoServerConfigOAuth *> listed;
    for (SsoServerConfig *config : configs) {
        if (config == nullptr) {
            Log() << "SsoServer: Failed to get config and clear tokens!.\n";
            continue;
        }
        listed.push_back(static_cast<SsoServerConfigOAuth *>(config));
    }
    for (auto entry = refreshInfoBySession.begin(); entry != refreshInfoBySession.end();) {
        OAuthRefreshInfo const &info = entry->second;
        if (info.configId >= listed.size()) {
            Log() << "SsoServer: ERROR! Invalid config ID in refresh info. Removing entry.\n";
            entry = refreshInfoBySession.erase(entry);
            continue;
        }
        int64_t lifetime = listed[info.configId]->refreshLifetime;
        int64_t limit = lifetime == 0 ? kDefaultRefreshLifetime : lifetime;
        int64_t age = now - info.savedAt;
        if (limit < age) {
            Log() << "SsoServer: Removing expired refresh token for session: '" << entry->first
                  << "'"
                  << " (age: " << age << "s, limit: " << limit << "s)"
                  << ".\n";
            entry = refreshInfoBySession.erase(entry);
            continue;
        }
        ++entry;
    }
    Log() << "SsoServer: Token cleanup complete. Remaining tokens: " << refreshInfoBySession.size()
          << ".\n";
    return true;
}

namespace {

SsoServerConfigOAuth const *oauthConfig(std::vector<SsoServerConfig *> const &configs,
                                        uint32_t configId) {
    SsoServerConfig const *entry = configId < configs.size() ? configs[configId] : nullptr;
    if (entry == nullptr || entry->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        return nullptr;
    }
    return static_cast<SsoServerConfigOAuth const *>(entry);
}

}  // namespace

std::string SsoServer::generateUserSession(uint32_t configId) {
    Log() << "SsoServer: Generating user session for config ID: " << configId << ".\n";
    SsoServerConfigOAuth const *config = oauthConfig(configs, configId);
    if (config == nullptr) {
        Log() << "SsoServer: ERROR! Config type is invalid.\n";
        return std::string();
    }
    if (!config->refresh) {
        Log() << "SsoServer: For config with ID: " << configId << " refresh flow is not set."
              << " Generate default token..\n";
        return kSessionWithoutRefresh;
    }
    Log() << "SsoServer: For config with ID: " << configId << " refresh flow is set."
          << " Generate new user session..\n";
    std::string session = getRandomAsciiString(kSessionValueLength);
    if (session.empty()) {
        Log() << "SsoServer: ERROR! New user session is empty.\n";
        return std::string();
    }
    return session;
}

std::string SsoServer::getTokenExpirationTimestampAsString(uint32_t configId) {
    Log() << "SsoServer: Getting token expiration for config ID: " << configId << ".\n";
    SsoServerConfigOAuth const *config = oauthConfig(configs, configId);
    if (config == nullptr) {
        Log() << "SsoServer: ERROR! Config type is invalid.\n";
        return std::string();
    }
    int64_t seconds = ClockTimeOfDaySeconds();
    if (seconds < 0) {
        Log() << "SsoServer: ERROR! Timestamp is negative.\n";
        return std::string();
    }
    // The lifetime is used as it stands: a lifetime of 0 makes an expiry of now, although the
    // refresh record itself lives for the default hour.
    int64_t lifetime = config->refreshLifetime;
    if (lifetime > 0 && seconds > std::numeric_limits<int64_t>::max() - lifetime) {
        Log() << "SsoServer: ERROR! Value overflow..\n";
        return std::string();
    }
    return std::to_string(seconds + lifetime);
}

std::string SsoServer::createUserToken(std::string const &userName, std::string const &session,
                                       std::string const &expiration) const {
    Log() << "SsoServer: Creating user token for username: '" << userName << "'"
          << " user session: '" << session << "'"
          << " expiration: '" << expiration << "'.\n";
    if (userName.empty()) {
        Log() << "SsoServer: ERROR! Username is empty.\n";
        return std::string();
    }
    if (session.empty()) {
        Log() << "SsoServer: ERROR! User session is empty.\n";
        return std::string();
    }
    if (expiration.empty()) {
        Log() << "SsoServer: ERROR! Expiration is empty.\n";
        return std::string();
    }
    // No field is escaped: a "|" in a user name stands in the token as it is.
    std::string token = userName + "|" + session + "|" + expiration;
    Log() << "SsoServer: Token is: '" << token << "'.\n";
    return token;
}

std::string SsoServer::createUserTokenFromNode(std::string const &userName,
                                               std::string const &session) const {
    Log() << "SsoServer: Creating user token for username: '" << userName << "'"
          << " user session: '" << session << "'"
          << " from node.\n";
    if (userName.empty()) {
        Log() << "SsoServer: ERROR! Username is empty.\n";
        return std::string();
    }
    if (session.empty()) {
        Log() << "SsoServer: ERROR! User session is empty.\n";
        return std::string();
    }
    std::string token = userName + "|" + session;
    Log() << "SsoServer: Token is: '" << token << "'.\n";
    return token;
}

bool SsoServer::saveRefreshInfo(std::string const &refreshToken, std::string const &accessToken,
                                uint32_t configId, std::string const &session) {
    Log() << "SsoServer: Saving information for later refresh process.\n";
    if (refreshToken.empty()) {
        Log() << "SsoServer: ERROR! Refresh token is empty.\n";
        return false;
    }
    if (accessToken.empty()) {
        Log() << "SsoServer: ERROR! Access token is empty.\n";
        return false;
    }
    if (session.empty()) {
        Log() << "SsoServer: ERROR! User session is empty.\n";
        return false;
    }
    SsoServerConfigOAuth const *config = oauthConfig(configs, configId);
    if (config == nullptr) {
        Log() << "SsoServer: ERROR! Config type is invalid.\n";
        return false;
    }
    // These tests come after the ones above on purpose: with the refresh flow off, empty tokens
    // still fail.
    if (!config->refresh || session == kSessionWithoutRefresh) {
        Log() << "SsoServer: Refresh flow NOT set in configuration. Abort saving token"
              << " information.\n";
        return true;
    }
    Log() << "SsoServer: Refresh info size: " << refreshInfoBySession.size() << ".\n";
    OAuthRefreshInfo info;
    info.configId = configId;
    info.savedAt = ClockSeconds();
    info.refreshToken = refreshToken;
    info.accessToken = accessToken;
    // A record already under this session stays as it is.
    refreshInfoBySession.emplace(session, std::move(info));
    Log() << "SsoServer: Refresh info size: " << refreshInfoBySession.size() << ".\n";
    return true;
}
