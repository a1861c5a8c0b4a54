// The configuration file, both passes, with the discovery document answered from the input:
// the bytes before the first NUL are the file, the bytes after it the document that every
// OAuth record is given. The document goes to the discovery parsing step directly (no HTTP),
// then the loaded records build a client configuration each, which reads the redirect URIs.
#include "server/SsoServer.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    FuzzSupport::quiet();
    auto const *bytes = reinterpret_cast<char const *>(data);
    auto const *separator = static_cast<char const *>(std::memchr(bytes, '\0', size));
    std::string file(bytes, separator == nullptr ? size : static_cast<size_t>(separator - bytes));
    std::string document =
        separator == nullptr ? FuzzSupport::discovery() : std::string(separator + 1, bytes + size);
    if (FuzzSupport::loadServer(file, document)) {
        SsoServer &server = SsoServer::getServer();
        delete[] server.getLoginOptions();
        for (uint32_t id = 0; id < server.configs.size() && id < 8; ++id) {
            delete[] server.getClientConfig(id, "fuzzsessionfuzzsessionfuzzsession", nullptr);
            delete[] server.getClientConfig(id, "fuzzsessionfuzzsessionfuzzsession", "10.0.0.1");
        }
    }
    SsoServer::getServer().clearConfigs();
    return 0;
}
