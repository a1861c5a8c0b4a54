#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"

#include "platform/Clock.h"
#include <vector>

bool SsoServer::cleanTokens() {
    Log() << "SsoServer: Clearing up old tokens.\n";
    int64_t now = ClockSeconds();
    // A null slot is left out of the list without a hole, so later records then measure
    // against their neighbour's limit; records are looked up by configId all the same.
    std::vector<SsoServerConfigOAuth *> listed;
    for (SsoServerConfig *config : configs) {
        if (config == nullptr) {
            Log() << "SsoServer: Failed to get config and clear tokens!.\n";
            continue;
        }
        listed.push_back(static_cast<SsoServerConfigOAuth *>(config));
    }
    for (auto entry = refreshInfoBySession.begin(); entry != refreshInfoBySession.end();) {
        OAuthRefreshInfo const &info = entry->second;
        if (info.configId >= listed.size()) {
            Log() << "SsoServer: ERROR! Invalid config ID in refresh info. Removing entry.\n";
            entry = refreshInfoBySession.erase(entry);
            continue;
        }
        int64_t lifetime = listed[info.configId]->refreshLifetime;
        int64_t limit = lifetime == 0 ? 3600 : lifetime;
        int64_t age = now - info.savedAt;
        if (limit < age) {
            Log() << "SsoServer: Removing expired refresh token for session: '" << entry->first
                  << "'"
                  << " (age: " << age << "s, limit: " << limit << "s)"
                  << ".\n";
            entry = refreshInfoBySession.erase(entry);
            continue;
        }
        ++entry;
    }
    Log() << "SsoServer: Token cleanup complete. Remaining tokens: " << refreshInfoBySession.size()
          << ".\n";
    return true;
}
