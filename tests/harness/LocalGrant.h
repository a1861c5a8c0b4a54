#pragma once

#include "server/OAuthTokens.h"

#include <cstdint>
#include <string>

class SsoServer;
class SsoServerConfigOAuth;

// Real tokens from the local provider for tests that drive an SsoServer directly, with no worker:
// a record that points at the provider's endpoints, and a code grant signed for by a user. The
// code exchange goes through SsoRequest, which the caller must have initialized.
class LocalGrant {
public:
    // Appends a new OAuth record for the local provider's root issuer to `server.configs`
    // (endpoints filled in as discovery gives them; the refresh flow on). Owned by `server`.
    static SsoServerConfigOAuth *addRecord(SsoServer &server,
                                           std::string const &provider = "keycloak");

    struct Code {
        bool ok = false;
        std::string code;
        std::string session;  // the user session the pending login is stored under
        std::string error;
    };
    // Issues the client configuration of `configId` under a new user session and signs `user` in
    // at the provider: the code, not yet exchanged.
    static Code authorize(SsoServer &server, uint32_t configId, std::string const &user = "alice");

    // authorize() and the code exchange: the provider's tokens, or empty ones with `error` set.
    static OAuthTokens tokens(SsoServer &server, uint32_t configId, std::string &error,
                              std::string const &user = "alice");
};
