#pragma once

#include <memory>
#include <string>

class SsoClientConfigOAuth;

// Turns a client configuration and a PKCE challenge into the provider's authorization URL.
// Made on the stack for one login call; uses nothing shared.
class SsoClient {
public:
    SsoClient();
    ~SsoClient();
    SsoClient(SsoClient const &) = delete;
    SsoClient &operator=(SsoClient const &) = delete;

    // Creates and fills the configuration. False when one exists, the login type is not OAuth,
    // or the data is refused (a half-filled configuration then stays until removeConfig).
    bool setConfig(std::string const &configData, std::string const &state,
                   std::string const &nonce);
    // Deletes the configuration, if any.
    void removeConfig();
    // The query string (without "?"), parameters in alphabetical order, values percent-encoded.
    // Needs a configuration and a non-null challenge.
    std::string buildQueryString(char const *codeChallenge);
    // Hands the URL to `callback` (valid during the call). 0 if called, -1 for a null callback.
    int authRequest(char const *codeChallenge, void (*callback)(char const *));
    // The URL as a new array (delete[]).
    char *authUrl(char const *codeChallenge);

    // The values of loginType: unset until the login data names its type; OAuth is the only
    // type a client can log in with.
    static constexpr int32_t kLoginTypeUnset = -1;
    static constexpr int32_t kLoginTypeOAuth = 0;
    int32_t loginType = kLoginTypeUnset;
    std::unique_ptr<SsoClientConfigOAuth> config;

private:
    std::string buildUrl(char const *codeChallenge, char const *purpose);
};
