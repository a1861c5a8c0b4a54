// SsoServer, machine type: the singleton, the configuration directory, whether this machine
// is a server or a node, and clearing the records.

#include "server/SsoServer.h"

#include "platform/Files.h"
#include "platform/Log.h"
#include "server/SsoServerConfig.h"
#include "support/ConfigKeys.h"

#include <initializer_list>

namespace {

char const kFirstConfigDir[] = "/usr/QX/etc";

}  // namespace

SsoServer &SsoServer::getServer() {
    // Never destroyed: a host may exit while the worker still runs, and the worker must not
    // find the engine torn down under it by the process's exit.
    static SsoServer &server = *new SsoServer;
    return server;
}

SsoServer::SsoServer() {
    Log() << "SsoServer: Server constructor.\n";
}

SsoServer::~SsoServer() {
    Log() << "SsoServer: Server destructor.\n";
    clearConfigs();
}

bool SsoServer::setConfigPath() {
    // Empty in production builds; tests choose a directory of their own at run time.
    std::string const second = FileSecondConfigDir();
    for (char const *candidate : {kFirstConfigDir, second.c_str()}) {
        if (*candidate != '\0' && FileIsEntity(candidate) == 1) {
            configPath = candidate;
            Log() << "SsoServer: Set config path to: '" << configPath << "'\n";
            return true;
        }
    }
    Log() << "SsoServer: ERROR! Can't set config path.\n";
    return false;
}

std::string SsoServer::configFile() const {
    return configPath + "/" + ConfigKeys::fileName;
}

bool SsoServer::setMachineType() {
    if (configPath.empty()) {
        Log() << "SsoServer: ERROR! Can't set machine type. Config path is empty.\n";
        return false;
    }
    std::string file = configFile();
    int exists = FileIsEntity(file.c_str());
    if (exists == 0) {
        Log() << "SsoServer: File '" << file << "' doesn't exist. Machine type set to 'node'.\n";
        machineType = kMachineNode;
        // A node keeps no configuration at all.
        configPath.clear();
        reserved.clear();
        {
            std::lock_guard<std::mutex> lock(loginOptionsMutex);
            loginOptions.clear();
        }
        for (SsoServerConfig *config : configs) {
            delete config;
        }
        configs.clear();
        authzInfoBySession.clear();
        refreshInfoBySession.clear();
        return true;
    }
    if (exists == -1) {
        Log() << "SsoServer: ERROR! Can't set machine type. No access to file: '" << file << "'\n";
        machineType = kMachineUnset;
        return false;
    }
    Log() << "SsoServer: File '" << file << "' exist. Machine type set to 'server'.\n";
    machineType = kMachineServer;
    return true;
}

void SsoServer::clearConfigs() {
    Log() << "SsoServer: Cleaning server configs.\n";
    for (SsoServerConfig *&config : configs) {
        delete config;
        config = nullptr;
    }
    configs.clear();
    authzInfoBySession.clear();
    refreshInfoBySession.clear();
    {
        std::lock_guard<std::mutex> lock(loginOptionsMutex);
        loginOptions.clear();
    }
    reserved.clear();
}
