// The loopback sockets of tests/harness/LoopbackSocket.h.
#include "tests/harness/LoopbackSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

int LoopbackSocket::open(int backlog, int &port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        (backlog >= 0 && listen(fd, backlog) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}
