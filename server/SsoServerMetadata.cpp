// SsoServer, discovery: fetching each provider's OpenID configuration document once the
// file is loaded.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/ConfigValues.h"
#include "support/OAuthKeys.h"
#include "transport/CurlRequest.h"

bool SsoServer::loadConfigsMetadata() {
    if (machineType == kMachineUnset) {
        Log() << "SsoServer: ERROR! Can't load metadata. Machine type is not set.\n";
        return false;
    }
    if (configs.empty()) {
        Log() << "SsoServer: ERROR! Can't load metadata. Config file hasn't been loaded.\n";
        return false;
    }
    Log() << "SsoServer: Loading metadata.\n";
    for (SsoServerConfig *config : configs) {
        if (config == nullptr || config->getLoginType() != SsoServerConfig::kLoginTypeOAuth) {
            continue;
        }
        if (!loadMetadata(static_cast<SsoServerConfigOAuth *>(config))) {
            Log() << "SsoServer: ERROR! Loading metadata for config with ID: " << config->configId
                  << " failed.\n";
            return false;
        }
    }
    Log() << "SsoServer: Loading metadata for all configs - complete.\n";
    return true;
}

bool SsoServer::loadMetadata(SsoServerConfigOAuth *config) {
    Log() << "SsoServer: Loading metadata for specified config.\n";
    std::string idpDomain = config->idpDomain;
    std::string provider = config->provider;
    std::string proxy = config->proxy;
    Log() << "SsoServer: Provider is: '" << provider << "' , IDP domain is: '" << idpDomain
          << "'.\n";
    if (idpDomain.empty() || provider.empty()) {
        Log() << "SsoServer: ERROR! URL or provider is empty.\n";
        return false;
    }
    // Plain concatenation: the administrator's "idp_domain" is used exactly as written.
    std::string url =
        idpDomain + (provider == ConfigValues::microsoft ? OAuthKeys::microsoftDiscoveryPath
                                                         : OAuthKeys::discoveryPath);
    Log() << "SsoServer: Metadata URL is: '" << url << "'.\n";
    std::string response = CurlRequest::getNetwork().syncRequest(
        HttpGet, url.c_str(), {}, nullptr, proxy.empty() ? nullptr : proxy.c_str());
    if (response.empty()) {
        Log() << "SsoServer: ERROR! Metadata response is empty.\n";
        return false;
    }
    if (config->setMetadata(response) != 0) {
        Log() << "SsoServer: ERROR! Metadata response doesn't have all required data.\n";
        return false;
    }
    return true;
}
