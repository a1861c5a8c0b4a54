#pragma once

// The words that the configuration file and the login data give as values, each written once:
// the login types, the provider keywords and the user types. All are compared exactly and
// case-sensitively. All are static string literals.
struct ConfigValues {
    // An entry's "type". Only OAuth entries become provider records.
    static constexpr char const *typeOAuth = "OAuth";
    static constexpr char const *typeSaml = "SAML";
    // The first field of the client's login data. It spells SAML "Saml", so a file's "SAML"
    // and the login data's "Saml" are two different words.
    static constexpr char const *loginDataSaml = "Saml";

    // An entry's "provider".
    static constexpr char const *microsoft = "microsoft";
    static constexpr char const *okta = "okta";
    static constexpr char const *google = "google";
    static constexpr char const *keycloak = "keycloak";

    // "qx_user_type": "local" keeps the user name up to its first "@", "domain" keeps it whole.
    static constexpr char const *userTypeLocal = "local";
    static constexpr char const *userTypeDomain = "domain";

    // "qx_prompt_type" that is logged but sends no prompt parameter at all.
    static constexpr char const *promptNone = "none";
};
