#pragma once

#include <cstdint>
#include <string>
#include <vector>

class LocalProvider;
class WorkerHost;

// What a host does before "SSO_VERIFY": configuration entries for the local provider, and the
// road from "SSO_GET_CONFIG" through the authorization URL to a code signed for by a user at
// the provider.
class LoginDriver {
public:
    // One entry of the configuration file, pointing at the local provider by default.
    struct Entry {
        std::string name = "Local";
        std::string provider = "keycloak";
        std::string idp;  // empty: the local provider's base URL
        std::string userType = "local";
        std::string userName;   // qx_user_name, left out when empty
        bool refresh = true;    // qx_refresh
        int64_t lifetime = -1;  // qx_refresh_lifetime, left out when negative
        std::string proxy;      // qx_proxy, left out when empty
    };

    static std::string entry(Entry const &entry);
    // A whole configuration file of `entries`.
    static std::string file(std::vector<Entry> const &entries);

    struct Authorization {
        bool ok = false;
        std::string code;
        std::string reply;  // the SSO_GET_CONFIG reply
        std::string error;
    };
    // Sends "SSO_GET_CONFIG|<id>|<session>" on `host` and builds the authorization URL with
    // SsoLoginUrl, with the state "state-<session>": the URL, or "" with `result.error` set.
    // `result.reply` is the SSO_GET_CONFIG reply.
    static std::string authorizationUrl(WorkerHost &host, int id, std::string const &session,
                                        Authorization &result);
    // authorizationUrl(), then signs in as `user` at the local provider (`provider`, or
    // LocalProvider::shared() when null). The code is not yet used.
    static Authorization authorize(WorkerHost &host, int id, std::string const &session,
                                   std::string const &user = "alice",
                                   LocalProvider const *provider = nullptr);
    // A fresh 32-character user session from SsoGetUserSession.
    static std::string newSession();
};
