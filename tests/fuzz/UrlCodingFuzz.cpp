// Percent coding both ways. Beyond not crashing, decoding what was encoded must give back the
// text, and encoding must leave only unreserved characters and escapes.
#include "platform/Url.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

bool unreservedOrEscape(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           std::strchr("-._~%", c) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    FuzzSupport::quiet();
    std::string text = FuzzSupport::text(data, size);
    std::unique_ptr<char[]> decoded(UrlDecode(text.c_str()));
    std::unique_ptr<char[]> encoded(UrlEncode(text.c_str()));
    if (!decoded || !encoded || std::strlen(decoded.get()) > text.size()) {
        __builtin_trap();
    }
    for (char const *c = encoded.get(); *c != '\0'; ++c) {
        if (!unreservedOrEscape(*c)) {
            __builtin_trap();
        }
    }
    std::unique_ptr<char[]> back(UrlDecode(encoded.get()));
    if (text != back.get()) {
        __builtin_trap();
    }
    return 0;
}
