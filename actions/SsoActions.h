#pragma once

#include <cstdint>

// Guarded operations between the exported functions and the engines. Stateless: every member is
// static. Each logs its start, refuses on the wrong kind of machine, calls one engine operation
// and logs a failure. Every char * result is a new array owned by the caller (delete[]); null
// means failure or refusal. String arguments are borrowed.
class SsoActions {
public:
    // Server side (worker thread, except initialize/destroy on the host's thread while no worker
    // runs).

    // Finds the configuration directory, decides server or node, starts the transport.
    // 0 on success, -1 on failure.
    static int initialize();
    // Loads the configuration file, prepares transfer handles, discovers provider metadata.
    // kConfigsLoaded on success (also on a node), kConfigsFailed when the file could not be
    // loaded, kMetadataFailed when it loaded but a provider's metadata did not.
    static int loadConfigs();
    static constexpr int kConfigsLoaded = 0;
    static constexpr int kConfigsFailed = -1;
    static constexpr int kMetadataFailed = -2;
    // Transfer handles made for each provider record when the file is loaded.
    static constexpr int kHandlersPerProvider = 5;
    // Length of a user session from getUserSession.
    static constexpr uint32_t kUserSessionLength = 32;
    static char *getUserLoginOptions();
    static char *getUserSession();
    // `clusterIp` may be null.
    static char *getClientConfig(unsigned int id, char const *session, char const *clusterIp);
    static char *verifyLogin(char const *code, char const *session);
    static char *getNodeConfig(char const *session);
    static char *nodeLogin(char const *nodeConfig, char const *session);
    static char *refreshLogin(char const *uuid, char const *session);
    static void destroy();

    // Client side (caller's thread; uses only objects local to the call).

    // Builds the provider's authorization URL from percent-encoded five-field login data.
    // Null on failure.
    static char *loginUrl(char const *data);
    // Same, handing the URL to `callback` (valid during the call only). 0 if the callback was
    // called, -1 otherwise.
    static int login(char const *data, void (*callback)(char const *));
};
