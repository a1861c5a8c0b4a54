#pragma once

#include "server/SsoServerConfig.h"

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

// One validated OAuth entry of the configuration file, completed with the provider's endpoints.
// Created by SsoServer::loadConfigsJson, destroyed by SsoServer::clearConfigs; written during
// the load and only read afterwards (worker thread). Fields are public: other classes read them.
class SsoServerConfigOAuth : public SsoServerConfig {
public:
    SsoServerConfigOAuth();
    ~SsoServerConfigOAuth() override;
    SsoServerConfigOAuth(SsoServerConfigOAuth const &) = delete;
    SsoServerConfigOAuth &operator=(SsoServerConfigOAuth const &) = delete;

    // Fills the fields from a whole configuration entry. A failed check logs and leaves the
    // record as it was.
    void setConfigData(Json::Value const &entry);
    // Takes the endpoints from a discovery document: 0, or -1 when a required one is missing.
    int32_t setMetadata(std::string const &response) override;
    int32_t getLoginType() const override { return kLoginTypeOAuth; }
    // Index of the first redirect URI that holds `clusterIp` behind its first 7 bytes; 0 when
    // none does or `clusterIp` is null.
    uint32_t getClientRedirectIndex(char const *clusterIp) const;
    // The client configuration JSON for the redirect URI at `index` (not range-checked), or "".
    std::string getClientConfigAsJson(uint32_t index) const;
    // The node configuration JSON carrying `accessToken`, or "".
    std::string getNodeConfigJson(std::string const &accessToken) const;
    // The "Authorization: Basic" header line over the raw client id and secret, with which
    // the refresh grant and the revocation authenticate on both roads.
    std::string basicAuthorization() const;

    std::string idpDomain;
    std::string clientId;
    std::string clientSecret;
    std::vector<std::string> redirectUris;
    std::string authUri;
    std::string tokenUri;
    std::string userinfoUri;
    std::string revokeUri;
    std::string issuer;
    std::string provider;
    std::string userType;
    std::string userName;
    std::string promptType;
    std::string proxy;
    bool refresh = false;
    int64_t refreshLifetime = 0;
};
