// Arbitrary input from the host, the login data and the configuration file never harms the
// process: a deterministic stream of hostile inputs, replayed on every run.
#include "server/SsoServer.h"
#include "tests/harness/DiscardedLog.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string hostile(std::mt19937 &random, size_t length) {
    static char const pieces[] = "|\n\r{}[]\":,%0123456789SSO_GETCONFIGLOADNODEVERIFY \xff\x80";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += random() % 4 == 0 ? static_cast<char>(random() % 256)
                                  : pieces[random() % (sizeof pieces - 1)];
    }
    return text;
}

TEST(HostileInputTest, TheWorkerSurvivesAnyBytes) {
    DiscardedLog quiet;
    std::mt19937 random(20261123);
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    for (int round = 0; round < 300; ++round) {
        host.send(hostile(random, random() % 700));
    }
    // Ends whatever line the bytes left open; then the worker must still answer in order.
    host.send("\n");
    std::string replies = host.repliesBeforeFence(60000);
    EXPECT_EQ(replies.find("<no fence reply>"), std::string::npos);
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
}

TEST(HostileInputTest, LoginDataNeverCrashes) {
    DiscardedLog quiet;
    std::mt19937 random(7);
    for (int round = 0; round < 500; ++round) {
        std::string data = hostile(random, random() % 300);
        if (round % 3 == 0) {
            data = "OAuth%7C%7B%22provider%22%3A" + data + "%7C" + data + "%7Cs%7Cn%7Cc";
        }
        SsoFreeString(SsoLoginUrl(data.c_str()));
    }
}

TEST(HostileInputTest, ConfigurationFilesNeverCrash) {
    DiscardedLog quiet;
    std::string const valid =
        "[{\"name\":\"n\",\"desc\":\"d\",\"type\":\"OAuth\",\"provider\":\"okta\",\"config\":{"
        "\"idp_domain\":\"https://"
        "i\",\"client_id\":\"c\",\"client_secret\":\"s\",\"redirect_uris\":"
        "[\"https://"
        "r\"],\"qx_user_type\":\"local\",\"qx_refresh\":true,\"qx_refresh_lifetime\":5}}]";
    std::mt19937 random(11);
    int loaded = 0;
    int refused = 0;
    for (int round = 0; round < 300; ++round) {
        std::string file = valid;
        int edits = 1 + static_cast<int>(random() % 4);
        for (int edit = 0; edit < edits; ++edit) {
            size_t at = random() % file.size();
            std::string piece = hostile(random, random() % 6);
            if (random() % 2) {
                file.replace(at, 1 + random() % 5, piece);
            } else {
                file.insert(at, piece);
            }
        }
        TestMachine::server(file);
        SsoServer server;
        // Every round must reach the parser, or the test would prove nothing.
        ASSERT_TRUE(server.setConfigPath());
        ASSERT_TRUE(server.setMachineType());
        ASSERT_EQ(server.machineType, SsoServer::kMachineServer);
        (server.loadConfigsJson() ? loaded : refused) += 1;
    }
    // Both roads were taken: some edits keep the file valid, most break it.
    EXPECT_GT(loaded, 0);
    EXPECT_GT(refused, 0);
    // Back to the node this test found, without the last broken file.
    TestMachine::node();
}

}  // namespace
