// SsoValidation: the proxy host and port check and the search for a CA bundle file.

#include "support/SsoValidation.h"

#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/Sockets.h"
#include "platform/Strings.h"

#include <cstdlib>
#include <cstring>

namespace {

struct CaBundle {
    char const *marker;
    char const *bundle;
    char const *detected;
};

// Only these two distributions are known; the first row whose marker and bundle both exist wins.
CaBundle const kBundles[] = {
    {"/etc/debian_version", "/etc/ssl/certs/ca-certificates.crt", "Ubuntu/Debian"},
    {"/etc/redhat-release", "/etc/pki/tls/certs/ca-bundle.crt", "Redhat/CentOS"},
};

CaBundle const *findBundle() {
    for (auto const &row : kBundles) {
        if (FileIsEntity(row.marker) == 1 && FileIsEntity(row.bundle) == 1) {
            return &row;
        }
    }
    return nullptr;
}

int invalidPort() {
    Log() << "SsoUtils: ERROR! Port is invalid.\n";
    return -1;
}

}  // namespace

int validateProxy(char const *hostPort) {
    Log() << "SsoUtils: Validating proxy hostname: '" << hostPort << "'.\n";
    if (hostPort == nullptr || *hostPort == '\0') {
        Log() << "SsoUtils: ERROR! Proxy hostname is empty.\n";
        return -1;
    }
    size_t length = std::strlen(hostPort);
    if (StringCount(hostPort, static_cast<int>(length), ':') != 1) {
        Log() << "SsoUtils: ERROR! Invalid colons number in hostname.\n";
        return -1;
    }
    char const *colon = std::strchr(hostPort, ':');
    std::string host(hostPort, static_cast<size_t>(colon - hostPort));
    std::string port(colon + 1);
    if (host.empty()) {
        Log() << "SsoUtils: ERROR! Hostname portion is empty.\n";
        return -1;
    }
    if (port.empty()) {
        Log() << "SsoUtils: ERROR! Port portion is empty.\n";
        return -1;
    }
    if (host.front() == ' ' || host.back() == ' ') {
        Log() << "SsoUtils: ERROR! Hostname starts or ends with space.\n";
        return -1;
    }
    Log() << "SsoUtils: Proxy host '" << host << "', port '" << port << "'.\n";
    if (SocketValidateIp(host.c_str()) != 1) {
        // A name must resolve now: the transfers that use the proxy will need it to.
        Log() << "SsoUtils: Received hostname string: '" << host
              << "'Trying forward DNS lookup for IPv4.\n";
        sockaddr_storage address;
        if (SocketLookupAddress4(&address, host.c_str()) == -1) {
            Log() << "SsoUtils: Trying forward DNS lookup for IPv6.\n";
            if (SocketLookupAddress6(&address, host.c_str()) == -1) {
                Log() << "SsoUtils: ERROR! Forward DNS lookup for IPv4 and IPv6 failed.\n";
                Log() << "SsoUtils: ERROR! Hostname is unresolvable.\n";
                return -1;
            }
        }
        Log() << "SsoUtils: Forward DNS lookup for hostname '" << host << "' success.\n";
    }
    Log() << "SsoUtils: Received port string: '" << port << "'.\n";
    if (port.size() > 5) {
        Log() << "SsoUtils: ERROR! Port string length is invalid.\n";
        return invalidPort();
    }
    for (char c : port) {
        if (c < '0' || c > '9') {
            Log() << "SsoUtils: ERROR! Port string in not a number.\n";
            return invalidPort();
        }
    }
    if (SocketValidatePort(std::atoi(port.c_str())) != 1) {
        return invalidPort();
    }
    Log() << "SsoUtils: Proxy host '" << host << "' port '" << port << "' is valid.\n";
    return 0;
}

int validateCaFile() {
    Log() << "SsoUtils: Validating CA file.\n";
    CaBundle const *found = findBundle();
    if (found == nullptr) {
        Log() << "SsoUtils: ERROR! Can't detect CA file.\n";
        return -1;
    }
    Log() << "SsoUtils: Detected " << found->detected << " CA file.\n";
    return 0;
}

std::string getCaFile() {
    Log() << "SsoUtils: Searching for CA file path.\n";
    CaBundle const *found = findBundle();
    if (found == nullptr) {
        Log() << "SsoUtils: ERROR! Can't detect CA file path.\n";
        return std::string();
    }
    Log() << "SsoUtils: CA file path: '" << found->bundle << "'.\n";
    return found->bundle;
}
