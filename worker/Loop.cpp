#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "platform/Thread.h"
#include "transport/CurlRequest.h"
#include "worker/SsoCommands.h"
#include "worker/SsoWorkerInfo.h"
#include "worker/libqxss.h"

#include <errno.h>

#include <cstring>
#include <exception>
#include <string>
#include <vector>

namespace {

constexpr size_t kReadSize = 5680;
constexpr int kWaitMilliseconds = 50;

// Cuts a chunk into complete messages. An unterminated tail replaces what was carried before
// instead of extending it, so a message spread over three or more chunks keeps only its last
// two pieces; hosts send whole lines, and the channel is kept this simple on purpose.
void frame(char const *chunk, size_t length, std::string &lineCarry,
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

std::vector<std::string> split(std::string const &message) {
    std::vector<std::string> elements;
    elements.reserve(3);
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

// What the exception being handled says, for the log.
std::string currentError() {
    try {
        throw;
    } catch (std::exception const &error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}

char *failureReplyOf(std::vector<std::string> const &command) {
    try {
        return SsoCommands::failureReply(command);
    } catch (...) {
        return nullptr;
    }
}

// Lets a test make the step `name` throw; nothing happens while no test hook is set.
void enterStep(char const *name) {
    auto const &hook = PlatformFakes::workerStep();
    if (hook) {
        hook(name);
    }
}

// Runs one step of the turn; a throw is logged and the turn goes on.
template <typename Step>
void guarded(char const *what, Step step) {
    try {
        enterStep(what);
        step();
    } catch (...) {
        Log() << "Sso: ERROR! " << what << " failed: '" << currentError() << "'.\n";
    }
}

int waitForTurn(int internalReadFd, int ioFd) {
    try {
        return CurlRequest::getNetwork().waitForEvents(internalReadFd, ioFd, kWaitMilliseconds);
    } catch (...) {
        Log() << "Sso: ERROR! Wait failed: '" << currentError() << "'.\n";
        return Io::wait(internalReadFd, ioFd, kWaitMilliseconds);
    }
}

void execute(std::vector<std::string> const &command, SsoWorkerInfo const &info) {
    Log() << "Sso: Worker thread " << info.threadId << " is executing command..\n";
    char *reply = nullptr;
    if (!command[0].empty()) {
        Log() << "Sso: Execute command: '" << command[0] << "'.\n";
        try {
            enterStep(command[0].c_str());
            reply = SsoCommands::execute(command);
        } catch (...) {
            // Last line of defence: one bad command must never take the worker down, and a
            // command that has a failure line still gets it.
            Log() << "Sso: ERROR! Command '" << command[0] << "' failed: '" << currentError()
                  << "'.\n";
            reply = failureReplyOf(command);
        }
    }
    if (reply == nullptr) {
        // Also the road of every login flow that started well: its reply comes with a later
        // drain, so this line is only a trace there.
        Log() << "Sso: ERROR! Worker thread " << info.threadId
              << " got nullptr result. Writing abort.\n";
        return;
    }
    Log() << "Sso: Worker thread " << info.threadId << " is writing result: " << reply << " to FD#"
          << info.ioFd << ".\n";
    Io::fds_[info.ioFd].write(reply, std::strlen(reply));
    delete[] reply;
}

}  // namespace

void *loop(void *argument) {
    SsoWorkerInfo const &info = *static_cast<SsoWorkerInfo *>(argument);
    Log() << "Sso: Worker thread " << info.threadId << " started job with I/O FD: " << info.ioFd
          << " internal FD#" << info.internalReadFd << " and FD#" << info.internalWriteFd << ".\n";
    ThreadInit(104);

    std::string lineCarry;
    std::vector<std::string> commandLines;
    commandLines.reserve(10);
    char buffer[kReadSize];

    for (;;) {
        // The wait also wakes for the background transfers, so a flow's next step is not held
        // back by an idle turn; its result for the two descriptors is Io::wait's.
        int ready = waitForTurn(info.internalReadFd, info.ioFd);
        guarded("Housekeeping", [] { TimedOperations(); });
        guarded("Transfers", [] { CurlRequest::getNetwork().perform(); });
        guarded("Drain of finished flows", [&info] { SsoCommands::drainCompletedFlows(info.ioFd); });

        if (ready == 0) {
            continue;
        }
        if (ready < 0) {
            break;
        }
        Log() << "Sso: Worker thread " << info.threadId << " received event from waiter.\n";
        if (ready == 1 || ready == 3) {
            // A stop request wins over pending input.
            Log() << "Sso: Worker thread " << info.threadId << " received exit message.\n";
            break;
        }
        if (ready != 2) {
            continue;
        }

        Log() << "Sso: Worker thread " << info.threadId << " reading from FD#" << info.ioFd
              << ".\n";
        ssize_t count = Io::fds_[info.ioFd].read(buffer, kReadSize);
        int readError = errno;
        Log() << "Sso: Worker thread " << info.threadId << " readed " << count << " bytes from FD#"
              << info.ioFd << ".\n";
        if (count == 0) {
            Log() << "Sso: WARNING! Worker thread " << info.threadId << " reaches EOF.\n";
            break;
        }
        if (count < 0) {
            if (readError == EINTR) {
                Log() << "Sso: ERROR! Worker thread " << info.threadId
                      << " got signal interrupt. Waiting for other event.\n";
                continue;
            }
            Log() << "Sso: ERROR! Worker thread " << info.threadId
                  << " got internal error. Closing FD: " << info.internalReadFd << " and FD#"
                  << info.internalWriteFd << ".\n";
            Io::close(info.internalReadFd);
            Io::close(info.internalWriteFd);
            break;
        }

        commandLines.clear();
        commandLines.reserve(10);
        frame(buffer, static_cast<size_t>(count), lineCarry, commandLines);
        if (commandLines.empty()) {
            continue;
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
    return nullptr;
}
