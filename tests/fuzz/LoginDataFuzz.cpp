// The login data that SsoLoginUrl and SsoLogin take from the client side: percent-encoded
// "OAuth|<client JSON>|<state>|<nonce>|<code challenge>", here any text at all.
#include "tests/fuzz/FuzzSupport.h"
#include "worker/libqxss.h"

#include <cstdint>
#include <string>

namespace {

void ignore(char const *) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    FuzzSupport::quiet();
    std::string text = FuzzSupport::text(data, size);
    SsoFreeString(SsoLoginUrl(text.c_str()));
    SsoLogin(text.c_str(), ignore);
    return 0;
}
