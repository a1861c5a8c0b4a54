#pragma once

#include <cstdint>
#include <string>

// What a finished login keeps to be refreshed and to configure nodes.
struct OAuthRefreshInfo {
    uint32_t configId = 0;
    int64_t savedAt = 0;  // seconds since the epoch
    std::string refreshToken;
    std::string accessToken;
};
