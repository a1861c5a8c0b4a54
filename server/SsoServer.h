#pragma once

#include "server/OAuthAuthzInfo.h"
#include "server/OAuthRefreshInfo.h"
#include "server/OAuthTokens.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class SsoServerConfig;
class SsoServerConfigOAuth;
namespace Json {
class Value;
}

// The server engine: machine type, the configuration file and its provider records, provider
// discovery, and the stores of pending logins and refresh records. One per process
// (getServer()); used by the worker thread, and by the host's thread only while no worker runs.
// The one exception is SsoGetUserLoginOptions, which reads the machine type and the login
// options on the host's thread while the worker may be loading or clearing them: those two
// fields alone are guarded (an atomic and a mutex, below). Everything else is the worker's
// and takes no lock.
class SsoServer {
public:
    static SsoServer &getServer();

    SsoServer();
    ~SsoServer();
    SsoServer(SsoServer const &) = delete;
    SsoServer &operator=(SsoServer const &) = delete;

    // Finds the configuration directory. False when no candidate exists.
    bool setConfigPath();
    // The configuration file's path in configPath ("<configPath>/sso.cfg").
    std::string configFile() const;
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

    // Token exchange at the provider's token endpoint (blocking). Empty tokens on failure.
    OAuthTokens exchangeCodeForTokens(std::string const &code, OAuthAuthzInfo const &info);
    // `uuid` is accepted and not used.
    OAuthTokens exchangeRefreshForTokens(std::string const &uuid, std::string const &refreshToken,
                                         uint32_t configId);
    // Asks the userinfo endpoint who owns `accessToken` (blocking): the final user name, or "".
    std::string fetchUserInfo(std::string const &accessToken, uint32_t configId);
    // Gives `refreshToken` back to the provider unless the refresh flow keeps it or the provider
    // is "microsoft" (blocking). True when the login may go on.
    bool revokeRefreshToken(std::string const &refreshToken, uint32_t configId);

    // Session value of a new user token: 32 random characters with the refresh flow on, "000"
    // with it off; "" on failure.
    std::string generateUserSession(uint32_t configId);
    // Now plus the provider's refresh lifetime, in decimal seconds; "" on failure.
    std::string getTokenExpirationTimestampAsString(uint32_t configId);
    // "<user>|<session>|<expiry>", or "" when a field is empty.
    std::string createUserToken(std::string const &userName, std::string const &session,
                                std::string const &expiration) const;
    // "<user>|<session>", or "" when a field is empty.
    std::string createUserTokenFromNode(std::string const &userName,
                                        std::string const &session) const;
    // Keeps what a later refresh and node configuration need, under `session`, when the
    // refresh flow is on. False for an empty token or session or a bad configuration.
    bool saveRefreshInfo(std::string const &refreshToken, std::string const &accessToken,
                         uint32_t configId, std::string const &session);

    // The whole login, refresh and node verification as one blocking call each. A new array
    // holding the user token (the caller frees it), or null on failure.
    char *loginFlow(std::string const &code, std::string const &session);
    char *refreshFlow(std::string const &uuid, std::string const &sessionToken);
    char *nodeFlow(std::string const &nodeConfig, std::string const &session);

    // The tail of a login or refresh that ran as a background flow (`oldSession` empty for a
    // login), and of a node verification. A new array with the user token, or null.
    char *completeAsyncLoginFlow(std::string const &userInfo, std::string const &accessToken,
                                 std::string const &refreshToken, uint32_t configId,
                                 std::string const &oldSession);
    char *completeAsyncNodeFlow(std::string const &userInfo, std::string const &session,
                                std::string const &provider, std::string const &userName,
                                std::string const &userType);

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

    // Seconds a refresh record lives when its provider sets no "qx_refresh_lifetime" (or 0).
    static constexpr int64_t kDefaultRefreshLifetime = 3600;
    // Length of the session value of a user token with the refresh flow on.
    static constexpr uint32_t kSessionValueLength = 32;
    // The session value of every user token with the refresh flow off: no refresh record is
    // kept under it.
    static constexpr char const *kSessionWithoutRefresh = "000";

    // The values of machineType.
    static constexpr int32_t kMachineUnset = -1;
    static constexpr int32_t kMachineServer = 0;
    static constexpr int32_t kMachineNode = 1;
    // kMachineUnset, kMachineServer or kMachineNode. Atomic: the host's thread reads it
    // (SsoGetUserLoginOptions) while the worker may be deciding it anew.
    std::atomic<int32_t> machineType{kMachineUnset};
    std::string configPath;
    std::string reserved;
    std::string loginOptions;
    // Held while loginOptions is replaced or copied: the host's thread reads it (through
    // SsoGetUserLoginOptions) while the worker may be reloading the configuration. Never held
    // across a provider request.
    mutable std::mutex loginOptionsMutex;
    std::vector<SsoServerConfig *> configs;
    std::unordered_map<std::string, OAuthAuthzInfo> authzInfoBySession;
    std::unordered_map<std::string, OAuthRefreshInfo> refreshInfoBySession;

private:
    // Makes an OAuth record of every OAuth entry of a validated file, in the file's order.
    void makeRecords(Json::Value const &root);
    // The steps of loginFlow and refreshFlow after the exchange, from the token check to the
    // saved refresh record; the two name their session and expiry failures differently.
    char *finishBlockingLogin(OAuthTokens const &tokens, uint32_t configId,
                              char const *sessionFailure, char const *expiryFailure);
};
