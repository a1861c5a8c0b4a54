#pragma once

#include <string>

// The Microsoft Graph permission that a "microsoft" refresh asks for.
inline constexpr char kGraphUserReadScope[] = "https://graph.microsoft.com/User.Read";

// The scope of a refresh grant for the provider keyword (compared exactly): the base
// "openid email profile", with offline access for "okta", and offline access and the Graph
// permission for "microsoft". Both roads ask with the same words.
inline std::string refreshScope(std::string const &provider) {
    std::string scope = "openid email profile";
    if (provider == "microsoft") {
        scope += " offline_access ";
        scope += kGraphUserReadScope;
    } else if (provider == "okta") {
        scope += " offline_access";
    }
    return scope;
}
