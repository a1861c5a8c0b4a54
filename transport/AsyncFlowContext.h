#pragma once

#include <cstdint>
#include <string>

// The whole state of one background flow, keyed by its session.
struct AsyncFlowContext {
    std::string sessionId;
    int32_t flowType = 0;
    int32_t state = 0;
    std::string code;
    std::string redirectUri;
    std::string codeVerifier;
    std::string uuid;
    std::string storedRefreshToken;
    std::string nodeConfig;
    std::string accessToken;
    std::string refreshToken;
    std::string userInfoResponse;
    uint32_t configId = 0;
    std::string provider;
    std::string userName;
    std::string userType;
    int32_t currentRequestId = -1;
    std::string reservedText;
    int32_t reservedValue = 0;
};
