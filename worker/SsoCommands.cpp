#include "worker/SsoCommands.h"

#include "platform/Log.h"

char *SsoCommands::execute(std::vector<std::string> const &command) {
    std::string const &name = command[0];
    // The first three check their own arguments; every other name needs two non-empty ones.
    if (name == "SSO_LOAD_CONFIGS") {
        return nullptr;
    }
    if (name == "SSO_GET_NODE_CONFIG") {
        return nullptr;
    }
    if (name == "SSO_GET_CONFIG_CLUSTER") {
        return nullptr;
    }
    if (command.size() < 3 || command[1].empty() || command[2].empty()) {
        return nullptr;
    }
    Log() << "Sso: Command arguments: '" << command[1] << "' ,'" << command[2] << "'"
          << ".\n";
    if (name == "SSO_GET_CONFIG" || name == "SSO_VERIFY" || name == "SSO_REFRESH" ||
        name == "SSO_NODE_VERIFY") {
        return nullptr;
    }
    Log() << "Sso: Command '" << name << "' is incorrect."
          << "\n";
    return nullptr;
}

void SsoCommands::drainCompletedFlows(int /*ioFd*/) {}
