#include "worker/SsoCommands.h"

#include "actions/SsoActions.h"
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Strings.h"
#include "transport/CurlRequest.h"

#include <cstdlib>
#include <cstring>

namespace {

// "0" is 0; anything else goes through strtol and keeps its low 32 bits, so "00" and "-5"
// read below 1 and "12x" reads 12. Returns -1 for an id that gets no reply.
int64_t readOptionId(std::string const &text) {
    if (text == "0") {
        return 0;
    }
    long value = std::strtol(text.c_str(), nullptr, 10);
    auto id = static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(value)));
    return id >= 1 ? id : -1;
}

// "<word>|<engine text>\n" or "<failure word>|<session>\n"; the engine's array is freed here.
char *compose(char *result, char const *ok, char const *failure, std::string const &session) {
    char *reply = nullptr;
    if (result != nullptr) {
        StringAdd(reply, ok, result, "\n");
        delete[] result;
    } else {
        StringAdd(reply, failure, session.c_str(), "\n");
    }
    return reply;
}

char *loadConfigs() {
    int result = SsoActions::loadConfigs();
    char *reply = nullptr;
    switch (result) {
        case 0:
            return StringInit(reply, "SSO_LOAD_CONFIGS_OK\n");
        case -1:
            return StringInit(reply, "SSO_LOAD_CONFIGS_FAILURE\n");
        case -2:
            return StringInit(reply, "SSO_LOAD_METADATA_FAILURE\n");
        default:
            Log() << "Sso: ERROR! Command '"
                  << "SSO_LOAD_CONFIGS"
                  << "' return is"
                  << " incorrect.\n";
            return nullptr;
    }
}

char *clientConfig(std::string const &idText, std::string const &session, char const *clusterIp,
                   char const *ok, char const *failure) {
    int64_t id = readOptionId(idText);
    if (id < 0) {
        return nullptr;
    }
    char *result =
        SsoActions::getClientConfig(static_cast<unsigned int>(id), session.c_str(), clusterIp);
    return compose(result, ok, failure, session);
}

}  // namespace

char *SsoCommands::execute(std::vector<std::string> const &command) {
    std::string const &name = command[0];
    // The first three check their own arguments; every other name needs two non-empty ones.
    if (name == "SSO_LOAD_CONFIGS") {
        return loadConfigs();
    }
    if (name == "SSO_GET_NODE_CONFIG") {
        if (command.size() < 2 || command[1].empty()) {
            return nullptr;
        }
        return compose(SsoActions::getNodeConfig(command[1].c_str()), "SSO_GET_NODE_CONFIG_OK|",
                       "SSO_GET_NODE_CONFIG_FAILURE|", command[1]);
    }
    if (name == "SSO_GET_CONFIG_CLUSTER") {
        if (command.size() < 4 || command[1].empty() || command[2].empty() || command[3].empty()) {
            return nullptr;
        }
        // The session is the last element and the cluster address the one before it.
        return clientConfig(command[1], command[3], command[2].c_str(),
                            "SSO_GET_CONFIG_CLUSTER_OK|", "SSO_GET_CONFIG_CLUSTER_FAILURE|");
    }
    if (command.size() < 3 || command[1].empty() || command[2].empty()) {
        return nullptr;
    }
    Log() << "Sso: Command arguments: '" << command[1] << "' ,'" << command[2] << "'.\n";
    if (name == "SSO_GET_CONFIG") {
        return clientConfig(command[1], command[2], nullptr, "SSO_GET_CONFIG_OK|",
                            "SSO_GET_CONFIG_FAILURE|");
    }
    if (name == "SSO_VERIFY" || name == "SSO_REFRESH" || name == "SSO_NODE_VERIFY") {
        // The login flows answer here once their engines exist.
        return nullptr;
    }
    Log() << "Sso: Command '" << name << "' is incorrect.\n";
    return nullptr;
}

void SsoCommands::drainCompletedFlows(int ioFd) {
    CurlRequest &network = CurlRequest::getNetwork();
    AsyncFlowResult result;
    while (network.getCompletedFlow(result)) {
        char *reply = nullptr;
        Log() << "Sso: Processing completed async flow for session: '" << result.sessionId
              << "'.\n";
        char const *session = result.sessionId.c_str();
        if (!result.success) {
            Log() << "Sso: Async flow failed: '" << result.errorMessage << "'"
                  << " HTTP: " << result.httpCode << ".\n";
            char const *word = result.flowType == 2   ? "SSO_REFRESH_FAILURE|"
                               : result.flowType == 3 ? "SSO_NODE_VERIFY_FAILURE|"
                               : result.flowType == 1 ? "SSO_VERIFY_FAILURE|"
                                                      : nullptr;
            if (word == nullptr) {
                continue;
            }
            StringAdd(reply, word, session, "\n");
        } else if (result.flowType == 2) {
            StringAdd(reply, "SSO_REFRESH_OK|", result.data.c_str(), "|", session, "\n");
        } else if (result.flowType == 3) {
            StringAdd(reply, "SSO_NODE_VERIFY_OK|", result.data.c_str(), "\n");
        } else if (result.flowType == 1) {
            StringAdd(reply, "SSO_VERIFY_OK|", result.data.c_str(), "|", session, "\n");
        } else {
            Log() << "Sso: ERROR! Unknown flow type in async response.\n";
            continue;
        }
        if (reply != nullptr) {
            Log() << "Sso: Writing async response to FD: " << ioFd << ".\n";
            Log() << "Sso: Response is: " << reply << ".\n";
            Io::fds_[ioFd].write(reply, std::strlen(reply));
            delete[] reply;
        }
        result = AsyncFlowResult();
    }
}
