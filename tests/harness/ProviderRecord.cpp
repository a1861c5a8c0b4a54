// ProviderRecord: the builder of OAuth provider records that tests add to an SsoServer.
#include "tests/harness/ProviderRecord.h"

#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"

ProviderRecord::ProviderRecord(std::string const &provider) {
    with([provider](SsoServerConfigOAuth &record) { record.provider = provider; });
}

ProviderRecord &ProviderRecord::client(std::string const &id, std::string const &secret) {
    return with([id, secret](SsoServerConfigOAuth &record) {
        record.clientId = id;
        record.clientSecret = secret;
    });
}

ProviderRecord &ProviderRecord::domain(std::string const &idpDomain) {
    return with([idpDomain](SsoServerConfigOAuth &record) { record.idpDomain = idpDomain; });
}

ProviderRecord &ProviderRecord::authAt(std::string const &url) {
    return with([url](SsoServerConfigOAuth &record) { record.authUri = url; });
}

ProviderRecord &ProviderRecord::tokenAt(std::string const &url) {
    return with([url](SsoServerConfigOAuth &record) { record.tokenUri = url; });
}

ProviderRecord &ProviderRecord::userinfoAt(std::string const &url) {
    return with([url](SsoServerConfigOAuth &record) { record.userinfoUri = url; });
}

ProviderRecord &ProviderRecord::revokeAt(std::string const &url) {
    return with([url](SsoServerConfigOAuth &record) { record.revokeUri = url; });
}

ProviderRecord &ProviderRecord::redirects(std::vector<std::string> const &uris) {
    return with([uris](SsoServerConfigOAuth &record) { record.redirectUris = uris; });
}

ProviderRecord &ProviderRecord::localUsers() {
    return with([](SsoServerConfigOAuth &record) { record.userType = "local"; });
}

ProviderRecord &ProviderRecord::refresh(bool on, int64_t lifetime) {
    return with([on, lifetime](SsoServerConfigOAuth &record) {
        record.refresh = on;
        record.refreshLifetime = lifetime;
    });
}

ProviderRecord &ProviderRecord::with(std::function<void(SsoServerConfigOAuth &)> change) {
    changes.push_back(std::move(change));
    return *this;
}

SsoServerConfigOAuth *ProviderRecord::addTo(SsoServer &server) const {
    auto *record = new SsoServerConfigOAuth();
    record->configId = static_cast<int32_t>(server.configs.size());
    for (auto const &change : changes) {
        change(*record);
    }
    server.configs.push_back(record);
    return record;
}
