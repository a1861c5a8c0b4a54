#pragma once

#include <memory>
#include <string>

class LocalProvider;

// The HTTPS side of the benchmark: providers behind the test CA's server certificate, which the
// library trusts through the system's CA bundle. Only under scripts/with-test-ca.sh, which
// makes the CA and the private mount namespace in which the system bundle holds it.
class TlsWorld {
public:
    TlsWorld();
    ~TlsWorld();
    TlsWorld(TlsWorld const &) = delete;
    TlsWorld &operator=(TlsWorld const &) = delete;

    // Starts both providers. False, with `error` set, when the HTTPS world is not there.
    bool start();
    // The provider of transport "h1" (HTTP/1.1 only) or "h2" (HTTP/2 and HTTP/1.1 by ALPN,
    // which libcurl settles as HTTP/2). Valid after a successful start.
    LocalProvider const *provider(std::string const &transport) const;

    std::string error;

private:
    std::unique_ptr<LocalProvider> http1_;
};
