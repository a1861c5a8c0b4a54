#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct ssl_ctx_st;

// A small programmable HTTP/1.1 server on 127.0.0.1 for the failure cases a real provider
// rarely shows: any status, any body, an empty body, a connection that never answers, a reset.
// One request per connection. In TLS mode it serves a self-signed certificate made at start,
// which a client that verifies certificates must refuse, or the certificate it is given (for
// instance one of the test CA's, tests/harness/TestCa.h); it speaks HTTP/1.1 only.
class FailureServer {
public:
    enum class Mode { Answer, Hang, Reset };

    struct Reply {
        int status = 200;
        std::string body;
        std::string contentType = "application/json";
        Mode mode = Mode::Answer;
    };

    struct Request {
        std::string method;
        std::string target;  // path and query as sent
        std::string headers;
        std::string body;
        // When the request was read whole, and when its answer was about to be sent (the
        // epoch when none was, as with a hang or a reset).
        std::chrono::steady_clock::time_point received;
        std::chrono::steady_clock::time_point answered;

        // Whether the header block holds exactly this line ("Name: value").
        bool hasHeader(std::string const &line) const;
    };

    explicit FailureServer(bool tls = false);
    // TLS with the PEM files `certificate` and `key`; not listening (port 0) when they do not
    // load.
    FailureServer(std::string const &certificate, std::string const &key);
    ~FailureServer();
    FailureServer(FailureServer const &) = delete;
    FailureServer &operator=(FailureServer const &) = delete;

    // What requests for `path` (the target without its query) get; others get a 404.
    void on(std::string const &path, Reply reply);
    void on(std::string const &path, int status, std::string const &body);
    // Requests for `path` get a connection that hangs (Mode::Hang) or is reset (Mode::Reset).
    void on(std::string const &path, Mode mode);
    // "http://127.0.0.1:<port>" (or https) followed by `path`.
    std::string url(std::string const &path = "") const;
    // The requests received so far.
    std::vector<Request> requests() const;
    // Waits up to `ms` milliseconds until at least `count` requests have been read whole;
    // false at the deadline.
    bool waitForRequests(size_t count, int ms = 5000) const;

    int port = 0;
    bool tls = false;

private:
    void listenOnLoopback(std::string const &certificate, std::string const &key);
    void acceptLoop();
    // Serves the one request of connection `fd` as its reply says, then closes it.
    void serve(int fd);
    // Adds `request` to requests(), wakes waitForRequests; its index there.
    size_t record(Request const &request);
    // Takes `fd` off the open connections that the destructor would shut.
    void forget(int fd);
    Reply replyFor(std::string const &target) const;

    int listenFd_ = -1;
    bool stopping_ = false;
    ssl_ctx_st *context_ = nullptr;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::map<std::string, Reply> replies_;
    std::vector<Request> requests_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
    std::thread acceptor_;
};
