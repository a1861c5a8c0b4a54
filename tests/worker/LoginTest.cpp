// A user logs in through the channel as a host does it, against the local provider.
#include "server/SsoServer.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <gtest/gtest.h>

namespace {

class LoginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(LocalProvider::shared().ready()) << LocalProvider::shared().error;
    }
    void TearDown() override {
        host.stop();
        LocalProvider::shared().setRevocationBody(false);
        TestMachine::reset();
    }

    void startServer(std::vector<LoginDriver::Entry> const &entries) {
        TestMachine::server(LoginDriver::file(entries));
        ASSERT_EQ(host.start(), 0);
        host.send("SSO_LOAD_CONFIGS\n");
        ASSERT_EQ(host.readLine(60000), "SSO_LOAD_CONFIGS_OK\n");
    }

    WorkerHost host;
    LogCapture log;
};

TEST_F(LoginTest, RefreshOnGivesARandomSessionAndARecord) {
    startServer({LoginDriver::Entry()});
    std::string session = LoginDriver::newSession();
    auto authorization = LoginDriver::authorize(host, 0, session);
    ASSERT_TRUE(authorization.ok) << authorization.error;
    host.send("SSO_VERIFY|" + authorization.code + "|" + session + "\n");
    std::string reply = host.readLine(10000);
    ASSERT_EQ(reply.compare(0, 20, "SSO_VERIFY_OK|alice|"), 0) << reply;
    EXPECT_EQ(host.readFor(300), "");
}

}  // namespace
