// The HTTPS side of the login benchmark.

#include "bench/login/TlsWorld.h"

bool TlsWorld::start() {
    error = "the HTTPS test world is not built yet";
    return false;
}

LocalProvider const *TlsWorld::provider(std::string const &) const { return nullptr; }
