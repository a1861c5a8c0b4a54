// A user name never breaks a reply line or cuts a token short: the userinfo reader refuses a
// user that holds a control character, on every road alike, and keeps everything else.
#include "server/SsoServerResponses.h"
#include "tests/harness/LogCapture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string const refused = "SsoServer: ERROR! User name holds a control character.\n";

struct Row {
    char const *what;
    std::string claim;  // the JSON text of the "email" member
    std::string userType;
    std::string user;  // what the reader returns
};

TEST(UserNameCharactersTest, AControlCharacterAnywhereRefusesTheUser) {
    Row const rows[] = {
        {"forged second reply", "\"evil@b.test\\nSSO_VERIFY_OK|admin|x|1|other-session\"", "domain",
         ""},
        {"line feed at the end", "\"ann@b.test\\n\"", "domain", ""},
        {"carriage return", "\"ann\\r@b.test\"", "domain", ""},
        {"NUL", "\"a\\u0000b@b.test\"", "domain", ""},
        {"tab", "\"ann\\t@b.test\"", "domain", ""},
        {"unit separator", "\"ann\\u001f@b.test\"", "domain", ""},
        {"DEL", "\"ann\\u007f@b.test\"", "domain", ""},
        // Checked before the cut at "@": the part that the cut would drop counts too.
        {"after the at, local", "\"ann@b\\n.test\"", "local", ""},
        {"NUL after the at, local", "\"ann@b\\u0000\"", "local", ""},
    };
    for (auto const &row : rows) {
        LogCapture log;
        std::string response = "{\"email\":" + row.claim + "}";
        EXPECT_EQ(readUserInfoResponse(response, "keycloak", "", row.userType), row.user)
            << row.what;
        EXPECT_EQ(log.count(refused), 1u) << row.what << "\n" << log.text();
        // Steps after the check do not run.
        EXPECT_FALSE(log.contains("SsoServer: User from userinfo response: ")) << row.what;
        EXPECT_FALSE(log.contains("SsoServer: Final user is: ")) << row.what;
    }
}

TEST(UserNameCharactersTest, BarsAndBytesFromTheHighHalfStay) {
    Row const rows[] = {
        {"UTF-8", "\"zo\\u00eb@b.test\"", "domain", "zo\xc3\xab@b.test"},
        {"UTF-8 raw", "\"\xe6\x9d\x8e@b.test\"", "local", "\xe6\x9d\x8e"},
        {"bar", "\"a|b@b.test\"", "domain", "a|b@b.test"},
        {"blank and tilde", "\"a b~c\"", "domain", "a b~c"},
    };
    for (auto const &row : rows) {
        LogCapture log;
        std::string response = "{\"email\":" + row.claim + "}";
        EXPECT_EQ(readUserInfoResponse(response, "keycloak", "", row.userType), row.user)
            << row.what;
        EXPECT_FALSE(log.has(refused)) << row.what;
        EXPECT_TRUE(log.has("SsoServer: Final user is: '" + row.user + "'.\n")) << row.what;
    }
}

}  // namespace
