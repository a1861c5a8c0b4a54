#include "tests/harness/HeldSession.h"

#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/WorkerHost.h"

#include <chrono>
#include <thread>

HeldSession::HeldSession() = default;
HeldSession::~HeldSession() = default;

bool HeldSession::hold(WorkerHost &host, LogCapture const &log, std::string const &session) {
    hangs_ = std::make_unique<FailureServer>();
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    hangs_->on("/hang", hang);
    host.send(
        "SSO_NODE_VERIFY|{\"access_token\":\"held\",\"provider\":\"keycloak\","
        "\"qx_user_type\":\"local\",\"userinfo_uri\":\"" +
        hangs_->url("/hang") + "\"}|" + session + "\n");
    if (!log.waitFor("Sso: Started async node verify flow successfully for user session: '" +
                     session + "'.\n")) {
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (hangs_->requests().empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return hangs_->requests().size() == 1;
}

void HeldSession::release() {
    hangs_.reset();
}
