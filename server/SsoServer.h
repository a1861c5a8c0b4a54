#pragma once

#include "server/OAuthAuthzInfo.h"
#include "server/OAuthRefreshInfo.h"
#include "server/OAuthTokens.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

class SsoServerConfig;
class SsoServerConfigOAuth;

// The server engine: machine type, the configuration file and its provider records, provider
// discovery, and the stores of pending logins and refresh records. One per process
// (getServer()); used by the worker thread, and by the host's thread only while no worker runs
// (and for getLoginOptions). No locks.
class SsoServer {
public:
    static SsoServer &getServer();

    SsoServer();
    ~SsoServer();
    SsoServer(SsoServer const &) = delete;
    SsoServer &operator=(SsoServer const &) = delete;

    // Finds the configuration directory. False when no candidate exists.
    bool setConfigPath();
    // Server when the configuration file exists, node when it does not. False when undecided.
    bool setMachineType();
    // Reads and validates the whole file and makes the records; all or nothing.
    bool loadConfigsJson();
    // Destroys the records and empties both stores and the login options.
    void clearConfigs();
    // Discovers the endpoints of every OAuth record; stops at the first failure.
    bool loadConfigsMetadata();
    bool loadMetadata(SsoServerConfigOAuth *config);

    // A new copy of the percent-encoded login options, or null when there are none.
    char *getLoginOptions() const;
    // The S256 challenge of `verifier`, or "".
    std::string getCodeChallenge(std::string const &verifier);
    // "<client JSON>|<code challenge>|<session>" as a new array, keeping the verifier for the
    // exchange; null on failure. `clusterIp` may be null.
    char *getClientConfig(uint32_t configId, char const *session, char const *clusterIp);
    // "<node JSON>|<session>" for a stored refresh record (not consumed), or null.
    char *getNodeConfig(std::string const &session);

    // Forgets refresh records that aged out or point past the records. Returns true.
    bool cleanTokens();

    // The stores. get/pop consume the record; push restores one, overwriting.
    bool getOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo &info);
    bool popOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo &info);
    bool pushOAuthAuthzInfo(std::string const &session, OAuthAuthzInfo const &info);
    bool getOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo &info);
    bool popOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo &info);
    bool pushOAuthRefreshInfo(std::string const &session, OAuthRefreshInfo const &info);
    bool validateOAuthTokens(OAuthTokens const &tokens) const;
    bool validateOAuthAuthzInfo(OAuthAuthzInfo const &info) const;
    bool validateOAuthRefreshInfo(OAuthRefreshInfo const &info) const;

    int32_t machineType = -1;  // -1 not set, 0 server, 1 node
    std::string configPath;
    std::string reserved;
    std::string loginOptions;
    std::vector<SsoServerConfig *> configs;
    std::unordered_map<std::string, OAuthAuthzInfo> authzInfoBySession;
    std::unordered_map<std::string, OAuthRefreshInfo> refreshInfoBySession;
};
