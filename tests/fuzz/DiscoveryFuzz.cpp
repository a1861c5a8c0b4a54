// A provider's discovery document, as the record that asked for it parses it. The record is
// the configuration's first one; an odd first byte gives it a userinfo URI of its own, which
// the document must not replace.
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoJson.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <string>

namespace {

Json::Value const &entry() {
    static Json::Value const value = [] {
        Json::Value root;
        readString(FuzzSupport::configuration(), root);
        Json::Value first = root[0];
        first["id"] = 0;
        return first;
    }();
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    FuzzSupport::quiet();
    if (size == 0) {
        return 0;
    }
    SsoServerConfigOAuth config;
    config.setConfigData(entry());
    if (data[0] % 2 == 1) {
        config.userinfoUri = "https://own.example/userinfo";
    }
    auto const *bytes = reinterpret_cast<char const *>(data + 1);
    config.setMetadata(std::string(bytes, size - 1));
    return 0;
}
