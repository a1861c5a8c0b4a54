#include "tests/harness/FlowPump.h"

#include "transport/CurlRequest.h"

#include <chrono>

bool pumpUntilFinished(CurlRequest &network, AsyncFlowResult &result, int ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < deadline) {
        network.perform();
        if (network.getCompletedFlow(result)) {
            return true;
        }
        curl_multi_wait(network.multiHandle, nullptr, 0, 20, nullptr);
    }
    return false;
}

void pumpTurns(CurlRequest &network, int turns) {
    for (int i = 0; i < turns; ++i) {
        network.perform();
        curl_multi_wait(network.multiHandle, nullptr, 0, 20, nullptr);
    }
}
