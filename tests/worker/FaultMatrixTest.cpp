// Every background login flow against every way a provider can fail it, through the channel:
// each command gets exactly one reply, its failure line, and the worker serves the next command.
// Discovery works (it is done at load time); the provider's token and userinfo endpoints are
// played by a second server that fails, refuses, resets, shows an untrusted certificate or dies.
#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/LoopbackSocket.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <tuple>

namespace {

constexpr int64_t kNow = 1750000000;

enum class Fault {
    Status400,
    Status500,
    NotJson,
    WrongTypes,
    EmptyBody,
    Reset,
    Refused,
    UntrustedTls,
    KilledMidFlow,
};

char const *nameOf(Fault fault) {
    switch (fault) {
        case Fault::Status400:
            return "Status400";
        case Fault::Status500:
            return "Status500";
        case Fault::NotJson:
            return "NotJson";
        case Fault::WrongTypes:
            return "WrongTypes";
        case Fault::EmptyBody:
            return "EmptyBody";
        case Fault::Reset:
            return "Reset";
        case Fault::Refused:
            return "Refused";
        case Fault::UntrustedTls:
            return "UntrustedTls";
        case Fault::KilledMidFlow:
            return "KilledMidFlow";
    }
    return "Unknown";
}

FailureServer::Reply replyFor(Fault fault) {
    FailureServer::Reply reply;
    switch (fault) {
        case Fault::Status400:
            reply.status = 400;
            reply.body = "{\"error\":\"invalid_grant\"}";
            break;
        case Fault::Status500:
            reply.status = 500;
            reply.body = "{\"error\":\"server_error\"}";
            break;
        case Fault::NotJson:
            reply.body = "<html>busy</html>";
            reply.contentType = "text/html";
            break;
        case Fault::WrongTypes:
            // Token members and userinfo claims, each of a type the library does not expect.
            reply.body =
                "{\"access_token\":42,\"id_token\":[\"x\"],\"refresh_token\":{\"a\":1},"
                "\"token_type\":7,\"email\":[\"bob@example.com\"],"
                "\"preferred_username\":{\"name\":\"bob\"},\"sub\":false}";
            break;
        case Fault::EmptyBody:
            break;
        case Fault::Reset:
            reply.mode = FailureServer::Mode::Reset;
            break;
        case Fault::KilledMidFlow:
            reply.mode = FailureServer::Mode::Hang;
            break;
        case Fault::Refused:
        case Fault::UntrustedTls:
            // Good answers: only the connection itself fails.
            reply.body = LoginChannel::tokens("at-1", "it-1", "rt-1");
            break;
    }
    return reply;
}

// The flow's cause of failure as the drain logs it: the whole statement where it does not
// depend on the command, else how it is framed ("<start>...<end>"); for a bad answer body, which
// each flow reads in its own step, only that it is neither a connection nor a status failure.
struct Cause {
    std::string start;
    std::string end;
};
Cause causeOf(Fault fault) {
    std::string const failed = "Sso: Async flow failed: '";
    switch (fault) {
        case Fault::Status400:
            return {failed + "HTTP error: {\"error\":\"invalid_grant\"}' HTTP: 400.\n", ""};
        case Fault::Status500:
            return {failed + "HTTP error: {\"error\":\"server_error\"}' HTTP: 500.\n", ""};
        case Fault::Refused:
            return {failed + "Curl error: " + curl_easy_strerror(CURLE_COULDNT_CONNECT) +
                        "' HTTP: 0.\n",
                    ""};
        case Fault::UntrustedTls:
            return {failed + "Curl error: " + curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION) +
                        "' HTTP: 0.\n",
                    ""};
        case Fault::Reset:
        case Fault::KilledMidFlow:
            return {failed + "Curl error: ", "' HTTP: 0.\n"};
        case Fault::NotJson:
        case Fault::WrongTypes:
        case Fault::EmptyBody:
            break;
    }
    return {failed, ".\n"};
}

// The command's name, and the piece of its "started" log line.
using Row = std::tuple<std::string, Fault>;

class FaultMatrixTest : public ::testing::TestWithParam<Row> {
protected:
    void SetUp() override {
        PlatformFakes::clock() = [] { return kNow; };
    }
    void TearDown() override {
        host.stop();
        endpoints.reset();
        if (held >= 0) {
            close(held);
        }
        // A refresh record a failed test may have left for a worker that never ran.
        SsoServer::getServer().clearConfigs();
        TestMachine::reset();
    }

