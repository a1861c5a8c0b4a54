#pragma once

#include <cstdint>
#include <string>

// Base of the provider records that SsoServer holds. Only the OAuth record exists.
class SsoServerConfig {
public:
    virtual ~SsoServerConfig() = default;
    // Takes the provider's discovery document. 0 on success, -1 on failure.
    virtual int32_t setMetadata(std::string const &response) = 0;
    // kLoginTypeOAuth for OAuth.
    virtual int32_t getLoginType() const = 0;

    // The one login type; callers check it before they treat a record as SsoServerConfigOAuth.
    static constexpr int32_t kLoginTypeOAuth = 0;

    int32_t configId = -1;
};
