#pragma once

#include "support/OAuthKeys.h"

// The names of the configuration file "sso.cfg" and of the system's own JSON documents (the
// client JSON a login starts from, the node JSON a node verifies with), each written once.
// Names that are also OAuth parameters are the OAuth ones. All are static string literals.
struct ConfigKeys {
    // The file, in the configuration directory.
    static constexpr char const *fileName = "sso.cfg";

    // Members of one entry of the file; "id" is added by the loader (the entry's ordinal).
    static constexpr char const *id = "id";
    static constexpr char const *name = "name";
    static constexpr char const *desc = "desc";
    static constexpr char const *type = "type";
    static constexpr char const *provider = "provider";
    static constexpr char const *config = "config";

    // Members of an entry's "config" object.
    static constexpr char const *idpDomain = "idp_domain";
    static constexpr char const *clientId = OAuthKeys::clientId;
    static constexpr char const *clientSecret = OAuthKeys::clientSecret;
    static constexpr char const *redirectUris = "redirect_uris";
    static constexpr char const *userType = "qx_user_type";
    static constexpr char const *userinfoUri = "userinfo_uri";
    static constexpr char const *userName = "qx_user_name";
    static constexpr char const *promptType = "qx_prompt_type";
    static constexpr char const *refresh = "qx_refresh";
    static constexpr char const *refreshLifetime = "qx_refresh_lifetime";
    static constexpr char const *proxy = "qx_proxy";

    // The client JSON adds these to "provider", "client_id" and "qx_prompt_type".
    static constexpr char const *authUri = "auth_uri";
    static constexpr char const *redirectUri = OAuthKeys::redirectUri;

    // The node JSON carries "provider", "userinfo_uri", "qx_user_type", "qx_proxy" and
    // "qx_user_name" under the file's names, and the access token. The background node flow
    // reads its proxy under "proxy" instead, which a server never writes.
    static constexpr char const *accessToken = OAuthKeys::accessToken;
    static constexpr char const *nodeFlowProxy = "proxy";
};
