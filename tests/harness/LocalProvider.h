#pragma once

#include "tests/harness/ChildProcess.h"

#include <string>
#include <vector>

// The real OpenID provider of the tests (tests/servers/provider.js) on a free loopback port.
// shared() starts it once per test program; it stops when the program ends. With
// QXSS_PROVIDER_STORE=map in the environment it keeps any number of codes and tokens.
// In HTTPS mode it serves a given certificate, with HTTP/2 beside HTTP/1.1 (chosen by ALPN);
// sharedHttps() is the one with the test CA's server certificate (tests/harness/TestCa.h).
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
    // The HTTPS provider of this program, serving TestCa::serverPem(); started on first use,
    // and not ready (with `error` set) outside scripts/with-test-ca.sh.
    static LocalProvider &sharedHttps();

    LocalProvider();
    // HTTPS with the PEM files `certificate` and `key` (HTTP/2 and HTTP/1.1 by ALPN; HTTP/1.1
    // alone when `http2` is false).
    LocalProvider(std::string const &certificate, std::string const &key, bool http2 = true);
    ~LocalProvider();

    // True once the provider answered; else `error` says why.
    bool ready() const { return !base.empty(); }
    // "http://127.0.0.1:<port>" ("https://127.0.0.1:<port>" in HTTPS mode, which the test CA's
    // server certificate covers); discovery at base + "/.well-known/openid-configuration" and
    // at base + "/v2.0/.well-known/openid-configuration".
    std::string baseUrl() const { return base; }
    // The user's side of a login: follows the provider's pages for `authUrl` as `user` and
    // returns the code and state of the final redirect, which is not called.
    LoginResult login(std::string const &authUrl, std::string const &user = "alice") const;
    // login() for every URL of `authUrls`, `parallel` sign-ins at a time in one helper process:
    // one result a URL, in their order (all failed when the helper gave no answer).
    std::vector<LoginResult> loginAll(std::vector<std::string> const &authUrls,
                                      std::string const &user = "alice", int parallel = 16) const;

    // Whether revocations are answered with a JSON body (true) or, as the provider does by
    // itself, with an empty 200 (false, the default). False when the provider did not confirm.
    bool setRevocationBody(bool on) const;
    // The token, userinfo and revocation endpoints answer each call `ms` milliseconds late (0:
    // at once, the default). False when the provider did not confirm.
    bool setDelay(int ms) const;
    // How many requests for `path` (e.g. "/token/revocation", "/v2.0/me") arrived so far.
    int requestCount(std::string const &path) const;
    // The next `calls` calls to the token, userinfo and revocation endpoints get no answer
    // until release(): a provider that hangs. False when the provider did not confirm.
    bool hold(int calls) const;
    // How many calls are held now (-1 when the provider did not answer).
    int held() const;
    // Answers every held call, late, and stops holding; how many there were (-1: no answer).
    int release() const;

    // Registered confidential clients.
    static constexpr char const *clientId = "qxss-client";
    static constexpr char const *clientSecret = "qxss-secret";
    static constexpr char const *redirectUri = "http://127.0.0.1:18080/cb";
    static constexpr char const *secondRedirectUri = "http://127.0.0.1:18081/cb2";
    static constexpr char const *thirdRedirectUri = "http://127.0.0.2:18082/cb3";

    std::string base;
    std::string error;

private:
    void start(std::vector<std::string> const &arguments);
    ChildProcess node_;
};
