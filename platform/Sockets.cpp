// Sockets: IP literal and port checks and address lookups for the proxy validation.

#include "platform/Sockets.h"

#include "platform/PlatformFakes.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

namespace {

int lookup(sockaddr_storage *out, char const *host, int family) {
    if (host == nullptr || *host == '\0') {
        return -1;
    }
    auto const &fake = PlatformFakes::lookup();
    if (fake) {
        int answer = fake(host, family);
        if (answer == 0 && out != nullptr) {
            std::memset(out, 0, sizeof *out);
            out->ss_family = static_cast<sa_family_t>(family);
        }
        if (answer == 0 || answer == -1) {
            return answer;
        }
    }
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (::getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
        return -1;
    }
    if (out != nullptr) {
        std::memset(out, 0, sizeof *out);
        std::memcpy(out, found->ai_addr, found->ai_addrlen);
    }
    ::freeaddrinfo(found);
    return 0;
}

}  // namespace

int SocketValidateIp(char const *text) {
    if (text == nullptr) {
        return 0;
    }
    unsigned char buffer[sizeof(in6_addr)];
    return (::inet_pton(AF_INET, text, buffer) == 1 || ::inet_pton(AF_INET6, text, buffer) == 1)
               ? 1
               : 0;
}

int SocketValidatePort(int port) {
    return (port >= 1 && port <= 65535) ? 1 : 0;
}

int SocketLookupAddress4(sockaddr_storage *out, char const *host) {
    return lookup(out, host, AF_INET);
}

int SocketLookupAddress6(sockaddr_storage *out, char const *host) {
    return lookup(out, host, AF_INET6);
}