    // The server that plays the token and userinfo endpoints; its base URL.
    std::string startEndpoints(Fault fault) {
        if (fault == Fault::Refused) {
            // A port bound and never listened on: every connection is refused, and no other
            // program can take the port while the test holds it.
            int port = 0;
            held = LoopbackSocket::open(-1, port);
            EXPECT_GE(held, 0) << "no port to refuse connections on";
            return "http://127.0.0.1:" + std::to_string(port);
        }
        endpoints = std::make_unique<FailureServer>(fault == Fault::UntrustedTls);
        endpoints->on("/token", replyFor(fault));
        endpoints->on("/me", replyFor(fault));
        return endpoints->url();
    }

    // Sends the command of the row for `session`; false when the road there broke.
    void sendCommand(std::string const &command, std::string const &base,
                     std::string const &session) {
        if (command == "SSO_NODE_VERIFY") {
            ASSERT_EQ(host.start(), 0);
            host.send("SSO_NODE_VERIFY|{\"provider\":\"keycloak\",\"userinfo_uri\":\"" + base +
                      "/me\",\"access_token\":\"at-1\",\"qx_user_type\":\"local\"}|" + session +
                      "\n");
            return;
        }
        LoginChannel::serveDiscovery(discovery, base);
        if (command == "SSO_REFRESH") {
            // The record a login leaves; the configuration it names is loaded below.
            SsoServer::getServer().refreshInfoBySession[session] =
                OAuthRefreshInfo{0, kNow, "rt-0", "at-0"};
        }
        ASSERT_EQ(LoginChannel::startServer(host, {LoginChannel::entryFor(discovery, "google")}),
                  "SSO_LOAD_CONFIGS_OK\n")
            << log.text();
        if (command == "SSO_VERIFY") {
            host.send("SSO_GET_CONFIG|0|" + session + "\n");
            std::string config = host.readLine();
            ASSERT_EQ(config.compare(0, 18, "SSO_GET_CONFIG_OK|"), 0) << config << log.text();
            host.send("SSO_VERIFY|code-1|" + session + "\n");
        } else {
            host.send("SSO_REFRESH|uuid-1|" + session + "\n");
        }
    }

    // Waits until the endpoint server holds a request, then stops it under the flow.
    void killEndpointsMidFlow() {
        ASSERT_TRUE(endpoints->waitForRequests(1)) << log.text();
        endpoints.reset();
    }

    LogCapture log;
    WorkerHost host;
    FailureServer discovery;
    std::unique_ptr<FailureServer> endpoints;
    int held = -1;
};

TEST_P(FaultMatrixTest, OneFailureLineAndTheWorkerServesTheNextCommand) {
    std::string const command = std::get<0>(GetParam());
    Fault const fault = std::get<1>(GetParam());
    std::string const session = LoginChannel::session("fault-matrix");
    std::string const base = startEndpoints(fault);
    sendCommand(command, base, session);
    if (HasFatalFailure()) {
        return;
    }
    std::string flow = command == "SSO_VERIFY"    ? "verify"
                       : command == "SSO_REFRESH" ? "refresh"
                                                  : "node verify";
    // The fault meets the background flow, not the blocking road.
    EXPECT_TRUE(log.waitFor("Sso: Started async " + flow +
                            " flow successfully for user session: '" + session + "'.\n"))
        << log.text();
    if (fault == Fault::KilledMidFlow) {
        killEndpointsMidFlow();
    }
    EXPECT_EQ(host.readLine(20000), command + "_FAILURE|" + session + "\n") << log.text();
    EXPECT_TRUE(log.has("Sso: Processing completed async flow for session: '" + session + "'.\n"))
        << log.text();
    Cause cause = causeOf(fault);
    if (cause.end.empty()) {
        EXPECT_TRUE(log.has(cause.start)) << log.text();
    } else {
        EXPECT_TRUE(log.hasFramed(cause.start, cause.end)) << log.text();
    }
    if (fault == Fault::NotJson || fault == Fault::WrongTypes || fault == Fault::EmptyBody) {
        EXPECT_FALSE(log.contains("Sso: Async flow failed: 'Curl error: ")) << log.text();
        EXPECT_FALSE(log.contains("Sso: Async flow failed: 'HTTP error: ")) << log.text();
    }
    // No second line, and the next command is answered.
    EXPECT_EQ(host.repliesBeforeFence(), "");
}

std::string rowName(::testing::TestParamInfo<Row> const &info) {
    std::string command = std::get<0>(info.param).substr(4);
    std::string name;
    for (char c : command) {
        if (c != '_') {
            name += c;
        }
    }
    return name + "_" + nameOf(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    EveryFlowAndFault, FaultMatrixTest,
    ::testing::Combine(::testing::Values("SSO_VERIFY", "SSO_REFRESH", "SSO_NODE_VERIFY"),
                       ::testing::Values(Fault::Status400, Fault::Status500, Fault::NotJson,
                                         Fault::WrongTypes, Fault::EmptyBody, Fault::Reset,
                                         Fault::Refused, Fault::UntrustedTls,
                                         Fault::KilledMidFlow)),
    rowName);

}  // namespace
