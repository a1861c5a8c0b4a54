#pragma once

#include <string>

// The client's copy of one provider's settings, read from the client configuration JSON that
// the server issued, plus the login's state and nonce. One instance lives for one login call,
// owned by SsoClient.
class SsoClientConfigOAuth {
public:
    SsoClientConfigOAuth();
    virtual ~SsoClientConfigOAuth();
    SsoClientConfigOAuth(SsoClientConfigOAuth const &) = delete;
    SsoClientConfigOAuth &operator=(SsoClientConfigOAuth const &) = delete;

    // Parses the client JSON and fills the first five fields. False (and a log line) when it
    // is no JSON or a required string is missing; fields read before the fault keep their value.
    virtual bool setConfigData(std::string const &data);
    // Stores state and nonce; false when either is empty (nothing changes then).
    virtual bool setSessionData(std::string const &state, std::string const &nonce);
    // Logs the provider settings (not state and nonce).
    virtual void printConfig() const;

    std::string authUri;
    std::string clientId;
    std::string redirectUri;
    std::string promptType;
    std::string provider;
    std::string nonce;
    std::string state;
};
