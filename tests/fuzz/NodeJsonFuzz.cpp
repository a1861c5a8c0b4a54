// A node configuration as "SSO_NODE_VERIFY" carries it, on both roads: the background flow's
// start, which reads it and queues the userinfo request (never sent), and the blocking road,
// which reads it and then fails at once at its uninitialized transport.
#include "server/SsoServer.h"
#include "tests/fuzz/FuzzSupport.h"
#include "transport/CurlRequest.h"

#include <curl/curl.h>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    static bool const started = [] {
        FuzzSupport::quiet();
        return curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
    }();
    if (!started) {
        __builtin_trap();
    }
    std::string nodeConfig(reinterpret_cast<char const *>(data), size);
    {
        CurlRequest network;
        network.init(CURL_GLOBAL_ALL);
        network.startNodeVerifyFlow("fuzzsession", nodeConfig);
    }
    delete[] SsoServer::getServer().nodeFlow(nodeConfig, "fuzzsession");
    return 0;
}
