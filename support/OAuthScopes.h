#pragma once

#include "support/ConfigValues.h"

#include <string>

// The Microsoft Graph permission that a "microsoft" login and refresh ask for.
inline constexpr char kGraphUserReadScope[] = "https://graph.microsoft.com/User.Read";

// The scope for the provider keyword (compared exactly): the base "openid email profile",
// with offline access for "okta", and offline access and the Graph permission for
// "microsoft". The authorization URL and both roads' refresh grants ask with these words, so
// a refreshed login never asks for more than the user consented to.
inline std::string providerScope(std::string const &provider) {
    std::string scope = "openid email profile";
    if (provider == ConfigValues::microsoft) {
        scope += " offline_access ";
        scope += kGraphUserReadScope;
    } else if (provider == ConfigValues::okta) {
        scope += " offline_access";
    }
    return scope;
}
