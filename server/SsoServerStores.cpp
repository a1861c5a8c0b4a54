// SsoServer, stores: the pending logins and refresh records by session, and the checks of
// tokens and records.

#include "platform/Clock.h"
#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfig.h"
#include "server/SsoServerConfigOAuth.h"

namespace {

// Reads and erases: after a get the record lives only in the caller's hands.
template <typename Info>
bool consume(std::unordered_map<std::string, Info> &store, std::string const &session, Info &info,
             char const *process, char const *sizeWord) {
    Log() << "SsoServer: Get information for " << process << " process based on user session: '"
          << session << "'. " << sizeWord << " info size: " << store.size() << ".\n";
    auto found = store.find(session);
    if (found == store.end()) {
        Log() << "SsoServer: WARNING! Information not found.\n";
        return false;
    }
    Log() << "SsoServer: Information found. Copying information for later.\n";
    info = found->second;
    Log() << "SsoServer: Removing information from memory.\n";
    store.erase(found);
    Log() << "SsoServer: " << sizeWord << " info size: " << store.size() << ".\n";
    return true;
}

// Puts back a record the worker popped for a flow that could not start, overwriting; a
// refresh record keeps its savedAt, so a restore does not renew its age.
template <typename Info>
bool restore(std::unordered_map<std::string, Info> &store, std::string const &session,
             Info const &info, char const *kind, char const *keyName, char const *sizeWord) {
    Log() << "SsoServer: Push OAuth " << kind << " info for user session: '" << session << "'"
          << " (failover restore)\n";
    if (session.empty()) {
        Log() << "SsoServer: ERROR! " << keyName << " is empty.\n";
        return false;
    }
    store[session] = info;
    Log() << "SsoServer: " << sizeWord << " info restored. Size: " << store.size() << ".\n";
    return true;
}

}  // namespace

bool SsoServer::getOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo &info) {
    return consume(authzInfoBySession, session, info, "verification", "Login");
}

bool SsoServer::popOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo &info) {
    Log() << "SsoServer: Pop OAuth authz info for user session: '" << session << "'.\n";
    return getOAuthAuthzInfo(session, info);
}

bool SsoServer::pushOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo const &info) {
    return restore(authzInfoBySession, session, info, "authz", "User session", "Login");
}

bool SsoServer::getOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo &info) {
    return consume(refreshInfoBySession, session, info, "refresh", "Refresh");
}

bool SsoServer::popOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo &info) {
    Log() << "SsoServer: Pop OAuth refresh info for user session: '" << session << "'.\n";
    return getOAuthRefreshInfo(session, info);
}

bool SsoServer::pushOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo const &info) {
    return restore(refreshInfoBySession, session, info, "refresh", "Session token", "Refresh");
}

bool SsoServer::validateOAuthTokens(OAuthTokens const &tokens) const {
    return !tokens.accessToken.empty() && !tokens.idToken.empty() && !tokens.refreshToken.empty();
}

bool SsoServer::validateOAuthAuthzInfo(OAuthAuthzInfo const &info) const {
    Log() << "SsoServer: Validating information for verification process with"
          << " config ID: " << info.configId << ".\n";
    if (info.configId >= configs.size()) {
        Log() << "SsoServer: ERROR! Config ID is invalid.\n";
        return false;
    }
    if (configs[info.configId] == nullptr ||
        configs[info.configId]->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: ERROR! Config type is invalid.\n";
        return false;
    }
    if (info.codeVerifier.empty()) {
        Log() << "SsoServer: ERROR! Code verifier is empty.\n";
        return false;
    }
    if (info.redirectUri.empty()) {
        Log() << "SsoServer: ERROR! Redirect uri is empty.\n";
        return false;
    }
    return true;
}

bool SsoServer::validateOAuthRefreshInfo(OAuthRefreshInfo const &info) const {
    Log() << "SsoServer: Validating information for refresh process with"
          << " config ID: " << info.configId << ".\n";
    if (info.configId >= configs.size()) {
        Log() << "SsoServer: ERROR! Config ID is invalid.\n";
        return false;
    }
    if (configs[info.configId] == nullptr ||
        configs[info.configId]->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
        Log() << "SsoServer: ERROR! Config type is invalid.\n";
        return false;
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(configs[info.configId]);
    int64_t limit =
        config->refreshLifetime == 0 ? kDefaultRefreshLifetime : config->refreshLifetime;
    int64_t age = ClockSeconds() - info.savedAt;
    if (age > limit) {
        Log() << "SsoServer: ERROR! Information is expired. Time limit was" << limit
              << "s, but passed: " << age << "s.\n";
        return false;
    }
    if (info.refreshToken.empty()) {
        Log() << "SsoServer: ERROR! Refresh token is empty.\n";
        return false;
    }
    if (info.accessToken.empty()) {
        Log() << "SsoServer: ERROR! Access token is empty.\n";
        return false;
    }
    return true;
}
