#include "tests/harness/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

std::vector<char *> rawArguments(std::vector<std::string> const &argv) {
    std::vector<char *> raw;
    for (auto const &argument : argv) {
        raw.push_back(const_cast<char *>(argument.c_str()));
    }
    raw.push_back(nullptr);
    return raw;
}

}  // namespace

ChildProcess::~ChildProcess() {
    stop();
}

bool ChildProcess::start(std::vector<std::string> const &argv, std::string const &directory) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0) {
        return false;
    }
    if (pipe2(output, O_CLOEXEC) != 0) {
        close(input[0]);
        close(input[1]);
        return false;
    }
    auto raw = rawArguments(argv);
    pid_t parent = getpid();
    pid_t child = fork();
    if (child == 0) {
        // Killed with the test program, however it ends (a crash, an abort, a time-out's kill),
        // also when the program is not one that watches its standard input.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
            _exit(125);
        }
        dup2(input[0], 0);
        dup2(output[1], 1);
        int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0 && getenv("QXSS_TEST_VERBOSE") == nullptr) {
            dup2(devnull, 2);
        }
        if (!directory.empty() && chdir(directory.c_str()) != 0) {
            _exit(126);
        }
        execvp(raw[0], raw.data());
        _exit(127);
    }
    close(input[0]);
    close(output[1]);
    if (child < 0) {
        close(input[1]);
        close(output[0]);
        return false;
    }
    pid = child;
    stdinFd_ = input[1];
    stdoutFd_ = output[0];
    return true;
}

std::string ChildProcess::waitForLine(std::string const &prefix, int ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        size_t start = 0;
        for (size_t newline; (newline = buffered_.find('\n', start)) != std::string::npos;
             start = newline + 1) {
            std::string line = buffered_.substr(start, newline - start);
            if (line.compare(0, prefix.size(), prefix) == 0) {
                buffered_.erase(0, newline + 1);
                return line.substr(prefix.size());
            }
        }
        buffered_.erase(0, start);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0 || stdoutFd_ < 0) {
            return std::string();
        }
        struct pollfd polled = {stdoutFd_, POLLIN, 0};
        if (poll(&polled, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char chunk[4096];
        ssize_t got = read(stdoutFd_, chunk, sizeof chunk);
        if (got <= 0) {
            return std::string();
        }
        buffered_.append(chunk, static_cast<size_t>(got));
    }
}

bool ChildProcess::send(std::string const &text) {
    size_t sent = 0;
    while (stdinFd_ >= 0 && sent < text.size()) {
        ssize_t wrote = write(stdinFd_, text.data() + sent, text.size() - sent);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        sent += static_cast<size_t>(wrote);
    }
    return stdinFd_ >= 0;
}

void ChildProcess::closeInput() {
    if (stdinFd_ >= 0) {
        close(stdinFd_);
        stdinFd_ = -1;
    }
}

bool ChildProcess::exited() {
    if (pid <= 0) {
        return true;
    }
    if (waitpid(pid, nullptr, WNOHANG) == pid) {
        pid = -1;
        return true;
    }
    return false;
}

int ChildProcess::waitForExit(int ms) {
    for (int waited = 0; pid > 0; waited += 10) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return status;
        }
        if (waited >= ms) {
            break;
        }
        usleep(10000);
    }
    return -1;
}

void ChildProcess::stop() {
    closeInput();
    if (pid > 0) {
        kill(pid, SIGTERM);
        for (int i = 0; i < 200; ++i) {
            if (waitpid(pid, nullptr, WNOHANG) == pid) {
                pid = -1;
                break;
            }
            usleep(10000);
        }
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }
    if (stdoutFd_ >= 0) {
        close(stdoutFd_);
        stdoutFd_ = -1;
    }
}

std::string runProgram(std::vector<std::string> const &argv, std::string const &directory) {
    ChildProcess child;
    if (!child.start(argv, directory)) {
        return std::string();
    }
    return child.waitForLine("", 60000);
}
