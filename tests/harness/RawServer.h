#pragma once

#include <string>
#include <thread>

// Answers the first connection on 127.0.0.1 with fixed bytes, whatever was asked, and closes
// it: for answers that FailureServer does not write, such as a body shorter than announced.
class RawServer {
public:
    // Listens on a free port (0 in `port` when it cannot) and serves one connection.
    explicit RawServer(std::string answer);
    ~RawServer();
    RawServer(RawServer const &) = delete;
    RawServer &operator=(RawServer const &) = delete;

    // "http://127.0.0.1:<port>" followed by `path`.
    std::string url(std::string const &path) const;

    int port = 0;

private:
    void serveOne();

    std::string answer_;
    int listenFd_ = -1;
    std::thread thread_;
};
