// The channel's side of the worker: framing and splitting of what the host sent, the command
// step with its last-defence catch, and the one place where reply lines are written.
#include "worker/SsoChannel.h"

#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "worker/SsoCommands.h"
#include "worker/SsoWorkerInfo.h"

#include <cstring>
#include <exception>
#include <memory>

namespace {

// Room reserved up front for the messages of one read and for the elements of one command
// (most commands have three).
constexpr size_t kMessagesReserved = 10;
constexpr size_t kElementsReserved = 3;

char *failureReplyOf(std::vector<std::string> const &command) {
    try {
        return SsoCommands::failureReply(command);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

void SsoChannel::receive(char const *chunk, size_t length, std::string &lineCarry,
                         SsoWorkerInfo const &info) {
    std::vector<std::string> commandLines;
    commandLines.reserve(kMessagesReserved);
    frame(chunk, length, lineCarry, commandLines);
    if (commandLines.empty()) {
        return;
    }
    std::vector<std::vector<std::string>> commandList;
    commandList.reserve(commandLines.size());
    for (auto const &message : commandLines) {
        commandList.push_back(split(message));
        for (auto const &element : commandList.back()) {
            Log() << "Sso: Extracted command element: '" << element << "'.\n";
        }
    }
    for (auto const &command : commandList) {
        execute(command, info);
    }
}

// Cuts a chunk into complete messages. An unterminated tail replaces what was carried before
// instead of extending it, so a message spread over three or more chunks keeps only its last
// two pieces; hosts send whole lines, and the channel is kept this simple on purpose.
void SsoChannel::frame(char const *chunk, size_t length, std::string &lineCarry,
                       std::vector<std::string> &commandLines) {
    size_t position = 0;
    while (position < length) {
        auto const *newline =
            static_cast<char const *>(std::memchr(chunk + position, '\n', length - position));
        if (newline == nullptr) {
            lineCarry.assign(chunk + position, length - position);
            return;
        }
        size_t end = static_cast<size_t>(newline - chunk);
        if (lineCarry.empty()) {
            commandLines.emplace_back(chunk + position, end - position);
        } else {
            commandLines.emplace_back(lineCarry);
            commandLines.back().append(chunk + position, end - position);
            lineCarry.clear();
        }
        Log() << "Sso: Extracted message: '" << commandLines.back() << "'.\n";
        position = end + 1;
    }
}

std::vector<std::string> SsoChannel::split(std::string const &message) {
    std::vector<std::string> elements;
    elements.reserve(kElementsReserved);
    size_t start = 0;
    for (size_t i = 0; i < message.size(); ++i) {
        if (message[i] == '|') {
            elements.emplace_back(message, start, i - start);
            start = i + 1;
        }
    }
    elements.emplace_back(message, start, std::string::npos);
    return elements;
}

void SsoChannel::execute(std::vector<std::string> const &command, SsoWorkerInfo const &info) {
    Log() << "Sso: Worker thread " << info.threadId << " is executing command..\n";
    char *reply = nullptr;
    if (!command[0].empty()) {
        Log() << "Sso: Execute command: '" << command[0] << "'.\n";
        SsoCommands::flowStarted = false;
        try {
            enterStep(command[0].c_str());
            reply = SsoCommands::execute(command);
        } catch (...) {
            // Last line of defence: one bad command must never take the worker down, and a
            // command that has a failure line still gets it, unless its background flow
            // already started: that flow answers it, and a second line would be one too many.
            Log() << "Sso: ERROR! Command '" << command[0] << "' failed: '" << currentError()
                  << "'.\n";
            reply = SsoCommands::flowStarted ? nullptr : failureReplyOf(command);
        }
    }
    if (reply == nullptr) {
        // Also the road of every login flow that started well: its reply comes with a later
        // drain, so this line is only a trace there.
        Log() << "Sso: ERROR! Worker thread " << info.threadId
              << " got nullptr result. Writing abort.\n";
        return;
    }
    writeReply(
        info.ioFd, reply, SsoCommands::sessionOf(command),
        [&command] { return failureReplyOf(command); },
        [&info](char const *line) {
            Log() << "Sso: Worker thread " << info.threadId << " is writing result: " << line
                  << " to FD#" << info.ioFd << ".\n";
        });
}

void SsoChannel::writeReply(int ioFd, char *reply, std::string const &session,
                            std::function<char *()> const &failure,
                            std::function<void(char const *reply)> const &announce) {
    std::unique_ptr<char[]> line(reply);
    char const *lineBreak = std::strchr(line.get(), '\n');
    if (lineBreak != nullptr && lineBreak[1] != '\0') {
        // A second line would be read by the host as the reply of another command.
        Log() << "Sso: ERROR! Reply for session '" << session << "' holds a line break.\n";
        line.reset(failure());
        if (!line) {
            return;
        }
    }
    announce(line.get());
    Io::fds_[ioFd].write(line.get(), std::strlen(line.get()));
}

void SsoChannel::enterStep(char const *name) {
    auto const &hook = PlatformFakes::workerStep();
    if (hook) {
        hook(name);
    }
}

std::string SsoChannel::currentError() {
    try {
        throw;
    } catch (std::exception const &error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}
