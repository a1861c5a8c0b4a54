#include "tests/harness/LocalProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

namespace {

// A port that was free a moment ago. Another process may take it before tinyproxy binds it, so
// the caller lets tinyproxy report whether it got the port and tries again when it did not.
int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    if (fd >= 0) {
        close(fd);
    }
    return port;
}

bool fileContains(std::string const &path, std::string const &piece) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.find(piece) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

LocalProxy &LocalProxy::shared() {
    static LocalProxy proxy;
    return proxy;
}

LocalProxy::LocalProxy() : directory_("proxy") {
    if (directory_.path.empty()) {
        error = "no temporary directory";
        return;
    }
    std::string const configuration = directory_.path + "/tinyproxy.conf";
    log_ = directory_.path + "/tinyproxy.log";
    for (int attempt = 1; attempt <= 20; ++attempt) {
        int chosen = freePort();
        unlink(log_.c_str());
        std::ofstream config(configuration, std::ios::trunc);
        // No "User": started as root, tinyproxy would change its user, and the kernel would
        // then forget to kill it with the test program.
        config << "Port " << chosen << "\n"
               << "Listen 127.0.0.1\n"
               << "Timeout 60\n"
               << "MaxClients 50\n"
               << "Allow 127.0.0.1\n"
               << "LogLevel Info\n"
               << "LogFile \"" << log_ << "\"\n";
        config.close();
        if (!process_.start({"tinyproxy", "-d", "-c", configuration})) {
            error = "cannot start tinyproxy (is it installed?)";
            return;
        }
        // tinyproxy logs this line once it holds the port, and ends when the port is taken.
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (fileContains(log_, "listening on fd [")) {
                port = chosen;
                return;
            }
            if (process_.exited()) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (!process_.exited()) {
            process_.stop();
            error = "tinyproxy neither listened nor ended within 10 seconds";
            return;
        }
    }
    error = "tinyproxy found no free port in 20 attempts";
}

LocalProxy::~LocalProxy() {
    process_.stop();
}

std::string LocalProxy::hostPort() const {
    return "127.0.0.1:" + std::to_string(port);
}

std::string LocalProxy::url() const {
    return "http://" + hostPort();
}

int LocalProxy::connections() const {
    std::ifstream log(log_);
    std::string line;
    int count = 0;
    while (std::getline(log, line)) {
        if (line.find("Established connection to host") != std::string::npos) {
            ++count;
        }
    }
    return count;
}
