// The blocking requests leave the host's signal handling alone: while a request is in flight
// the process's SIGPIPE handler is still the host's own (libcurl would otherwise swap in
// SIG_IGN for the length of the transfer, under every other thread of the host).
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace {

void hostHandler(int) {}

// Answers one request on 127.0.0.1 and records the process's SIGPIPE handler at the moment the
// request arrived, while the client is inside its transfer.
// Answers one request on 127.0.0.1 and records the process's SIGPIPE handler at the moment the
// request arrived, while the client is inside its transfer. Returns that handler; `body` gets
// what `request` (given the probe's URL) returned.
void (*handlerDuring(std::function<std::string(std::string const &url)> const &request,
                     std::string &body))(int) {
    int listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(listenFd, 1) != 0 ||
        ::getsockname(listenFd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        ::close(listenFd);
        ADD_FAILURE() << "no listening socket";
        return nullptr;
    }
    void (*seen)(int) = nullptr;
    std::thread server([listenFd, &seen] {
        int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        std::string text;
        char buffer[1024];
        while (text.find("\r\n\r\n") == std::string::npos) {
            ssize_t count = ::read(fd, buffer, sizeof buffer);
            if (count <= 0) {
                break;
            }
            text.append(buffer, static_cast<size_t>(count));
        }
        struct sigaction current {};
        ::sigaction(SIGPIPE, nullptr, &current);
        seen = current.sa_handler;
        static char const reply[] =
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 2\r\n"
            "Connection: close\r\n\r\n{}";
        ssize_t ignored = ::write(fd, reply, sizeof reply - 1);
        (void)ignored;
        ::close(fd);
    });
    body = request("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/probe");
    // Wakes an accept that no request reached.
    ::shutdown(listenFd, SHUT_RDWR);
    server.join();
    ::close(listenFd);
    return seen;
}

class NoSignalTest : public ::testing::Test {
protected:
    void SetUp() override {
        struct sigaction mine {};
        mine.sa_handler = hostHandler;
        sigemptyset(&mine.sa_mask);
        ASSERT_EQ(::sigaction(SIGPIPE, &mine, &previous), 0);
    }
    void TearDown() override { ::sigaction(SIGPIPE, &previous, nullptr); }
    struct sigaction previous {};
};

TEST_F(NoSignalTest, TheBlockingRoadsRequestKeepsTheHostsSigpipeHandler) {
    SsoRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    std::string body;
    auto seen = handlerDuring(
        [&network](std::string const &url) {
            return network.request(HttpGet, url.c_str(), {}, nullptr, nullptr);
        },
        body);
    EXPECT_EQ(body, "{}");
    EXPECT_EQ(seen, &hostHandler);
    network.cleanUp();
}

TEST_F(NoSignalTest, DiscoverysRequestKeepsTheHostsSigpipeHandler) {
    CurlRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    std::string body;
    auto seen = handlerDuring(
        [&network](std::string const &url) {
            return network.syncRequest(HttpGet, url.c_str(), {}, nullptr, nullptr);
        },
        body);
    EXPECT_EQ(body, "{}");
    EXPECT_EQ(seen, &hostHandler);
    network.cleanUp();
}

}  // namespace
