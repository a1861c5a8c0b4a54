// A userinfo document. The first byte picks the provider keyword, the user type, whether a
// "qx_user_name" member is named, and the road: the shared reader alone, the completion of a
// login or a refresh (the token, session and stored refresh record of the configuration), or a
// node's completion. Whatever the road, a user that it gives back holds no control character:
// no line break to forge a reply, no NUL to cut a token.
#include "server/SsoServer.h"
#include "server/SsoServerResponses.h"
#include "tests/fuzz/FuzzSupport.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace {

void checkText(char const *text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20 || byte == 0x7F) {
            __builtin_trap();
        }
    }
}

// A token is a C string: a NUL inside the user would end it early, which shows as a token
// with fields missing (a user token has at least two "|").
void checkToken(char *token) {
    if (token == nullptr) {
        return;
    }
    size_t length = std::strlen(token);
    checkText(token, length);
    if (std::strchr(token, '|') == nullptr) {
        __builtin_trap();
    }
    delete[] token;
}

}  // namespace

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
        case 0: {
            std::string user = readUserInfoResponse(response, provider, userName, userType);
            checkText(user.data(), user.size());
            break;
        }
        case 1:
            // The login's completion reads the document with the record's own settings; the
            // refresh token it gives back to the provider fails at once (no blocking road).
            checkToken(
                server.completeAsyncLoginFlow(response, "access", "refresh", 0, std::string()));
            break;
        case 2:
            checkToken(server.completeAsyncLoginFlow(response, "access", "refresh", 0, "old"));
            break;
        default:
            checkToken(server.completeAsyncNodeFlow(response, "fuzzsession", provider, userName,
                                                    userType));
            break;
    }
    server.refreshInfoBySession.clear();
    return 0;
}
