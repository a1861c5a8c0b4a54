// The host's thread asks for the login options while the worker reloads the configuration
// again and again, with options of two lengths in turn: every answer is one whole list, never a
// string caught while it was being replaced. (The thread sanitizer build sees any unlocked
// access; the address sanitizer build sees a read of a freed buffer.)
#include "tests/harness/DiscardedLog.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

TEST(LoginOptionsWhileReloadingTest, HostReadsOnlyWholeListsWhileTheWorkerReplacesThem) {
    DiscardedLog quiet;
    FailureServer idp;
    LoginChannel::serveDiscovery(idp);
    LoginDriver::Entry shortEntry = LoginChannel::entryFor(idp, "google");
    LoginDriver::Entry longEntry = shortEntry;
    longEntry.name = std::string(300, 'n');
    std::string const files[2] = {LoginDriver::file({shortEntry}),
                                  LoginDriver::file({longEntry, shortEntry})};

    WorkerHost host;
    std::string lists[2];
    for (int i = 0; i < 2; ++i) {
        TestMachine::server(files[i]);
        if (i == 0) {
            ASSERT_EQ(host.start(), 0);
        }
        host.send("SSO_LOAD_CONFIGS\n");
        ASSERT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
        char *options = SsoGetUserLoginOptions();
        ASSERT_NE(options, nullptr);
        lists[i] = options;
        SsoFreeString(options);
    }
    ASSERT_NE(lists[0], lists[1]);

    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            char *options = SsoGetUserLoginOptions();
            if (options != nullptr && options != lists[0] && options != lists[1]) {
                ++torn;
            }
            SsoFreeString(options);
            ++reads;
        }
    });
    // Each load appends its records to the earlier ones (and discovers them all again), so a few
    // dozen loads keep the test short.
    for (int load = 0; load < 40; ++load) {
        TestMachine::server(files[load % 2]);
        host.send("SSO_LOAD_CONFIGS\n");
        std::string reply = host.readLine();
        if (reply != "SSO_LOAD_CONFIGS_OK\n") {
            ADD_FAILURE() << "load " << load << ": " << reply;
            break;
        }
    }
    done = true;
    reader.join();
    host.stop();
    TestMachine::reset();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(reads, 40);
}

}  // namespace
