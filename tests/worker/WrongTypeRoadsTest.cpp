// Members of a wrong type (an object or an array where text is read) in token answers and node
// configurations, sent through both roads: the background road fails where it reads such a
// member, and the blocking road answers by its own rules, refusing what it reads and going on
// where it does not read the member at all. Numbers read as text on both, as before.
#include "platform/PlatformFakes.h"
#include "server/OAuthRefreshInfo.h"
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/HeldSession.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int64_t kNow = 1750000000;

std::string const userinfo = "{\"email\":\"ann@b.test\"}";

std::string backgroundLine(std::string const &field) {
    return "CurlRequest: ERROR! Field '" + field + "' has a value of a wrong type.\n";
}

std::string blockingNodeLine(std::string const &field) {
    return "SsoServer: ERROR! Field '" + field + "' has a value of a wrong type.\n";
}

std::string blockingTokenLine(std::string const &field) {
    return "SsoServer: ERROR! Exchange field '" + field + "' has a value of a wrong type.\n";
}

bool startsWith(std::string const &text, std::string const &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

class WrongTypeRoadsTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformFakes::clock() = [] { return kNow; };
    }
    void TearDown() override {
        host.stop();
        SsoServer::getServer().clearConfigs();
        TestMachine::reset();
    }

    // Keeps `session` busy, so that its next login command takes the blocking road.
    void hold(std::string const &session) { ASSERT_TRUE(held.hold(host, log, session)); }
    void release(std::string const &session) {
        held.release();
        EXPECT_EQ(host.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    }

    LogCapture log;
    WorkerHost host;
    HeldSession held;
};

struct TokenRow {
    char const *what;
    bool refresh;          // the refresh grant, else the code exchange
    std::string answer;    // of the token endpoint
    std::string field;     // the background road's wrong-typed field, "" when it goes on
    std::string blocking;  // the blocking road's line, "" when it goes on
};

