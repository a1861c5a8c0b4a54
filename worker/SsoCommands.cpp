#include "worker/SsoCommands.h"

#include "actions/SsoActions.h"
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "transport/CurlRequest.h"
#include "worker/SsoChannel.h"

#include <cstdlib>
#include <cstring>

bool SsoCommands::flowStarted = false;

namespace {

// From here on the command's flow owns its reply. A test may throw at this point to see that
// the command still gets one line.
void startedFlow() {
    SsoCommands::flowStarted = true;
    SsoChannel::enterStep("Flow started");
}

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

// The answer of the blocking road, with the words of the background road's reply.
char *failover(char *token, char const *ok, char const *failure, std::string const &session,
               bool withSession, char const *succeeded, char const *alsoFailed) {
    char *reply = nullptr;
    if (token == nullptr) {
        Log() << alsoFailed;
        return StringAdd(reply, failure, session.c_str(), "\n");
    }
    Log() << succeeded;
    if (withSession) {
        StringAdd(reply, ok, token, "|", session.c_str(), "\n");
    } else {
        StringAdd(reply, ok, token, "\n");
    }
    delete[] token;
    return reply;
}

char *failureLine(char const *failure, std::string const &session) {
    char *reply = nullptr;
    return StringAdd(reply, failure, session.c_str(), "\n");
}

char *verify(std::string const &code, std::string const &session) {
    SsoServer &server = SsoServer::getServer();
    OAuthAuthzInfo info;
    if (!server.popOAuthAuthzInfo(session, info)) {
        Log() << "Sso: ERROR! Can't get auth info for user session: '" << session << "'.\n";
        return failureLine("SSO_VERIFY_FAILURE|", session);
    }
    Log() << "Sso: Attempting async verify flow for user session: '" << session << "'.\n";
    if (CurlRequest::getNetwork().startVerifyFlow(session, code, info)) {
        startedFlow();
        Log() << "Sso: Started async verify flow successfully for user session: '" << session
              << "'.\n";
        return nullptr;
    }
    Log() << "Sso: WARNING! Async verify flow failed to start. "
          << "Falling back to sync path for user session: '" << session << "'.\n";
    // The blocking road consumes the record from the store by itself, so it goes back first.
    if (!server.pushOAuthAuthzInfo(session, info)) {
        Log() << "Sso: ERROR! Failed to restore auth info for failover.\n";
        return failureLine("SSO_VERIFY_FAILURE|", session);
    }
    Log() << "Sso: Executing sync verify login for user session: '" << session << "'.\n";
    return failover(SsoActions::verifyLogin(code.c_str(), session.c_str()), "SSO_VERIFY_OK|",
                    "SSO_VERIFY_FAILURE|", session, true,
                    "Sso: Sync verify login succeeded (failover).\n",
                    "Sso: ERROR! Sync verify login also failed.\n");
}

char *refresh(std::string const &uuid, std::string const &session) {
    SsoServer &server = SsoServer::getServer();
    OAuthRefreshInfo info;
    if (!server.popOAuthRefreshInfo(session, info)) {
        Log() << "Sso: ERROR! Can't get refresh info for user session: '" << session << "'.\n";
        return failureLine("SSO_REFRESH_FAILURE|", session);
    }
    // An aged record is dropped here for good: it is not pushed back.
    if (!server.validateOAuthRefreshInfo(info)) {
        Log() << "Sso: Refresh token expired.\n";
        return failureLine("SSO_REFRESH_FAILURE|", session);
    }
    Log() << "Sso: Attempting async refresh flow for user session: '" << session << "'.\n";
    if (CurlRequest::getNetwork().startRefreshFlow(session, uuid, info.refreshToken,
                                                   info.configId)) {
        startedFlow();
        Log() << "Sso: Started async refresh flow successfully for user session: '" << session
              << "'.\n";
        return nullptr;
    }
    Log() << "Sso: WARNING! Async refresh flow failed to start. "
          << "Falling back to sync path for user session: '" << session << "'.\n";
    if (!server.pushOAuthRefreshInfo(session, info)) {
        Log() << "Sso: ERROR! Failed to restore refresh info for failover.\n";
        return failureLine("SSO_REFRESH_FAILURE|", session);
    }
    Log() << "Sso: Executing sync refresh login for user session: '" << session << "'.\n";
    return failover(SsoActions::refreshLogin(uuid.c_str(), session.c_str()), "SSO_REFRESH_OK|",
                    "SSO_REFRESH_FAILURE|", session, true,
                    "Sso: Sync refresh login succeeded (failover).\n",
                    "Sso: ERROR! Sync refresh login also failed.\n");
}

char *nodeVerify(std::string const &nodeConfig, std::string const &session) {
    Log() << "Sso: Attempting async node verify flow for user session: '" << session << "'.\n";
    if (CurlRequest::getNetwork().startNodeVerifyFlow(session, nodeConfig)) {
        startedFlow();
        Log() << "Sso: Started async node verify flow successfully for user session: '"
              << session << "'.\n";
        return nullptr;
    }
    Log() << "Sso: WARNING! Async node verify flow failed to start. "
          << "Falling back to sync path for user session: '" << session << "'.\n";
    Log() << "Sso: Executing sync node login for user session: '" << session << "'.\n";
    // The node's success line carries no session at its end.
    return failover(SsoActions::nodeLogin(nodeConfig.c_str(), session.c_str()),
                    "SSO_NODE_VERIFY_OK|", "SSO_NODE_VERIFY_FAILURE|", session, false,
                    "Sso: Sync node login succeeded (failover).\n",
                    "Sso: ERROR! Sync node login also failed.\n");
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
    if (name == "SSO_VERIFY") {
        return verify(command[1], command[2]);
    }
    if (name == "SSO_REFRESH") {
        return refresh(command[1], command[2]);
    }
    if (name == "SSO_NODE_VERIFY") {
        return nodeVerify(command[1], command[2]);
    }
    Log() << "Sso: Command '" << name << "' is incorrect.\n";
    return nullptr;
}

char *SsoCommands::failureReply(std::vector<std::string> const &command) {
    std::string const &name = command[0];
    char *reply = nullptr;
    if (name == "SSO_LOAD_CONFIGS") {
        return StringInit(reply, "SSO_LOAD_CONFIGS_FAILURE\n");
    }
    if (name == "SSO_GET_NODE_CONFIG") {
        return command.size() < 2 || command[1].empty()
                   ? nullptr
                   : failureLine("SSO_GET_NODE_CONFIG_FAILURE|", command[1]);
    }
    if (name == "SSO_GET_CONFIG_CLUSTER") {
        if (command.size() < 4 || command[1].empty() || command[2].empty() ||
            command[3].empty() || readOptionId(command[1]) < 0) {
            return nullptr;
        }
        return failureLine("SSO_GET_CONFIG_CLUSTER_FAILURE|", command[3]);
    }
    if (command.size() < 3 || command[1].empty() || command[2].empty()) {
        return nullptr;
    }
    if (name == "SSO_GET_CONFIG") {
        return readOptionId(command[1]) < 0 ? nullptr
                                            : failureLine("SSO_GET_CONFIG_FAILURE|", command[2]);
    }
    if (name == "SSO_VERIFY") {
        return failureLine("SSO_VERIFY_FAILURE|", command[2]);
    }
    if (name == "SSO_REFRESH") {
        return failureLine("SSO_REFRESH_FAILURE|", command[2]);
    }
    if (name == "SSO_NODE_VERIFY") {
        return failureLine("SSO_NODE_VERIFY_FAILURE|", command[2]);
    }
    return nullptr;
}

std::string SsoCommands::sessionOf(std::vector<std::string> const &command) {
    std::string const &name = command[0];
    if (name == "SSO_GET_NODE_CONFIG") {
        return command.size() > 1 ? command[1] : std::string();
    }
    if (name == "SSO_GET_CONFIG_CLUSTER") {
        return command.size() > 3 ? command[3] : std::string();
    }
    if (name == "SSO_LOAD_CONFIGS" || command.size() < 3) {
        return std::string();
    }
    return command[2];
}

namespace {

// The reply word of a flow type, or null for an unknown type.
char const *flowWord(int32_t flowType, bool success) {
    switch (flowType) {
        case FlowVerify:
            return success ? "SSO_VERIFY_OK|" : "SSO_VERIFY_FAILURE|";
        case FlowRefresh:
            return success ? "SSO_REFRESH_OK|" : "SSO_REFRESH_FAILURE|";
        case FlowNodeVerify:
            return success ? "SSO_NODE_VERIFY_OK|" : "SSO_NODE_VERIFY_FAILURE|";
        default:
            return nullptr;
    }
}

// Writes the reply line of one finished flow.
void writeFlowReply(AsyncFlowResult const &result, int ioFd) {
    SsoChannel::enterStep("Reply of a finished flow");
    Log() << "Sso: Processing completed async flow for session: '" << result.sessionId
          << "'.\n";
    char const *session = result.sessionId.c_str();
    if (!result.success) {
        Log() << "Sso: Async flow failed: '" << result.errorMessage << "'"
              << " HTTP: " << result.httpCode << ".\n";
    }
    char const *word = flowWord(result.flowType, result.success);
    if (word == nullptr) {
        if (result.success) {
            Log() << "Sso: ERROR! Unknown flow type in async response.\n";
        }
        return;
    }
    char *reply = nullptr;
    if (!result.success) {
        StringAdd(reply, word, session, "\n");
    } else if (result.flowType == FlowNodeVerify) {
        StringAdd(reply, word, result.data.c_str(), "\n");
    } else {
        StringAdd(reply, word, result.data.c_str(), "|", session, "\n");
    }
    auto failure = [&result, session] {
        char *line = nullptr;
        return StringAdd(line, flowWord(result.flowType, false), session, "\n");
    };
    SsoChannel::writeReply(ioFd, reply, result.sessionId, failure, [ioFd](char const *line) {
        Log() << "Sso: Writing async response to FD: " << ioFd << ".\n";
        Log() << "Sso: Response is: " << line << ".\n";
    });
}

}  // namespace

void SsoCommands::drainCompletedFlows(int ioFd) {
    CurlRequest &network = CurlRequest::getNetwork();
    AsyncFlowResult result;
    while (network.getCompletedFlow(result)) {
        try {
            writeFlowReply(result, ioFd);
        } catch (...) {
            // Nothing throws after the write, so this result was not answered yet: the next
            // drain takes it up again.
            network.completedFlows.insert(network.completedFlows.begin(), std::move(result));
            throw;
        }
        result = AsyncFlowResult();
    }
}
