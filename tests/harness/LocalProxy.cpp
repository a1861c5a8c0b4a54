#include "tests/harness/LocalProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

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

bool accepts(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    bool connected =
        fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return connected;
}

}  // namespace

LocalProxy &LocalProxy::shared() {
    static LocalProxy proxy;
    return proxy;
}

LocalProxy::LocalProxy() {
    char pattern[] = "/tmp/qxss-proxy-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        error = "no temporary directory";
        return;
    }
    directory_ = pattern;
    // tinyproxy drops to an unprivileged user when started as root; it must still write here.
    chmod(directory_.c_str(), 0777);
    int chosen = freePort();
    std::ofstream config(directory_ + "/tinyproxy.conf");
    config << "Port " << chosen << "\n"
           << "Listen 127.0.0.1\n"
           << "Timeout 60\n"
           << "MaxClients 50\n"
           << "Allow 127.0.0.1\n"
           << "LogLevel Info\n"
           << "LogFile \"" << directory_ << "/tinyproxy.log\"\n";
    if (geteuid() == 0) {
        config << "User nobody\nGroup nogroup\n";
    }
    config.close();
    if (!process_.start({"tinyproxy", "-d", "-c", directory_ + "/tinyproxy.conf"})) {
        error = "cannot start tinyproxy";
        return;
    }
    for (int i = 0; i < 500; ++i) {
        if (accepts(chosen)) {
            port = chosen;
            return;
        }
        usleep(10000);
    }
    error = "tinyproxy did not listen within 5 seconds (is it installed?)";
    process_.stop();
}

LocalProxy::~LocalProxy() {
    process_.stop();
    if (!directory_.empty()) {
        std::string command = "rm -rf '" + directory_ + "'";
        int ignored = std::system(command.c_str());
        (void)ignored;
    }
}

std::string LocalProxy::hostPort() const {
    return "127.0.0.1:" + std::to_string(port);
}

std::string LocalProxy::url() const {
    return "http://" + hostPort();
}

int LocalProxy::connections() const {
    std::ifstream log(directory_ + "/tinyproxy.log");
    std::string line;
    int count = 0;
    while (std::getline(log, line)) {
        if (line.find("Established connection to host") != std::string::npos) {
            ++count;
        }
    }
    return count;
}
