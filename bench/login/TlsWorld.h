#pragma once

#include <string>

class LocalProvider;

// The HTTPS side of the benchmark: providers behind a certificate of a CA made for this run,
// which the library trusts through the system's CA bundle.
class TlsWorld {
public:
    // False, with `error` set, when the HTTPS world cannot be made here.
    bool start();
    // The provider of transport "h1" (HTTP/1.1 only) or "h2" (HTTP/2 and HTTP/1.1 by ALPN).
    LocalProvider const *provider(std::string const &transport) const;

    std::string error;
};
