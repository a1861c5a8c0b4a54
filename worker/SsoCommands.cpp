// The command table: one row per command of the channel, and the handlers, the failure lines,
// the blocking fallback of the logins and the drain of finished flows that read it.
#include "worker/SsoCommands.h"

#include "actions/SsoActions.h"
#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "transport/CurlRequest.h"
#include "worker/SsoChannel.h"
#include "worker/SsoCommand.h"
#include "worker/SsoWords.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>

bool SsoCommands::flowStarted = false;

namespace {

// A name that is no command is still held to the shape of most commands (a name and two
// non-empty arguments) before it is called incorrect; a shorter line passes in silence.
constexpr size_t kElementsOfUnknownNames = 3;

// Flow type of a command that no background flow answers.
constexpr int kNoFlow = 0;

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

// "<word>|<field>|<tail>\n", leaving out each of the two that is null.
char *replyLine(char const *word, char const *field, char const *tail = nullptr) {
    char *reply = nullptr;
    return StringAdd(reply, word, field == nullptr ? nullptr : SsoWords::separator, field,
                     tail == nullptr ? nullptr : SsoWords::separator, tail, SsoWords::lineEnd);
}

// The failure line of a row: its word and, where it has one, the session.
char *failureLine(SsoCommand const &row, std::string const &session) {
    return replyLine(row.failureWord, row.sessionElement == 0 ? nullptr : session.c_str());
}

// The success line of a login: its word, the user token and, where the row says so, the session.
char *loginLine(SsoCommand const &row, char const *token, std::string const &session) {
    return replyLine(row.okWord, token, row.okEndsWithSession ? session.c_str() : nullptr);
}

// The row's success line with the engine's text, or its failure line when there is none; the
// engine's array is freed here.
char *compose(SsoCommand const &row, char *result, std::string const &session) {
    std::unique_ptr<char[]> text(result);
    return text ? replyLine(row.okWord, text.get()) : failureLine(row, session);
}

// The session element of a line that passed its row's checks.
std::string const &sessionIn(SsoCommand const &row, std::vector<std::string> const &command) {
    return command[row.sessionElement];
}

char *loadConfigs(SsoCommand const &row, std::vector<std::string> const &) {
    switch (SsoActions::loadConfigs()) {
        case SsoActions::kConfigsLoaded:
            return replyLine(row.okWord, nullptr);
        case SsoActions::kConfigsFailed:
            return replyLine(row.failureWord, nullptr);
        case SsoActions::kMetadataFailed:
            return replyLine(SsoWords::loadMetadataFailure, nullptr);
        default:
            Log() << "Sso: ERROR! Command '" << row.name << "' return is"
                  << " incorrect.\n";
            return nullptr;
    }
}

char *getNodeConfig(SsoCommand const &row, std::vector<std::string> const &command) {
    std::string const &session = sessionIn(row, command);
    return compose(row, SsoActions::getNodeConfig(session.c_str()), session);
}

char *clientConfig(SsoCommand const &row, std::vector<std::string> const &command,
                   char const *clusterIp) {
    int64_t id = readOptionId(command[1]);
    if (id < 0) {
        return nullptr;
    }
    std::string const &session = sessionIn(row, command);
    char *result =
        SsoActions::getClientConfig(static_cast<unsigned int>(id), session.c_str(), clusterIp);
    return compose(row, result, session);
}

char *getConfig(SsoCommand const &row, std::vector<std::string> const &command) {
    return clientConfig(row, command, nullptr);
}

// The cluster address stands just before the session, which is the last element.
char *getConfigCluster(SsoCommand const &row, std::vector<std::string> const &command) {
    return clientConfig(row, command, command[row.sessionElement - 1].c_str());
}

// The answer of the blocking road, in the words of the background road's reply.
char *failover(SsoCommand const &row, char *token, std::string const &session) {
    std::unique_ptr<char[]> owned(token);
    if (!owned) {
        Log() << "Sso: ERROR! Sync " << row.loginName << " login also failed.\n";
        return failureLine(row, session);
    }
    Log() << "Sso: Sync " << row.loginName << " login succeeded (failover).\n";
    return loginLine(row, owned.get(), session);
}

// Starts the login's background flow, which answers it later; when the flow cannot start,
// `restore` (if any) puts the popped record back and the blocking login answers at once.
char *startOrFailOver(SsoCommand const &row, std::string const &session,
                      std::function<bool()> const &start, std::function<bool()> const &restore,
                      std::function<char *()> const &blockingLogin) {
    Log() << "Sso: Attempting async " << row.flowName << " flow for user session: '" << session
          << "'.\n";
    if (start()) {
        startedFlow();
        Log() << "Sso: Started async " << row.flowName << " flow successfully for user session: '"
              << session << "'.\n";
        return nullptr;
    }
    Log() << "Sso: WARNING! Async " << row.flowName << " flow failed to start. "
          << "Falling back to sync path for user session: '" << session << "'.\n";
    if (restore && !restore()) {
        return failureLine(row, session);
    }
    Log() << "Sso: Executing sync " << row.loginName << " login for user session: '" << session
          << "'.\n";
    return failover(row, blockingLogin(), session);
}

// Whether the login's record was taken from its store; a miss is logged with the record's
// kind ("auth" or "refresh").
bool popped(bool taken, char const *record, std::string const &session) {
    if (!taken) {
        Log() << "Sso: ERROR! Can't get " << record << " info for user session: '" << session
              << "'.\n";
    }
    return taken;
}

// Whether the record went back to its store before the blocking road, which consumes it from
// there by itself; a failure is logged with the record's kind.
bool restored(bool pushed, char const *record) {
    if (!pushed) {
        Log() << "Sso: ERROR! Failed to restore " << record << " info for failover.\n";
    }
    return pushed;
}

char *verify(SsoCommand const &row, std::vector<std::string> const &command) {
    std::string const &code = command[1];
    std::string const &session = sessionIn(row, command);
    SsoServer &server = SsoServer::getServer();
    OAuthAuthzInfo info;
    if (!popped(server.popOAuthAuthzInfo(session, info), "auth", session)) {
        return failureLine(row, session);
    }
    return startOrFailOver(
        row, session,
        [&] { return CurlRequest::getNetwork().startVerifyFlow(session, code, info); },
        [&] { return restored(server.pushOAuthAuthzInfo(session, info), "auth"); },
        [&] { return SsoActions::verifyLogin(code.c_str(), session.c_str()); });
}

char *refresh(SsoCommand const &row, std::vector<std::string> const &command) {
    std::string const &uuid = command[1];
    std::string const &session = sessionIn(row, command);
    SsoServer &server = SsoServer::getServer();
    OAuthRefreshInfo info;
    if (!popped(server.popOAuthRefreshInfo(session, info), "refresh", session)) {
        return failureLine(row, session);
    }
    // An aged record is dropped here for good: it is not pushed back.
    if (!server.validateOAuthRefreshInfo(info)) {
        Log() << "Sso: Refresh token expired.\n";
        return failureLine(row, session);
    }
    return startOrFailOver(
        row, session,
        [&] {
            return CurlRequest::getNetwork().startRefreshFlow(session, uuid, info.refreshToken,
                                                              info.configId);
        },
        [&] { return restored(server.pushOAuthRefreshInfo(session, info), "refresh"); },
        [&] { return SsoActions::refreshLogin(uuid.c_str(), session.c_str()); });
}

// No store is involved, so nothing is popped before the start or restored after it.
char *nodeVerify(SsoCommand const &row, std::vector<std::string> const &command) {
    std::string const &nodeConfig = command[1];
    std::string const &session = sessionIn(row, command);
    return startOrFailOver(
        row, session,
        [&] { return CurlRequest::getNetwork().startNodeVerifyFlow(session, nodeConfig); }, nullptr,
        [&] { return SsoActions::nodeLogin(nodeConfig.c_str(), session.c_str()); });
}

// In the order in which the names are compared. The first three check their own arguments
// and log none; the others need a name and two arguments, which they log. The node's success
// line carries no session at its end.
SsoCommand const kCommands[] = {
    // name, elements, session element, ok word, failure word, ok ends with session, handler,
    // logs arguments, reads option id, flow type, flow name, login name
    {SsoWords::loadConfigs, 1, 0, SsoWords::loadConfigsOk, SsoWords::loadConfigsFailure, false,
     loadConfigs, false, false, kNoFlow, nullptr, nullptr},
    {SsoWords::getNodeConfig, 2, 1, SsoWords::getNodeConfigOk, SsoWords::getNodeConfigFailure,
     false, getNodeConfig, false, false, kNoFlow, nullptr, nullptr},
    {SsoWords::getConfigCluster, 4, 3, SsoWords::getConfigClusterOk,
     SsoWords::getConfigClusterFailure, false, getConfigCluster, false, true, kNoFlow, nullptr,
     nullptr},
    {SsoWords::getConfig, 3, 2, SsoWords::getConfigOk, SsoWords::getConfigFailure, false, getConfig,
     true, true, kNoFlow, nullptr, nullptr},
    {SsoWords::verify, 3, 2, SsoWords::verifyOk, SsoWords::verifyFailure, true, verify, true, false,
     FlowVerify, "verify", "verify"},
    {SsoWords::refresh, 3, 2, SsoWords::refreshOk, SsoWords::refreshFailure, true, refresh, true,
     false, FlowRefresh, "refresh", "refresh"},
    {SsoWords::nodeVerify, 3, 2, SsoWords::nodeVerifyOk, SsoWords::nodeVerifyFailure, false,
     nodeVerify, true, false, FlowNodeVerify, "node verify", "node"},
};

// The row of a command name, or null for a name that is no command.
SsoCommand const *rowOf(std::string const &name) {
    for (SsoCommand const &row : kCommands) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

// The row of the login that a background flow of this type answers, or null.
SsoCommand const *rowOfFlow(int32_t flowType) {
    for (SsoCommand const &row : kCommands) {
        if (row.flowType != kNoFlow && row.flowType == flowType) {
            return &row;
        }
    }
    return nullptr;
}

// Whether the line holds `elements` elements, each argument among them non-empty.
bool hasArguments(std::vector<std::string> const &command, size_t elements) {
    if (command.size() < elements) {
        return false;
    }
    for (size_t i = 1; i < elements; ++i) {
        if (command[i].empty()) {
            return false;
        }
    }
    return true;
}

void logArguments(std::vector<std::string> const &command) {
    Log() << "Sso: Command arguments: '" << command[1] << "' ,'" << command[2] << "'.\n";
}

}  // namespace

char *SsoCommands::execute(std::vector<std::string> const &command) {
    std::string const &name = command[0];
    SsoCommand const *row = rowOf(name);
    if (row == nullptr) {
        if (hasArguments(command, kElementsOfUnknownNames)) {
            logArguments(command);
            Log() << "Sso: Command '" << name << "' is incorrect.\n";
        }
        return nullptr;
    }
    if (!hasArguments(command, row->elements)) {
        return nullptr;
    }
    if (row->logsArguments) {
        logArguments(command);
    }
    return row->handler(*row, command);
}

char *SsoCommands::failureReply(std::vector<std::string> const &command) {
    SsoCommand const *row = rowOf(command[0]);
    if (row == nullptr || !hasArguments(command, row->elements) ||
        (row->readsOptionId && readOptionId(command[1]) < 0)) {
        return nullptr;
    }
    return failureLine(*row, sessionIn(*row, command));
}

std::string SsoCommands::sessionOf(std::vector<std::string> const &command) {
    SsoCommand const *row = rowOf(command[0]);
    if (row == nullptr || row->sessionElement == 0 || command.size() <= row->sessionElement) {
        return std::string();
    }
    return sessionIn(*row, command);
}

namespace {

// Writes the reply line of one finished flow.
void writeFlowReply(AsyncFlowResult const &result, int ioFd) {
    SsoChannel::enterStep("Reply of a finished flow");
    Log() << "Sso: Processing completed async flow for session: '" << result.sessionId << "'.\n";
    if (!result.success) {
        Log() << "Sso: Async flow failed: '" << result.errorMessage << "'"
              << " HTTP: " << result.httpCode << ".\n";
    }
    SsoCommand const *row = rowOfFlow(result.flowType);
    if (row == nullptr) {
        if (result.success) {
            Log() << "Sso: ERROR! Unknown flow type in async response.\n";
        }
        return;
    }
    char *reply = result.success ? loginLine(*row, result.data.c_str(), result.sessionId)
                                 : failureLine(*row, result.sessionId);
    SsoChannel::writeReply(
        ioFd, reply, result.sessionId,
        [row, &result] { return failureLine(*row, result.sessionId); },
        [ioFd](char const *line) {
            Log() << "Sso: Writing async response to FD: " << ioFd << ".\n";
            Log() << "Sso: Response is: " << line << ".\n";
        });
}

}  // namespace

void SsoCommands::drainCompletedFlows(int ioFd) {
    std::vector<AsyncFlowResult> &finished = CurlRequest::getNetwork().completedFlows;
    // One pass over the results, and one erase at its end: taking them from the front one at a
    // time would move all the others each time.
    size_t answered = 0;
    AsyncFlowResult result;
    try {
        for (; answered < finished.size(); ++answered) {
            // Taken out of the vector, so that nothing the write does to it can move it away.
            result = std::move(finished[answered]);
            writeFlowReply(result, ioFd);
        }
    } catch (...) {
        // Nothing throws after the write, so the result in hand was not answered yet: it goes
        // back in its place, at the front of what the next drain takes up.
        finished[answered] = std::move(result);
        finished.erase(finished.begin(), finished.begin() + static_cast<std::ptrdiff_t>(answered));
        throw;
    }
    finished.clear();
}
