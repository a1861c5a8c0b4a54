#pragma once

// The names that OAuth 2.0 and OpenID Connect put on the wire, each written once: form
// parameters, members of the token, discovery and userinfo answers, the fixed values some
// parameters take, and the request header lines that carry them. Both roads (the background
// flows and the blocking requests) and the authorization URL build from these, so a name
// cannot drift between them. All are static string literals; nothing is owned.
struct OAuthKeys {
    // Parameters of the authorization URL, the token and revocation forms, and members of the
    // token endpoint's answer.
    static constexpr char const *accessToken = "access_token";
    static constexpr char const *refreshToken = "refresh_token";
    static constexpr char const *idToken = "id_token";
    static constexpr char const *clientId = "client_id";
    static constexpr char const *clientSecret = "client_secret";
    static constexpr char const *code = "code";
    static constexpr char const *codeVerifier = "code_verifier";
    static constexpr char const *codeChallenge = "code_challenge";
    static constexpr char const *codeChallengeMethod = "code_challenge_method";
    static constexpr char const *grantType = "grant_type";
    static constexpr char const *redirectUri = "redirect_uri";
    static constexpr char const *scope = "scope";
    static constexpr char const *token = "token";
    static constexpr char const *tokenTypeHint = "token_type_hint";
    static constexpr char const *responseType = "response_type";
    static constexpr char const *responseMode = "response_mode";
    static constexpr char const *state = "state";
    static constexpr char const *nonce = "nonce";
    static constexpr char const *prompt = "prompt";
    static constexpr char const *accessType = "access_type";

    // Fixed values of those parameters. The refresh grant and the revocation's token hint are
    // both the word "refresh_token".
    static constexpr char const *grantAuthorizationCode = "authorization_code";
    static constexpr char const *grantRefreshToken = refreshToken;
    static constexpr char const *responseTypeCode = code;
    static constexpr char const *challengeMethodS256 = "S256";
    static constexpr char const *responseModeQuery = "query";
    static constexpr char const *accessTypeOffline = "offline";

    // Where the discovery document lies below the provider's domain; "microsoft" keeps it
    // below its version 2 endpoints.
    static constexpr char const *discoveryPath = "/.well-known/openid-configuration";
    static constexpr char const *microsoftDiscoveryPath = "/v2.0/.well-known/openid-configuration";

    // Members of the provider's discovery document.
    static constexpr char const *authorizationEndpoint = "authorization_endpoint";
    static constexpr char const *tokenEndpoint = "token_endpoint";
    static constexpr char const *userinfoEndpoint = "userinfo_endpoint";
    static constexpr char const *revocationEndpoint = "revocation_endpoint";
    static constexpr char const *issuer = "issuer";

    // Claims of the userinfo answer that can name the user.
    static constexpr char const *preferredUsername = "preferred_username";
    static constexpr char const *email = "email";

    // Whole header lines, and the beginnings of the two Authorization lines (the credentials
    // or the token follow).
    static constexpr char const *formContentType =
        "Content-Type: application/x-www-form-urlencoded";
    static constexpr char const *bearerPrefix = "Authorization: Bearer ";
    static constexpr char const *basicPrefix = "Authorization: Basic ";
};
