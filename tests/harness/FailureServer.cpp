// FailureServer: a programmable HTTP server on loopback that records what it is sent.
#include "tests/harness/FailureServer.h"

#include "tests/harness/LoopbackSocket.h"
#include "tests/harness/TempDir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

char const *reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 404:
            return "Not Found";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

// Reads from `receive` until the header block and the body that its Content-Length announces
// are in, or the client stops sending. `headerEnd` becomes the offset of the blank line after
// the headers, npos when none came.
std::string readWhole(std::function<int(char *, int)> const &receive, size_t &headerEnd) {
    std::string raw;
    char buffer[8192];
    headerEnd = std::string::npos;
    size_t wanted = 0;
    for (;;) {
        if (headerEnd == std::string::npos) {
            headerEnd = raw.find("\r\n\r\n");
            if (headerEnd != std::string::npos) {
                std::string lower = raw.substr(0, headerEnd);
                for (char &c : lower) {
                    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                }
                size_t at = lower.find("content-length:");
                wanted = at == std::string::npos
                             ? 0
                             : std::strtoul(lower.c_str() + at + 15, nullptr, 10);
            }
        }
        if (headerEnd != std::string::npos && raw.size() >= headerEnd + 4 + wanted) {
            return raw;
        }
        int got = receive(buffer, sizeof buffer);
        if (got <= 0) {
            return raw;
        }
        raw.append(buffer, static_cast<size_t>(got));
    }
}

// The request line, header block and body of `raw`, whose headers end at `headerEnd`; stamped
// as received now.
FailureServer::Request parseRequest(std::string const &raw, size_t headerEnd) {
    FailureServer::Request request;
    request.received = std::chrono::steady_clock::now();
    size_t lineEnd = raw.find("\r\n");
    std::string requestLine = raw.substr(0, lineEnd);
    size_t space = requestLine.find(' ');
    size_t second = requestLine.find(' ', space + 1);
    request.method = requestLine.substr(0, space);
    request.target = requestLine.substr(space + 1, second - space - 1);
    request.headers = raw.substr(lineEnd + 2, headerEnd - lineEnd - 2);
    request.body = raw.substr(headerEnd + 4);
    return request;
}

// The whole HTTP/1.1 answer for `reply`; the connection closes after it.
std::string responseText(FailureServer::Reply const &reply) {
    return "HTTP/1.1 " + std::to_string(reply.status) + " " + reason(reply.status) +
           "\r\nContent-Type: " + reply.contentType +
           "\r\nContent-Length: " + std::to_string(reply.body.size()) +
           "\r\nConnection: close\r\n\r\n" + reply.body;
}

// Certificate and key for TLS mode, made once per test program in a temporary directory that
// goes when the program ends.
bool makeCertificate(std::string &certificate, std::string &key) {
    static TempDir directory("tls");
    static bool made = false;
    if (directory.path.empty()) {
        return false;
    }
    certificate = directory.path + "/cert.pem";
    key = directory.path + "/key.pem";
    if (!made) {
        std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
            "-nodes -days 2 -subj /CN=127.0.0.1 -keyout " +
            key + " -out " + certificate + " >/dev/null 2>&1";
        made = std::system(command.c_str()) == 0;
    }
    return made;
}

}  // namespace

FailureServer::FailureServer(bool useTls) : tls(useTls) {
    std::string certificate;
    std::string key;
    if (tls && !makeCertificate(certificate, key)) {
        return;
    }
    listenOnLoopback(certificate, key);
}

FailureServer::FailureServer(std::string const &certificate, std::string const &key) : tls(true) {
    listenOnLoopback(certificate, key);
}

void FailureServer::listenOnLoopback(std::string const &certificate, std::string const &key) {
    if (tls) {
        context_ = SSL_CTX_new(TLS_server_method());
        if (context_ == nullptr ||
            SSL_CTX_use_certificate_file(context_, certificate.c_str(), SSL_FILETYPE_PEM) != 1 ||
            SSL_CTX_use_PrivateKey_file(context_, key.c_str(), SSL_FILETYPE_PEM) != 1) {
            return;
        }
    }
    listenFd_ = LoopbackSocket::open(64, port);
    if (listenFd_ < 0) {
        return;
    }
    acceptor_ = std::thread([this] { acceptLoop(); });
}

