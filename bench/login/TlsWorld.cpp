// The HTTPS side of the login benchmark.

#include "bench/login/TlsWorld.h"

#include "tests/harness/LocalProvider.h"
#include "tests/harness/TestCa.h"

TlsWorld::TlsWorld() = default;
TlsWorld::~TlsWorld() = default;

bool TlsWorld::start() {
    if (!TestCa::available()) {
        error = TestCa::why() + " (run the benchmark under scripts/with-test-ca.sh --new --)";
        return false;
    }
    LocalProvider &both = LocalProvider::sharedHttps();
    if (!both.ready()) {
        error = both.error;
        return false;
    }
    http1_ = std::make_unique<LocalProvider>(TestCa::serverPem(), TestCa::serverKey(), false);
    if (!http1_->ready()) {
        error = http1_->error;
        return false;
    }
    return true;
}

LocalProvider const *TlsWorld::provider(std::string const &transport) const {
    return transport == "h1" ? http1_.get() : &LocalProvider::sharedHttps();
}
