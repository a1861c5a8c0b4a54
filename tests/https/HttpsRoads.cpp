#include "tests/https/HttpsRoads.h"

#include "platform/PlatformFakes.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LocalProxy.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestCa.h"
#include "tests/harness/TestMachine.h"
#include "worker/SsoChannel.h"

#include <chrono>
#include <thread>

void HttpsRoads::SetUp() {
    if (!TestCa::available()) {
        GTEST_SKIP() << TestCa::why();
    }
    auto &provider = LocalProvider::sharedHttps();
    ASSERT_TRUE(provider.ready()) << provider.error;
    ASSERT_TRUE(LocalProxy::shared().ready()) << LocalProxy::shared().error;
    // Fixed before any worker runs, so that expiries and record ages are exact.
    PlatformFakes::clock() = [] { return kNow; };
    hangs = std::make_unique<FailureServer>();
    hangs->on("/hang", FailureServer::Mode::Hang);
}

void HttpsRoads::TearDown() {
    host.stop();
    hangs.reset();
    if (TestCa::available()) {
        auto &provider = LocalProvider::sharedHttps();
        provider.hold(0);
        provider.release();
        provider.setRevocationBody(false);
    }
    TestMachine::reset();
}

LoginDriver::Entry HttpsRoads::providerEntry(bool refresh, bool viaProxy) {
    LoginDriver::Entry entry;
    entry.idp = LocalProvider::sharedHttps().baseUrl();
    entry.refresh = refresh;
    entry.lifetime = 600;
    if (viaProxy) {
        entry.proxy = LocalProxy::shared().url();
    }
    return entry;
}

std::string HttpsRoads::load(WorkerHost &on, std::vector<LoginDriver::Entry> const &entries) {
    return LoginChannel::startServer(on, entries);
}

std::string HttpsRoads::authorize(WorkerHost &on, int id, std::string const &session) {
    auto authorization =
        LoginDriver::authorize(on, id, session, "alice", &LocalProvider::sharedHttps());
    EXPECT_TRUE(authorization.ok) << authorization.error;
    return authorization.code;
}

std::string HttpsRoads::valueOf(std::string const &reply, std::string const &word,
                                std::string const &session, std::string const &user) {
    auto parts = SsoChannel::split(reply);
    if (parts.size() != 5 || parts[0] != word || parts[1] != user || parts[2].empty() ||
        parts[3].empty() || parts[4] != session + "\n") {
        return std::string();
    }
    return parts[2];
}

void HttpsRoads::holdSession(WorkerHost &on, std::string const &session) {
    size_t before = hangs->requests().size();
    on.send(
        "SSO_NODE_VERIFY|{\"access_token\":\"held\",\"provider\":\"keycloak\","
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        hangs->url("/hang") + "\"}|" + session + "\n");
    ASSERT_TRUE(log.waitFor("Sso: Started async node verify flow successfully for user session: '" +
                            session + "'.\n"));
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (hangs->requests().size() == before && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(hangs->requests().size(), before + 1);
}

void HttpsRoads::releaseSession(WorkerHost &on, std::string const &session) {
    hangs = std::make_unique<FailureServer>();
    hangs->on("/hang", FailureServer::Mode::Hang);
    EXPECT_EQ(on.readLine(10000), "SSO_NODE_VERIFY_FAILURE|" + session + "\n");
    EXPECT_EQ(on.strayReplies(log, LoginChannel::drained(session)), "");
}
