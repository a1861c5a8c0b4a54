// A token endpoint's answer on both roads. The first byte picks the reader: the blocking
// road's (without and with a kept refresh token), or the background verify or refresh flow in
// its token state, which on success queues the userinfo request (never sent).
#include "server/SsoServer.h"
#include "server/SsoServerResponses.h"
#include "tests/fuzz/FuzzSupport.h"
#include "transport/CurlRequest.h"

#include <curl/curl.h>

#include <cstdint>
#include <string>

namespace {

void runFlow(int32_t type, int32_t state, std::string const &response) {
    CurlRequest network;
    network.init(CURL_GLOBAL_ALL);
    AsyncFlowContext &context = network.activeFlows["fuzzsession"];
    context.sessionId = "fuzzsession";
    context.flowType = type;
    context.state = state;
    context.configId = 0;
    context.storedRefreshToken = "stored";
    network.processFlowState(context, response, 200, CURLE_OK);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    static bool const started = curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
    if (!started || !FuzzSupport::defaultServer()) {
        __builtin_trap();
    }
    if (size == 0) {
        return 0;
    }
    std::string response(reinterpret_cast<char const *>(data + 1), size - 1);
    switch (data[0] % 4) {
        case 0:
            readExchangeResponse(response, std::string());
            break;
        case 1:
            readExchangeResponse(response, "kept");
            break;
        case 2:
            runFlow(FlowVerify, FlowStateTokenExchange, response);
            break;
        default:
            runFlow(FlowRefresh, FlowStateRefresh, response);
            break;
    }
    return 0;
}
