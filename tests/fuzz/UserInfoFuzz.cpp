// A userinfo document. The first byte picks the provider keyword, the user type, whether a
// "qx_user_name" member is named, and the road: the shared reader alone, the completion of a
// login or a refresh (the token, session and stored refresh record of the configuration), or a
// node's completion.
#include "server/SsoServer.h"
#include "server/SsoServerResponses.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size) {
    if (!FuzzSupport::defaultServer()) {
        __builtin_trap();
    }
    if (size == 0) {
        return 0;
    }
    static char const *const providers[] = {"okta", "microsoft", "google", "keycloak", "other"};
    uint8_t choice = data[0];
    std::string provider = providers[choice % 5];
    std::string userType = (choice / 5) % 2 == 0 ? "local" : "domain";
    std::string userName = (choice / 10) % 2 == 0 ? std::string() : "sub";
    std::string response(reinterpret_cast<char const *>(data + 1), size - 1);
    SsoServer &server = SsoServer::getServer();
    switch ((choice / 20) % 4) {
        case 0:
            readUserInfoResponse(response, provider, userName, userType);
            break;
        case 1:
            // The login's completion reads the document with the record's own settings; the
            // refresh token it gives back to the provider fails at once (no blocking road).
            delete[] server.completeAsyncLoginFlow(response, "access", "refresh", 0, std::string());
            break;
        case 2:
            delete[] server.completeAsyncLoginFlow(response, "access", "refresh", 0, "old");
            break;
        default:
            delete[] server.completeAsyncNodeFlow(response, "fuzzsession", provider, userName,
                                                  userType);
            break;
    }
    server.refreshInfoBySession.clear();
    return 0;
}
