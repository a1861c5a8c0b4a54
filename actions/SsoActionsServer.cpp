// SsoActions, server side: start and stop of the engines, and the guarded operations behind
// the worker's commands and the host's login options and user sessions.

#include "actions/SsoActions.h"

#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "support/SsoUtils.h"
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"

namespace {

// The guards treat every machine type but node (1) as allowed, "not set" included.
bool isNode() {
    return SsoServer::getServer().machineType == SsoServer::kMachineNode;
}

char const *orNil(char const *text) {
    return text ? text : "nil";
}

// The engines take owned strings; a null (which no caller passes) reads as empty.
std::string owned(char const *text) {
    return text ? text : "";
}

}  // namespace

int SsoActions::initialize() {
    Log() << "SsoActions: Start initializing sso environment.\n";
    SsoServer &server = SsoServer::getServer();
    if (!server.setConfigPath()) {
        Log() << "SsoActions: ERROR! Set configuration path failed.\n";
        return -1;
    }
    if (!server.setMachineType()) {
        Log() << "SsoActions: ERROR! Set machine type failed.\n";
        return -1;
    }
    Log() << "SsoActions: Initializing CurlRequest.\n";
    if (!CurlRequest::getNetwork().init(CURL_GLOBAL_ALL)) {
        Log() << "SsoActions: ERROR! CurlRequest initialization failed.\n";
        return -1;
    }
    Log() << "SsoActions: CurlRequest initialized successfully.\n";
    // The blocking road (failover, revocation) needs its own request object ready too.
    Log() << "SsoActions: Initializing SsoRequest.\n";
    if (!SsoRequest::getNetwork().init(CURL_GLOBAL_ALL)) {
        Log() << "SsoActions: ERROR! SsoRequest initialization failed.\n";
        // Left initialized, CurlRequest would refuse every later start.
        CurlRequest::getNetwork().cleanUp();
        return -1;
    }
    Log() << "SsoActions: SsoRequest initialized successfully.\n";
    Log() << "SsoActions: Finish initializing sso environment.\n";
    return 0;
}

int SsoActions::loadConfigs() {
    Log() << "SsoActions: Start loading configuration.\n";
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. Skip loading configs.\n";
        return kConfigsLoaded;
    }
    SsoServer &server = SsoServer::getServer();
    if (!server.loadConfigsJson()) {
        Log() << "SsoActions: ERROR! Loading configuration file failed.\n";
        return kConfigsFailed;
    }
    // Handlers come before the metadata requests, so the pool exists for every provider that
    // the file names, whatever discovery then makes of it.
    Log() << "SsoActions: Setting up CurlRequest handlers for each config.\n";
    CurlRequest &network = CurlRequest::getNetwork();
    for (size_t index = 0; index < server.configs.size(); ++index) {
        if (!network.setupHandlersForConfig(static_cast<int>(index), kHandlersPerProvider)) {
            Log() << "SsoActions: WARNING! Setting up handlers for config " << index
                  << " failed.\n";
        }
    }
    if (!server.loadConfigsMetadata()) {
        Log() << "SsoActions: ERROR! Loading configuration metadata failed.\n";
        server.clearConfigs();
        return kMetadataFailed;
    }
    Log() << "SsoActions: Finish loading configuration.\n";
    return kConfigsLoaded;
}

char *SsoActions::getUserLoginOptions() {
    Log() << "SsoActions: Sending user login options.\n";
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. User login options"
              << " does not exist.\n";
        return nullptr;
    }
    char *options = SsoServer::getServer().getLoginOptions();
    if (options == nullptr) {
        Log() << "SsoActions: ERROR! Loading user login options failed.\n";
    }
    return options;
}

char *SsoActions::getUserSession() {
    Log() << "SsoActions: Get user session.\n";
    std::string session = getRandomAsciiString(kUserSessionLength);
    if (session.empty()) {
        Log() << "SsoActions: ERROR! User session generation failed.\n";
        return nullptr;
    }
    char *copy = nullptr;
    if (StringInit(copy, session.c_str()) == nullptr) {
        Log() << "SsoActions: ERROR! Memory allocation failed.\n";
        return nullptr;
    }
    return copy;
}

char *SsoActions::getClientConfig(unsigned int id, char const *session, char const *clusterIp) {
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. Can not get config based on"
              << " user login option id.\n";
        return nullptr;
    }
    Log() << "SsoActions: Start get config. Received user login option id: " << id
          << " user session: '" << orNil(session) << "'"
          << " and cluster IP (optional): '" << orNil(clusterIp) << "'.\n";
    char *config = SsoServer::getServer().getClientConfig(id, session, clusterIp);
    if (config == nullptr) {
        Log() << "SsoActions: ERROR! Get config failed.\n";
    }
    return config;
}

char *SsoActions::getNodeConfig(char const *session) {
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. Can not get"
              << " node config.\n";
        return nullptr;
    }
    Log() << "SsoActions: Start get node config. Received user session: '" << orNil(session)
          << "'.\n";
    char *config = SsoServer::getServer().getNodeConfig(owned(session));
    if (config == nullptr) {
        Log() << "SsoActions: ERROR! Get node config failed.\n";
    }
    return config;
}

char *SsoActions::verifyLogin(char const *code, char const *session) {
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. Can not perform"
              << " verify login.\n";
        return nullptr;
    }
    Log() << "SsoActions: Start verify login. Received OAuth code: '" << orNil(code) << "'"
          << " and user session: '" << orNil(session) << "'.\n";
    char *token = SsoServer::getServer().loginFlow(owned(code), owned(session));
    if (token == nullptr) {
        Log() << "SsoActions: ERROR! Verify login failed.\n";
    }
    return token;
}

char *SsoActions::refreshLogin(char const *uuid, char const *session) {
    if (isNode()) {
        Log() << "SsoActions: WARNING! Machine type is node. Can't perform"
              << " refresh login.\n";
        return nullptr;
    }
    Log() << "SsoActions: Start refresh login. Received UUID: '" << orNil(uuid) << "'"
          << " and user session: '" << orNil(session) << "'.\n";
    char *token = SsoServer::getServer().refreshFlow(owned(uuid), owned(session));
    if (token == nullptr) {
        Log() << "SsoActions: ERROR! Refresh login failed.\n";
    }
    return token;
}

char *SsoActions::nodeLogin(char const *nodeConfig, char const *session) {
    if (!isNode()) {
        Log() << "SsoActions: WARNING! Machine type is not node. Can not perform"
              << " node login.\n";
        return nullptr;
    }
    Log() << "SsoActions: Start node login. Received node configuration: '" << orNil(nodeConfig)
          << "'"
          << " and user session: '" << orNil(session) << "'.\n";
    char *token = SsoServer::getServer().nodeFlow(owned(nodeConfig), owned(session));
    if (token == nullptr) {
        Log() << "SsoActions: ERROR! Node login failed.\n";
    }
    return token;
}

void SsoActions::destroy() {
    Log() << "SsoActions: Start destroying sso environment.\n";
    // The transport goes first, so that no transfer can touch a configuration being freed.
    CurlRequest::getNetwork().cleanUp();
    SsoRequest::getNetwork().cleanUp();
    SsoServer::getServer().clearConfigs();
    Log() << "SsoActions: Finish destroying sso environment.\n";
}
