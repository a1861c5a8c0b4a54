#pragma once

#include <string>

// The token triple of a token endpoint's answer. All empty means a failed exchange.
struct OAuthTokens {
    std::string accessToken;
    std::string idToken;
    std::string refreshToken;
};
