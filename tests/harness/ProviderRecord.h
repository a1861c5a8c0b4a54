#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class SsoServer;
class SsoServerConfigOAuth;

// Builds the OAuth provider records that tests hand an SsoServer directly, instead of reading a
// configuration file: each setter notes one field, and addTo() makes the record. The record is
// made only there, so that its constructor's statement falls where the test adds it.
//
//     ProviderRecord("keycloak").client("cid", "secret").tokenAt(idp.url("/token")).addTo(server);
class ProviderRecord {
public:
    // A record of `provider` ("keycloak", "okta", ...) with every other field at its default.
    explicit ProviderRecord(std::string const &provider);

    ProviderRecord &client(std::string const &id, std::string const &secret = "");
    ProviderRecord &domain(std::string const &idpDomain);
    ProviderRecord &authAt(std::string const &url);
    ProviderRecord &tokenAt(std::string const &url);
    ProviderRecord &userinfoAt(std::string const &url);
    ProviderRecord &revokeAt(std::string const &url);
    ProviderRecord &redirects(std::vector<std::string> const &uris);
    // User type "local": the user name is taken from the userinfo document.
    ProviderRecord &localUsers();
    // The refresh flow on or off, and how long a refresh record lives (seconds).
    ProviderRecord &refresh(bool on, int64_t lifetime = 0);
    // Any other change to the record, applied after the ones above.
    ProviderRecord &with(std::function<void(SsoServerConfigOAuth &)> change);

    // Makes the record, numbers it after the records `server` holds and appends it to
    // `server.configs`, which owns it. The returned pointer lives as long as that entry.
    SsoServerConfigOAuth *addTo(SsoServer &server) const;

    // The changes in the order given; addTo() applies them to a new record.
    std::vector<std::function<void(SsoServerConfigOAuth &)>> changes;
};
