// A token endpoint's answer on both roads. The first byte picks the reader: the blocking
// road's (without and with a kept refresh token), or the background verify or refresh flow in
// its token state, which on success queues the userinfo request (never sent). Neither road may
// accept an answer in which a member that it reads is an object or an array.
#include "server/OAuthTokens.h"
#include "server/SsoServer.h"
#include "server/SsoServerResponses.h"
#include "support/SsoJson.h"
#include "tests/fuzz/FuzzSupport.h"
#include "transport/CurlRequest.h"

#include <curl/curl.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace {

// Whether the flow took the answer: it is still running and waits for its userinfo request.
bool runFlow(int32_t type, int32_t state, std::string const &response) {
    CurlRequest network;
    network.init(CURL_GLOBAL_ALL);
    AsyncFlowContext &context = network.activeFlows["fuzzsession"];
    context.sessionId = "fuzzsession";
    context.flowType = type;
    context.state = state;
    context.configId = 0;
    context.storedRefreshToken = "stored";
    network.processFlowState(context, response, 200, CURLE_OK);
    auto flow = network.activeFlows.find("fuzzsession");
    return flow != network.activeFlows.end() && flow->second.state == FlowStateUserInfo;
}

// Traps when the answer was accepted although one of `keys`, all of which a road that
// accepts has read, is of a wrong type.
void checkAccepted(bool accepted, std::string const &response,
                   std::initializer_list<char const *> keys) {
    if (!accepted) {
        return;
    }
    Json::Value answer;
    if (!readString(response, answer)) {
        __builtin_trap();
    }
    for (char const *key : keys) {
        std::string text;
        if (readMember(answer, key, text) == MemberText::WrongType) {
            __builtin_trap();
        }
    }
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
            checkAccepted(!readExchangeResponse(response, std::string()).accessToken.empty(),
                          response, {"access_token", "id_token", "refresh_token"});
            break;
        case 1:
            // A kept refresh token stands in for the answer's, which is then never read.
            checkAccepted(!readExchangeResponse(response, "kept").accessToken.empty(), response,
                          {"access_token", "id_token"});
            break;
        case 2:
            checkAccepted(runFlow(FlowVerify, FlowStateTokenExchange, response), response,
                          {"access_token", "id_token", "refresh_token"});
            break;
        default:
            checkAccepted(runFlow(FlowRefresh, FlowStateRefresh, response), response,
                          {"access_token", "refresh_token"});
            break;
    }
    return 0;
}
