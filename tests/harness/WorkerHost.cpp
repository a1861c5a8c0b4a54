#include "tests/harness/WorkerHost.h"

#include "worker/libqxss.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

WorkerHost::WorkerHost() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
        hostFd = fds[0];
        libraryFd = fds[1];
    }
}

WorkerHost::~WorkerHost() {
    stop();
    closeHostEnd();
    if (libraryFd >= 0) {
        ::close(libraryFd);
    }
}

int WorkerHost::start() {
    int result = SsoInitialize(libraryFd);
    started = started || result == 0;
    return result;
}

void WorkerHost::stop() {
    if (started) {
        SsoDestroy();
        started = false;
    }
}

void WorkerHost::send(std::string const &text) const {
    if (hostFd >= 0) {
        ssize_t ignored = ::send(hostFd, text.data(), text.size(), MSG_NOSIGNAL);
        (void)ignored;
    }
}

bool WorkerHost::receive(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0 || hostFd < 0) {
        return false;
    }
    struct pollfd polled = {hostFd, POLLIN, 0};
    if (::poll(&polled, 1, static_cast<int>(left)) <= 0) {
        return true;
    }
    char buffer[8192];
    ssize_t got = ::read(hostFd, buffer, sizeof buffer);
    if (got <= 0) {
        return false;
    }
    pending_.append(buffer, static_cast<size_t>(got));
    return true;
}

std::string WorkerHost::readLine(int ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        size_t newline = pending_.find('\n');
        if (newline != std::string::npos) {
            std::string line = pending_.substr(0, newline + 1);
            pending_.erase(0, newline + 1);
            return line;
        }
        if (!receive(deadline)) {
            return std::string();
        }
    }
}

std::string WorkerHost::readFor(int ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (receive(deadline)) {
    }
    std::string all;
    all.swap(pending_);
    return all;
}

std::string WorkerHost::repliesBeforeFence(int ms) {
    static std::string const fenceReply = "SSO_GET_NODE_CONFIG_FAILURE|qxss-fence\n";
    send("SSO_GET_NODE_CONFIG|qxss-fence\n");
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::string before;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        std::string line = left > 0 ? readLine(static_cast<int>(left)) : std::string();
        if (line.empty()) {
            return before + "<no fence reply>";
        }
        if (line == fenceReply) {
            return before;
        }
        before += line;
    }
}

std::string WorkerHost::strayReplies(LogCapture const &log, std::string const &closing, int ms) {
    if (!log.waitFor(closing, 1, ms)) {
        return "<no closing statement: " + closing + ">";
    }
    return repliesBeforeFence(ms);
}

void WorkerHost::closeHostEnd() {
    if (hostFd >= 0) {
        ::close(hostFd);
        hostFd = -1;
    }
}

std::string workerThreadId(LogCapture const &log) {
    static std::string const head = "Sso: Thread ";
    for (auto const &line : log.startingWith(head)) {
        size_t end = line.find(" created with I/O FD#");
        if (end != std::string::npos) {
            return line.substr(head.size(), end - head.size());
        }
    }
    return std::string();
}
