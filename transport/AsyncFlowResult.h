#pragma once

#include <cstdint>
#include <string>

// What a finished background flow reports to the worker's drain.
struct AsyncFlowResult {
    std::string sessionId;
    int32_t flowType = 0;  // 1 verify, 2 refresh, 3 node verify
    bool success = false;
    std::string data;  // the user token on success
    std::string errorMessage;
    int32_t httpCode = 0;
};