TEST_F(WrongTypeRoadsTest, TokenAnswersOnBothRoads) {
    // clang-format off
    std::vector<TokenRow> const rows = {
        {"access token object", false,
         "{\"access_token\":{},\"id_token\":\"i\",\"refresh_token\":\"r\"}",
         "access_token", blockingTokenLine("access_token")},
        {"id token array", false,
         "{\"access_token\":\"a\",\"id_token\":[\"i\"],\"refresh_token\":\"r\"}",
         "id_token", blockingTokenLine("id_token")},
        {"refresh token object", false,
         "{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":{\"r\":1}}",
         "refresh_token", blockingTokenLine("refresh_token")},
        {"access token number", false,
         "{\"access_token\":42,\"id_token\":\"i\",\"refresh_token\":\"r\"}", "", ""},
        {"refresh: access token array", true,
         "{\"access_token\":[],\"id_token\":\"i\",\"refresh_token\":\"r\"}",
         "access_token", blockingTokenLine("access_token")},
        {"refresh: refresh token object", true,
         "{\"access_token\":\"a\",\"id_token\":\"i\",\"refresh_token\":{}}",
         "refresh_token", blockingTokenLine("refresh_token")},
        // The blocking refresh reads the id token, which the background refresh never reads.
        {"refresh: id token array", true,
         "{\"access_token\":\"a\",\"id_token\":[],\"refresh_token\":\"r\"}",
         "", blockingTokenLine("id_token")},
    };
    // clang-format on
    std::vector<std::unique_ptr<FailureServer>> providers;
    std::vector<LoginDriver::Entry> entries;
    for (size_t id = 0; id < rows.size(); ++id) {
        providers.push_back(std::make_unique<FailureServer>());
        LoginChannel::serveDiscovery(*providers.back());
        providers.back()->on("/token", 200, rows[id].answer);
        providers.back()->on("/me", 200, userinfo);
        entries.push_back(LoginChannel::entryFor(*providers.back(), "keycloak"));
        entries.back().name = "Scripted" + std::to_string(id);
        // The records that logins left, one for each road.
        if (rows[id].refresh) {
            for (char const *road : {"bg", "bl"}) {
                SsoServer::getServer().refreshInfoBySession[LoginChannel::session(
                    std::string(road) + "-value-" + std::to_string(id))] =
                    OAuthRefreshInfo{static_cast<uint32_t>(id), kNow, "rt-0", "at-0"};
            }
        }
    }
    ASSERT_EQ(LoginChannel::startServer(host, entries), "SSO_LOAD_CONFIGS_OK\n") << log.text();
    for (size_t id = 0; id < rows.size(); ++id) {
        TokenRow const &row = rows[id];
        SCOPED_TRACE(row.what);
        std::string const word = row.refresh ? "SSO_REFRESH_" : "SSO_VERIFY_";
        for (bool blocking : {false, true}) {
            std::string const session =
                LoginChannel::session(std::string(blocking ? "bl" : "bg") +
                                      (row.refresh ? "-value-" : "-session-") + std::to_string(id));
            if (!row.refresh) {
                host.send("SSO_GET_CONFIG|" + std::to_string(id) + "|" + session + "\n");
                ASSERT_TRUE(startsWith(host.readLine(), "SSO_GET_CONFIG_OK|"));
            }
            if (blocking) {
                hold(session);
            }
            log.clear();
            host.send((row.refresh ? "SSO_REFRESH|uuid-1|" : "SSO_VERIFY|code-1|") + session +
                      "\n");
            std::string reply = host.readLine(10000);
            std::string const expectedLine = blocking ? row.blocking : backgroundLine(row.field);
            bool const fails = blocking ? !row.blocking.empty() : !row.field.empty();
            if (fails) {
                EXPECT_EQ(reply, word + "FAILURE|" + session + "\n") << log.text();
                EXPECT_EQ(log.count(expectedLine), 1u) << log.text();
            } else {
                EXPECT_TRUE(startsWith(reply, word + "OK|ann|")) << reply << log.text();
                EXPECT_FALSE(log.contains("has a value of a wrong type")) << log.text();
            }
            if (!blocking && fails) {
                std::string const result = "Field '" + row.field + "' has a value of a wrong type";
                EXPECT_TRUE(log.hasInOrder({
                    expectedLine,
                    "CurlRequest: ERROR! '" + result + "' HTTP: 200.\n",
                    "Sso: Async flow failed: '" + result + "' HTTP: 200.\n",
                })) << log.text();
            }
            EXPECT_EQ(
                log.count("Sso: Executing sync " + std::string(row.refresh ? "refresh" : "verify") +
                          " login for user session: '" + session + "'.\n"),
                blocking ? 1u : 0u);
            if (blocking) {
                release(session);
            }
            EXPECT_EQ(host.repliesBeforeFence(), "");
        }
    }
}

struct NodeRow {
    char const *what;
    std::string members;   // the node configuration's members besides a good userinfo_uri
    std::string field;     // the background road's wrong-typed field, "" when it goes on
    std::string blocking;  // the blocking road's line, "" when it logs the user in
};

TEST_F(WrongTypeRoadsTest, NodeConfigurationsOnBothRoads) {
    FailureServer idp;
    idp.on("/me", 200, userinfo);
    std::string const good = "\"access_token\":\"at\",\"provider\":\"keycloak\"";
    // clang-format off
    std::vector<NodeRow> const rows = {
        {"user type array", good + ",\"qx_user_type\":[\"local\"]", "qx_user_type",
         blockingNodeLine("qx_user_type")},
        {"user name object", good + ",\"qx_user_name\":{},\"qx_user_type\":\"local\"",
         "qx_user_name", blockingNodeLine("qx_user_name")},
        {"provider array", "\"access_token\":\"at\",\"provider\":[],\"qx_user_type\":\"local\"",
         "provider", blockingNodeLine("provider")},
        {"access token object",
         "\"access_token\":{},\"provider\":\"keycloak\",\"qx_user_type\":\"local\"",
         "access_token", blockingNodeLine("access_token")},
        // The blocking road reads "qx_proxy", not "proxy": it goes on without a proxy.
        {"proxy object", good + ",\"proxy\":{\"p\":1},\"qx_user_type\":\"local\"", "proxy", ""},
        {"provider number", "\"access_token\":\"at\",\"provider\":7,\"qx_user_type\":\"local\"",
         "", ""},
    };
    // clang-format on
    TestMachine::node();
    ASSERT_EQ(host.start(), 0);
    int turn = 0;
    for (auto const &row : rows) {
        SCOPED_TRACE(row.what);
        std::string const session = "node-" + std::to_string(++turn);
        std::string const node =
            "{" + row.members + ",\"userinfo_uri\":\"" + idp.url("/me") + "\"}";
        log.clear();
        host.send("SSO_NODE_VERIFY|" + node + "|" + session + "\n");
        std::string const reply = host.readLine(10000);
        bool const fellBack = !row.field.empty();
        if (fellBack) {
            EXPECT_TRUE(log.hasInOrder({
                backgroundLine(row.field),
                "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
                "Sso: Executing sync node login for user session: '" + session + "'.\n",
            })) << log.text();
        } else {
            EXPECT_FALSE(log.contains("Falling back to sync path")) << log.text();
        }
        if (!row.blocking.empty()) {
            EXPECT_EQ(reply, "SSO_NODE_VERIFY_FAILURE|" + session + "\n") << log.text();
            EXPECT_TRUE(log.has(row.blocking)) << log.text();
            EXPECT_TRUE(log.has("Sso: ERROR! Sync node login also failed.\n"));
        } else {
            EXPECT_EQ(reply, "SSO_NODE_VERIFY_OK|ann|" + session + "\n") << log.text();
        }
        EXPECT_EQ(host.repliesBeforeFence(), "");
    }
}

}  // namespace
