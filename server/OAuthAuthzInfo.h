#pragma once

#include <cstdint>
#include <string>

// A pending authorization: what the code exchange of a started login needs. No age limit.
struct OAuthAuthzInfo {
    uint32_t configId = 0;
    std::string codeVerifier;
    std::string redirectUri;
};
