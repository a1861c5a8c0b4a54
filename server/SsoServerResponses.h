#pragma once

#include "server/OAuthTokens.h"

#include <string>

// Readers of the provider's answers, shared by the blocking road and the background flows'
// completion. No state; worker thread. Neither throws on any input.

// The token triple of a token endpoint's answer. With a non-empty `keptRefreshToken` the
// answer's own refresh token is not read and the kept one is returned in its place. Empty
// tokens on failure.
OAuthTokens readExchangeResponse(std::string const &response, std::string const &keptRefreshToken);

// The final user name from a userinfo document: the member named by `userName` if set (and no
// other), else "preferred_username" for "okta", else "email"; cut at the first "@" for the user
// type "local". "" on failure.
std::string readUserInfoResponse(std::string const &response, std::string const &provider,
                                 std::string const &userName, std::string const &userType);
