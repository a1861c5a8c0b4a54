#pragma once

#include <cstdint>
#include <string>

// What a finished background flow reports to the worker's drain, which turns it into the
// command's one reply line.
struct AsyncFlowResult {
    std::string sessionId;
    int32_t flowType = 0;  // a `flowType` value: FlowVerify, FlowRefresh or FlowNodeVerify
    bool success = false;
    std::string data;  // the user token on success
    std::string errorMessage;
    int32_t httpCode = 0;
};
