// What the checker warns about beyond the library's own statements. The provider rules come
// from each provider's public documentation; the library's own behaviour in them (a revocation
// must be answered with a body, a login needs a refresh token) is kept on purpose.
#include "tools/qxss-check/ConfigWarnings.h"

#include "tools/qxss-check/ConfigCheck.h"

#include <sys/stat.h>

#include <cstdio>

namespace {

bool isPlainHttp(std::string const &url) {
    return url.compare(0, 7, "http://") == 0;
}

std::string octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// Providers that answer a successful revocation with an empty 200 (RFC 7009 allows it), which
// the library counts as a failed revocation.
bool revokesWithEmptyAnswer(std::string const &provider) {
    return provider == "okta" || provider == "google" || provider == "keycloak";
}

// What microsoft's userinfo endpoint answers with: the subject, the name claims and the email.
bool microsoftUserinfoClaim(std::string const &claim) {
    for (char const *known : {"sub", "name", "family_name", "given_name", "picture", "email"}) {
        if (claim == known) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::vector<std::string> fileWarnings(std::string const &path) {
    std::vector<std::string> warnings;
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        return warnings;
    }
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        warnings.push_back("the file is readable or writable by group or others (mode " +
                           octal(info.st_mode) + "), and it holds client secrets: chmod 600 " +
                           path);
    }
    if (info.st_uid != 0) {
        warnings.push_back("the file is owned by uid " + std::to_string(info.st_uid) +
                           ", not by root: its owner can change which providers the library "
                           "trusts (chown root " +
                           path + ")");
    }
    std::string directory = directoryOf(path);
    struct stat folder;
    if (::stat(directory.c_str(), &folder) == 0 && (folder.st_mode & S_IWOTH) != 0) {
        warnings.push_back(
            "the directory " + directory + " is writable by others (mode " + octal(folder.st_mode) +
            "): anyone can put another file in its place (chmod o-w " + directory + ")");
    }
    return warnings;
}

std::vector<std::string> entryWarnings(ProviderReport const &entry) {
    std::vector<std::string> warnings;
    if (!entry.served) {
        return warnings;
    }
    if (isPlainHttp(entry.idpDomain)) {
        warnings.push_back("idp_domain " + entry.idpDomain +
                           " is http://: discovery travels unencrypted, so anyone on the way "
                           "can give the library other endpoints");
    }
    for (std::string const &uri : entry.redirectUris) {
        if (isPlainHttp(uri)) {
            warnings.push_back("redirect URI " + uri +
                               " is http://: the authorization code travels to it unencrypted");
        }
    }
    if (entry.discovery == ProviderReport::Discovery::Succeeded) {
        std::pair<char const *, std::string const *> const endpoints[] = {
            {"authorization", &entry.authorizationEndpoint},
            {"token", &entry.tokenEndpoint},
            {"userinfo", &entry.userinfoEndpoint},
            {"revocation", &entry.revocationEndpoint},
        };
        for (auto const &endpoint : endpoints) {
            if (isPlainHttp(*endpoint.second)) {
                warnings.push_back(std::string("the ") + endpoint.first + " endpoint " +
                                   *endpoint.second +
                                   " is http://: what goes to it and comes back travels "
                                   "unencrypted");
            }
        }
        // The library fetched the document from idp_domain (with "/v2.0" for microsoft); a
        // document whose issuer names another place was not written for that address.
        bool microsoft = entry.provider == "microsoft";
        std::string expected = entry.idpDomain + (microsoft ? "/v2.0" : "");
        if (!entry.issuer.empty() && entry.issuer != expected) {
            warnings.push_back("the discovered issuer '" + entry.issuer + "' is not '" + expected +
                               "', the idp_domain" + (microsoft ? " with \"/v2.0\"" : "") +
                               " it was fetched from: the document may describe another "
                               "provider");
        }
    }
    if (!entry.refresh && revokesWithEmptyAnswer(entry.provider)) {
        warnings.push_back(
            "every login fails: with qx_refresh off the library revokes the refresh token, and " +
            entry.provider +
            " answers a successful revocation with an empty 200, which the library counts as a "
            "failed revocation; set \"qx_refresh\": true");
    }
    if (entry.provider == "google" && entry.promptType != "consent") {
        warnings.push_back(
            "logins fail after a user's first: google sends a refresh token only when the user "
            "consents, and the library fails every login whose answer has none; set "
            "\"qx_prompt_type\": \"consent\"");
    }
    if (entry.provider == "microsoft" && !entry.userName.empty() &&
        !microsoftUserinfoClaim(entry.userName)) {
        warnings.push_back(
            "every login fails: microsoft's userinfo answer holds only sub, the "
            "name claims and email, never '" +
            entry.userName +
            "', and qx_user_name admits no other claim; set \"qx_user_name\": "
            "\"email\" or leave it out");
    }
    return warnings;
}
