// SsoServer, login start: the login options for the host, the PKCE challenge, and the client
// and node configurations that a login and a node verification start from.

#include "platform/Log.h"
#include "platform/Strings.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoUtils.h"

#include <cstring>

namespace {

constexpr size_t kSessionLength = 32;
constexpr uint32_t kVerifierLength = 48;

char *failed(char const *message) {
    Log() << "SsoServer: ERROR! " << message << ".\n";
    return nullptr;
}

}  // namespace

char *SsoServer::getLoginOptions() const {
    std::string options;
    {
        std::lock_guard<std::mutex> lock(loginOptionsMutex);
        options = loginOptions;
    }
    Log() << "SsoServer: Get login options. String is: '" << options << "'\n";
    if (options.empty()) {
        return failed("Login options is empty");
    }
    char *copy = nullptr;
    if (StringInit(copy, options.c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    return copy;
}

std::string SsoServer::getCodeChallenge(std::string const &verifier) {
    Log() << "SsoServer: Getting code challange based on code verifier.\n";
    std::string challenge = getHashBase64Url(verifier.c_str());
    if (challenge.empty()) {
        Log() << "SsoServer: ERROR! Code challange is empty.\n";
    }
    return challenge;
}

char *SsoServer::getClientConfig(uint32_t configId, char const *session, char const *clusterIp) {
    Log() << "SsoServer: Get client config for config ID: " << configId << ", user session: '"
          << session << "' and clusterIp (optional): '" << clusterIp << "'.\n";
    if (configId >= configs.size()) {
        return failed("Config ID is invalid");
    }
    if (session == nullptr || std::strlen(session) < kSessionLength) {
        return failed("User session is invalid");
    }
    Log() << "SsoServer: Generating code verifier.\n";
    std::string verifier = getRandomAsciiString(kVerifierLength);
    if (verifier.empty()) {
        return failed("Generating code verifier failed");
    }
    Log() << "SsoServer: Generating code challange.\n";
    std::string challenge = getCodeChallenge(verifier);
    if (challenge.empty()) {
        return failed("Generating code challange failed");
    }
    // Indexed as it stands: an ID behind a "SAML" entry selects a later record.
    auto *config = static_cast<SsoServerConfigOAuth *>(configs[configId]);
    Log() << "SsoServer: Preparing client configuration.\n";
    uint32_t index = config->getClientRedirectIndex(clusterIp);
    Log() << "SsoServer: Selected " << index << " redirect uri from configuration ID " << configId
          << " for client configuration.\n";
    if (index >= config->redirectUris.size() || config->redirectUris[index].empty()) {
        return failed("Redirect uri is empty");
    }
    std::string const &redirectUri = config->redirectUris[index];
    Log() << "SsoServer: Redirect uri for client configuration is:'" << redirectUri << "'.\n";
    std::string client = config->getClientConfigAsJson(index);
    if (client.empty()) {
        return failed("Preparing client failed");
    }
    Log() << "SsoServer: Finalizing client configuration.\n";
    std::string composed = client + "|" + challenge + "|" + session;
    char *copy = nullptr;
    if (StringInit(copy, composed.c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    Log() << "SsoServer: Saving information for later verification process.\n";
    // Insert only: a repeated request keeps the first verifier, so only the first login of a
    // session can complete.
    authzInfoBySession.emplace(session, OAuthAuthzInfo{configId, verifier, redirectUri});
    return copy;
}

char *SsoServer::getNodeConfig(std::string const &session) {
    Log() << "SsoServer: Get configuration for node based on user session: '" << session << "'.\n";
    if (session.empty()) {
        return failed("User session is empty");
    }
    auto found = refreshInfoBySession.find(session);
    if (found == refreshInfoBySession.end()) {
        return failed("Refresh information not found");
    }
    Log() << "SsoServer: Refresh information found.\n";
    OAuthRefreshInfo const &info = found->second;
    if (!validateOAuthRefreshInfo(info)) {
        return failed("Refresh information validation failed");
    }
    Log() << "SsoServer: Getting node config.\n";
    auto const *config = static_cast<SsoServerConfigOAuth const *>(configs[info.configId]);
    std::string node = config->getNodeConfigJson(info.accessToken);
    if (node.empty()) {
        return failed("Node configuration is empty");
    }
    Log() << "SsoServer: Finalizing node configuration.\n";
    node += "|" + session;
    char *copy = nullptr;
    if (StringInit(copy, node.c_str()) == nullptr) {
        return failed("Memory allocation failed");
    }
    return copy;
}
