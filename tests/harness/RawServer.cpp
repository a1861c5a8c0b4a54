// The one-answer server of tests/harness/RawServer.h.
#include "tests/harness/RawServer.h"

#include "tests/harness/LoopbackSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

RawServer::RawServer(std::string answer) : answer_(std::move(answer)) {
    listenFd_ = LoopbackSocket::open(4, port);
    if (listenFd_ < 0) {
        return;
    }
    thread_ = std::thread([this] { serveOne(); });
}

RawServer::~RawServer() {
    if (listenFd_ >= 0) {
        shutdown(listenFd_, SHUT_RDWR);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    if (listenFd_ >= 0) {
        close(listenFd_);
    }
}

std::string RawServer::url(std::string const &path) const {
    return "http://127.0.0.1:" + std::to_string(port) + path;
}

void RawServer::serveOne() {
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    std::string received;
    char buffer[4096];
    while (received.find("\r\n\r\n") == std::string::npos) {
        ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) {
            break;
        }
        received.append(buffer, static_cast<size_t>(got));
    }
    ssize_t sent = ::send(fd, answer_.data(), answer_.size(), MSG_NOSIGNAL);
    (void)sent;
    close(fd);
}
