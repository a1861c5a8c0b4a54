#pragma once

#include <sys/socket.h>

// 1 when `text` is an IPv4 or IPv6 literal, else 0.
int SocketValidateIp(char const *text);

// 1 when `port` is 1 to 65535, else 0.
int SocketValidatePort(int port);

// Forward lookup of `host` for IPv4 (resp. IPv6) through getaddrinfo. Stores the first address
// in `out` (may be null) and returns 0, or -1 when nothing was found. Blocks for the lookup.
int SocketLookupAddress4(sockaddr_storage *out, char const *host);
int SocketLookupAddress6(sockaddr_storage *out, char const *host);