FailureServer::~FailureServer() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (int fd : connections_) {
            shutdown(fd, SHUT_RDWR);
        }
    }
    if (listenFd_ >= 0) {
        shutdown(listenFd_, SHUT_RDWR);
    }
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    for (auto &worker : workers_) {
        worker.join();
    }
    if (listenFd_ >= 0) {
        close(listenFd_);
    }
    if (context_ != nullptr) {
        SSL_CTX_free(context_);
    }
}

void FailureServer::on(std::string const &path, Reply reply) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_[path] = std::move(reply);
}

void FailureServer::on(std::string const &path, int status, std::string const &body) {
    Reply reply;
    reply.status = status;
    reply.body = body;
    on(path, reply);
}

void FailureServer::on(std::string const &path, Mode mode) {
    Reply reply;
    reply.mode = mode;
    on(path, reply);
}

std::string FailureServer::url(std::string const &path) const {
    return std::string(tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(port) + path;
}

std::vector<FailureServer::Request> FailureServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

FailureServer::Reply FailureServer::replyFor(std::string const &target) const {
    std::string path = target.substr(0, target.find('?'));
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = replies_.find(path);
    if (found != replies_.end()) {
        return found->second;
    }
    Reply missing;
    missing.status = 404;
    missing.body = "{\"error\":\"not_found\"}";
    return missing;
}

void FailureServer::acceptLoop() {
    for (;;) {
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mutex_);
        if (fd < 0 || stopping_) {
            if (fd >= 0) {
                close(fd);
            }
            return;
        }
        connections_.push_back(fd);
        workers_.emplace_back([this, fd] { serve(fd); });
    }
}

void FailureServer::serve(int fd) {
    // OpenSSL writes with plain write(): a client that dropped the connection (as one does
    // that refuses the certificate) must give this thread EPIPE, not kill the test program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    SSL *ssl = nullptr;
    if (context_ != nullptr) {
        ssl = SSL_new(context_);
        SSL_set_fd(ssl, fd);
        if (SSL_accept(ssl) != 1) {
            SSL_free(ssl);
            ERR_clear_error();
            close(fd);
            return;
        }
    }
    auto receive = [&](char *buffer, int size) -> int {
        return ssl ? SSL_read(ssl, buffer, size) : static_cast<int>(recv(fd, buffer, size, 0));
    };
    size_t headerEnd = std::string::npos;
    std::string const raw = readWhole(receive, headerEnd);
    size_t recorded = 0;
    Request request;
    if (headerEnd != std::string::npos) {
        request = parseRequest(raw, headerEnd);
        recorded = record(request);
    }
    Reply reply = replyFor(request.target);
    if (reply.mode == Mode::Hang) {
        // Holds the connection until the client gives up or the server stops.
        char buffer[8192];
        while (receive(buffer, sizeof buffer) > 0) {
        }
    } else if (reply.mode == Mode::Reset) {
        struct linger abort = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    } else if (headerEnd != std::string::npos) {
        std::string const response = responseText(reply);
        {
            // Before the answer leaves: the client may act on it before send returns here.
            std::lock_guard<std::mutex> lock(mutex_);
            requests_[recorded].answered = std::chrono::steady_clock::now();
        }
        if (ssl) {
            SSL_write(ssl, response.data(), static_cast<int>(response.size()));
        } else {
            ::send(fd, response.data(), response.size(), MSG_NOSIGNAL);
        }
    }
    if (ssl != nullptr) {
        if (reply.mode != Mode::Reset) {
            SSL_shutdown(ssl);
        }
        SSL_free(ssl);
    }
    forget(fd);
    close(fd);
}

size_t FailureServer::record(Request const &request) {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
    arrived_.notify_all();
    return requests_.size() - 1;
}

void FailureServer::forget(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto &each : connections_) {
        if (each == fd) {
            each = connections_.back();
            connections_.pop_back();
            break;
        }
    }
}

bool FailureServer::Request::hasHeader(std::string const &line) const {
    std::string const block = "\r\n" + headers + "\r\n";
    return block.find("\r\n" + line + "\r\n") != std::string::npos;
}

bool FailureServer::waitForRequests(size_t count, int ms) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(ms),
                             [this, count] { return requests_.size() >= count; });
}
