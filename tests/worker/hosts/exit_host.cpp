// A host that ends without SsoDestroy while the worker runs, as careless hosts do.
//
//   qxss_exit_host exit|return <configuration directory> [userinfo URL]
//
// The directory stands in for the machine's (through the platform's test hooks, as in the test
// programs); without a configuration file in it the process is a node. The host starts the
// worker on one end of a socketpair and waits for an answered command; with a URL it also starts
// three node verify flows against it (a server that never answers keeps them in flight). Then it
// prints "READY" and ends through exit(0) or by returning 0 from main. Its exit handler, which
// runs after everything the library made during the run would have been destroyed, sends the
// worker one more command and prints "ANSWERED AT EXIT" when the reply comes. The test that runs
// it asserts that line and a clean exit status: the process's exit must not tear the library
// down under the running worker.
#include "platform/PlatformFakes.h"
#include "worker/libqxss.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

std::atomic<int> started{0};
int hostEnd = -1;

void countStarted(char const *text, void * /*context*/) {
    if (std::strstr(text, "Started async node verify flow successfully") != nullptr) {
        started.fetch_add(1);
    }
}

bool sendLine(int fd, std::string const &line) {
    return write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

// Reads up to the next line end, waiting at most three seconds for each byte.
bool readLine(int fd) {
    char c = 0;
    for (;;) {
        struct pollfd polled = {fd, POLLIN, 0};
        if (poll(&polled, 1, 3000) != 1 || read(fd, &c, 1) != 1) {
            return false;
        }
        if (c == '\n') {
            return true;
        }
    }
}

// Registered before the library makes anything, so it runs after the process's exit has
// destroyed whatever the library left to static destruction.
void talkToWorkerAtExit() {
    if (sendLine(hostEnd, "SSO_GET_NODE_CONFIG|at-exit\n") && readLine(hostEnd)) {
        std::printf("ANSWERED AT EXIT\n");
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3 || (std::strcmp(argv[1], "exit") != 0 && std::strcmp(argv[1], "return") != 0)) {
        std::fprintf(stderr, "usage: qxss_exit_host exit|return <directory> [userinfo URL]\n");
        return 2;
    }
    std::string const directory = argv[2];
    PlatformFakes::configDir() = [directory] { return directory; };
    PlatformFakes::fileExists() = [](char const *path) {
        // The machine's own directory does not count; anything else the system answers.
        return std::strncmp(path, "/usr/QX/etc", 11) == 0 ? 0 : 2;
    };
    SsoSetLogCallback(countStarted, nullptr);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return 3;
    }
    hostEnd = ends[0];
    std::atexit(talkToWorkerAtExit);
    if (SsoInitialize(ends[1]) != 0) {
        return 3;
    }
    if (!sendLine(ends[0], "SSO_GET_NODE_CONFIG|exit-host\n") || !readLine(ends[0])) {
        return 4;
    }
    if (argc > 3) {
        for (int i = 0; i < 3; ++i) {
            std::string line = "SSO_NODE_VERIFY|{\"provider\":\"keycloak\",\"userinfo_uri\":\"" +
                               std::string(argv[3]) + "\",\"access_token\":\"t-" +
                               std::to_string(i) + "\",\"qx_user_type\":\"local\"}|exit-session-" +
                               std::to_string(i) + "\n";
            if (!sendLine(ends[0], line)) {
                return 5;
            }
        }
        for (int i = 0; i < 1000 && started.load() < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (started.load() < 3) {
            return 6;
        }
    }
    std::printf("READY\n");
    std::fflush(stdout);
    if (argc > 3) {
        // The test says when its server holds all three requests: a started flow has only
        // queued its transfer, and the point is to exit with the transfers truly on the wire.
        if (!readLine(STDIN_FILENO)) {
            return 7;
        }
    }
    if (std::strcmp(argv[1], "exit") == 0) {
        std::exit(0);
    }
    return 0;
}
