// A proxy as "<host>:<port>", as a configuration file's "qx_proxy" gives it. Name lookups are
// answered from a fixed list (FuzzSupport::quiet), never by the resolver.
#include "support/SsoValidation.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    FuzzSupport::quiet();
    std::string text = FuzzSupport::text(data, size);
    validateProxy(text.c_str());
    return 0;
}
