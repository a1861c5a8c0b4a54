// The flow engine under load: many node verify flows in flight at once against a fast
// loopback responder. Prints the cost of one perform() turn, the turns a flow needs from
// queueing to its result, and the heap one flow in flight holds. Asserts nothing.
#include "server/SsoServer.h"
#include "transport/CurlRequest.h"
#include "worker/libqxss.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

void discard(char const *, void *) {}

char const kAnswer[] =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 15\r\n"
    "Connection: close\r\n\r\n{\"email\":\"a@b\"}";

// Answers every request on `listenFd` at once and closes the connection, until `stopFd`
// reaches its end. Runs in a child process, so that its memory and threads stay out of the
// figures.
void respond(int listenFd, int stopFd) {
    std::vector<pollfd> fds = {{stopFd, POLLIN, 0}, {listenFd, POLLIN, 0}};
    std::map<int, std::string> received;
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            continue;
        }
        if (fds[0].revents != 0) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            for (;;) {
                int fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (fd < 0) {
                    break;
                }
                fds.push_back({fd, POLLIN, 0});
            }
        }
        for (size_t i = 2; i < fds.size();) {
            if (fds[i].revents == 0) {
                ++i;
                continue;
            }
            char buffer[4096];
            ssize_t got = recv(fds[i].fd, buffer, sizeof buffer, 0);
            std::string &text = received[fds[i].fd];
            if (got > 0) {
                text.append(buffer, static_cast<size_t>(got));
            }
            if (got <= 0 || text.find("\r\n\r\n") != std::string::npos) {
                if (got > 0) {
                    ssize_t sent = send(fds[i].fd, kAnswer, sizeof kAnswer - 1, MSG_NOSIGNAL);
                    (void)sent;
                }
                received.erase(fds[i].fd);
                close(fds[i].fd);
                fds[i] = fds.back();
                fds.pop_back();
                continue;
            }
            ++i;
        }
    }
}

size_t heapInUse() {
    return mallinfo2().uordblks;
}

double percentile(std::vector<double> values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

// Runs `flows` node verify flows to their results; prints one line of figures.
bool runRound(CurlRequest &network, char const *name, int flows, std::string const &url) {
    std::string config = "{\"access_token\":\"t\",\"userinfo_uri\":\"" + url + "\"}";
    size_t before = heapInUse();
    for (int i = 0; i < flows; ++i) {
        if (!network.startNodeVerifyFlow("bench-" + std::to_string(i), config)) {
            std::fprintf(stderr, "flow %d did not start\n", i);
            return false;
        }
    }
    size_t queued = heapInUse();
    std::vector<double> turnMicros;
    std::vector<double> turnsToResult;
    size_t inFlight = 0;
    int failures = 0;
    auto start = std::chrono::steady_clock::now();
    for (int turn = 1; static_cast<int>(turnsToResult.size()) < flows && turn < 100000; ++turn) {
        auto t0 = std::chrono::steady_clock::now();
        network.perform();
        turnMicros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0)
                .count());
        if (turn == 1) {
            inFlight = heapInUse();
        }
        AsyncFlowResult result;
        bool any = false;
        while (network.getCompletedFlow(result)) {
            any = true;
            failures += result.success ? 0 : 1;
            turnsToResult.push_back(turn);
        }
        // The worker's wait: at most 50 ms, cut short by libcurl's sockets.
        if (!any && static_cast<int>(turnsToResult.size()) < flows) {
            curl_multi_poll(network.multiHandle, nullptr, 0, 50, nullptr);
        }
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s: %d flows, %d failed, %.3f s, %zu turns\n", name, flows, failures, seconds,
                turnMicros.size());
    std::printf("  perform() turn: median %.0f us, worst %.0f us\n", percentile(turnMicros, 0.5),
                percentile(turnMicros, 1.0));
    std::printf("  each turn (us):");
    for (size_t i = 0; i < turnMicros.size() && i < 8; ++i) {
        std::printf(" %.0f", turnMicros[i]);
    }
    std::printf("%s\n", turnMicros.size() > 8 ? " ..." : "");
    std::printf("  turns from queueing to result: min %.0f, median %.0f, worst %.0f\n",
                percentile(turnsToResult, 0.0), percentile(turnsToResult, 0.5),
                percentile(turnsToResult, 1.0));
    std::printf("  heap per flow: queued %.0f bytes, in flight %.0f bytes\n",
                static_cast<double>(queued - before) / flows,
                static_cast<double>(inFlight - before) / flows);
    return static_cast<int>(turnsToResult.size()) == flows;
}

}  // namespace

int main(int argc, char **argv) {
    int flows = argc > 1 ? std::atoi(argv[1]) : 1000;
    // Each flow holds a socket at both ends.
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }

    int listenFd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int stop[2];
    if (listenFd < 0 ||
        bind(listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listenFd, SOMAXCONN) != 0 ||
        getsockname(listenFd, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
        pipe(stop) != 0) {
        std::perror("responder");
        return 1;
    }
    pid_t child = fork();
    if (child == 0) {
        close(stop[1]);
        respond(listenFd, stop[0]);
        _exit(0);
    }
    close(stop[0]);
    close(listenFd);
    std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/me";

    SsoSetLogCallback(discard, nullptr);
    SsoServer::getServer();
    CurlRequest network;
    bool done = network.init(CURL_GLOBAL_ALL);
    // One flow first, so that libcurl's one-time allocations are not counted per flow.
    done = done && runRound(network, "warm-up", 1, url);
    network.cleanupDynamicHandlers();
    // A node's pool starts empty: every flow in flight makes a dynamic handle.
    done = done && runRound(network, "empty pool", flows, url);
    // The handles of the last round are reused.
    done = done && runRound(network, "warm pool", flows, url);
    network.cleanUp();
    SsoSetLogCallback(nullptr, nullptr);

    close(stop[1]);
    waitpid(child, nullptr, 0);
    return done ? 0 : 1;
}
