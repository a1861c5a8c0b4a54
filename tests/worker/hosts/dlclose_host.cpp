// A host that loads the library with dlopen and calls dlclose(), as a plugin host that unloads
// its plugins might, once with the worker running.
//
//   qxss_dlclose_host <libqxss.so> <stand-in library> <configuration directory>
//
// First the library itself is opened and closed: "LIBRARY STAYS LOADED" when it is still
// mapped after that. The library looks for its configuration in the machine's directory alone,
// so the worker runs in the stand-in, linked from the same code in the same way, which is
// handed the directory (without a configuration file in it the process is a node; every role
// answers "SSO_GET_NODE_CONFIG"). The host sends one command before dlclose() and one after it,
// and prints "STILL LOADED" when the stand-in is still mapped after dlclose() and "ANSWERED
// AFTER DLCLOSE" when the worker answers the second command. It ends with exit(0), without
// SsoDestroy.
#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// One reply line from `fd` within ten seconds; "" when none came.
std::string readLine(int fd) {
    std::string line;
    while (line.empty() || line.back() != '\n') {
        struct pollfd polled = {fd, POLLIN, 0};
        if (::poll(&polled, 1, 10000) <= 0) {
            return std::string();
        }
        char byte = 0;
        if (::read(fd, &byte, 1) != 1) {
            return std::string();
        }
        line += byte;
    }
    return line;
}

bool answered(int fd, std::string const &session) {
    std::string command = "SSO_GET_NODE_CONFIG|" + session + "\n";
    if (::send(fd, command.data(), command.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(command.size())) {
        return false;
    }
    std::string reply = readLine(fd);
    return reply.compare(0, 19, "SSO_GET_NODE_CONFIG") == 0 && reply.size() > session.size() + 2 &&
           reply.compare(reply.size() - session.size() - 2, session.size() + 2,
                         "|" + session + "\n") == 0;
}

// Whether `path` is still mapped in this process.
bool loaded(char const *path) {
    void *again = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (again == nullptr) {
        return false;
    }
    dlclose(again);
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fprintf(stderr,
                     "usage: qxss_dlclose_host <libqxss.so> <stand-in> <configuration dir>\n");
        return 2;
    }
    // The library itself: loaded, then closed, it stays mapped.
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr || dlclose(library) != 0) {
        std::fprintf(stderr, "dlopen or dlclose: %s\n", dlerror());
        return 1;
    }
    if (loaded(argv[1])) {
        std::printf("LIBRARY STAYS LOADED\n");
        std::fflush(stdout);
    }

    // The stand-in, with a worker running when it is closed.
    void *module = dlopen(argv[2], RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    auto useConfigDir =
        reinterpret_cast<void (*)(char const *)>(dlsym(module, "QxssTestUseConfigDir"));
    auto initialize = reinterpret_cast<int (*)(int)>(dlsym(module, "SsoInitialize"));
    auto setLog = reinterpret_cast<void (*)(void (*)(char const *, void *), void *)>(
        dlsym(module, "SsoSetLogCallback"));
    if (useConfigDir == nullptr || initialize == nullptr || setLog == nullptr) {
        std::fprintf(stderr, "dlsym: %s\n", dlerror());
        return 1;
    }
    useConfigDir(argv[3]);
    // Quiet: the default sink is syslog. The callback lives in this program, not the library.
    setLog([](char const *, void *) {}, nullptr);
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0 || initialize(fds[1]) != 0) {
        std::fprintf(stderr, "the worker did not start\n");
        return 1;
    }
    if (!answered(fds[0], "before")) {
        std::fprintf(stderr, "no answer before dlclose\n");
        return 1;
    }
    if (dlclose(module) != 0) {
        std::fprintf(stderr, "dlclose: %s\n", dlerror());
        return 1;
    }
    if (loaded(argv[2])) {
        std::printf("STILL LOADED\n");
        std::fflush(stdout);
    }
    if (answered(fds[0], "after")) {
        std::printf("ANSWERED AFTER DLCLOSE\n");
        std::fflush(stdout);
    }
    std::exit(0);
}
