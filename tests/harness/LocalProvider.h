#pragma once

#include "tests/harness/ChildProcess.h"

#include <string>

// The real OpenID provider of the tests (tests/servers/provider.js) on a free loopback port.
// shared() starts it once per test program; it stops when the program ends.
class LocalProvider {
public:
    struct LoginResult {
        bool ok = false;
        std::string code;
        std::string state;
        std::string location;
        std::string error;
    };

    static LocalProvider &shared();

    LocalProvider();
    ~LocalProvider();

    // True once the provider answered; else `error` says why.
    bool ready() const { return !base.empty(); }
    // "http://127.0.0.1:<port>"; discovery at base + "/.well-known/openid-configuration" and at
    // base + "/v2.0/.well-known/openid-configuration".
    std::string baseUrl() const { return base; }
    // The user's side of a login: follows the provider's pages for `authUrl` as `user` and
    // returns the code and state of the final redirect, which is not called.
    LoginResult login(std::string const &authUrl, std::string const &user = "alice") const;

    // Whether revocations are answered with a JSON body (true) or, as the provider does by
    // itself, with an empty 200 (false, the default). False when the provider did not confirm.
    bool setRevocationBody(bool on) const;
    // How many requests for `path` (e.g. "/token/revocation", "/v2.0/me") arrived so far.
    int requestCount(std::string const &path) const;

    // Registered confidential clients.
    static constexpr char const *clientId = "qxss-client";
    static constexpr char const *clientSecret = "qxss-secret";
    static constexpr char const *redirectUri = "http://127.0.0.1:18080/cb";
    static constexpr char const *secondRedirectUri = "http://127.0.0.1:18081/cb2";
    static constexpr char const *thirdRedirectUri = "http://127.0.0.2:18082/cb3";

    std::string base;
    std::string error;

private:
    ChildProcess node_;
};
