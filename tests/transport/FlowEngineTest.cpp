// The flow engine driven turn by turn, with real transfers against loopback servers, and a
// worker stopped and started again while a flow still waits on the network.
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/LoginChannel.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "transport/CurlRequest.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// A node configuration as the node verify flow reads it.
std::string nodeConfig(std::string const &userinfoUri) {
    return "{\"access_token\":\"t\",\"userinfo_uri\":\"" + userinfoUri + "\"}";
}

// The statements of one layer, in order.
Lines layer(LogCapture const &log, std::string const &prefix = "CurlRequest: ") {
    Lines kept;
    for (auto const &line : log.lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            kept.push_back(line);
        }
    }
    return kept;
}

// Answers the first connection with fixed bytes, whatever was asked, and closes it: for
// answers that FailureServer does not write, such as a body shorter than announced.
class RawServer {
public:
    explicit RawServer(std::string answer) : answer_(std::move(answer)) {
        listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listenFd_ < 0 ||
            bind(listenFd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listenFd_, 4) != 0 ||
            getsockname(listenFd_, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            return;
        }
        port = ntohs(address.sin_port);
        thread_ = std::thread([this] { serveOne(); });
    }
    ~RawServer() {
        if (listenFd_ >= 0) {
            shutdown(listenFd_, SHUT_RDWR);
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        if (listenFd_ >= 0) {
            close(listenFd_);
        }
    }
    RawServer(RawServer const &) = delete;
    RawServer &operator=(RawServer const &) = delete;

    std::string url(std::string const &path) const {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }

    int port = 0;

private:
    void serveOne() {
        int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        std::string received;
        char buffer[4096];
        while (received.find("\r\n\r\n") == std::string::npos) {
            ssize_t got = recv(fd, buffer, sizeof buffer, 0);
            if (got <= 0) {
                break;
            }
            received.append(buffer, static_cast<size_t>(got));
        }
        ssize_t sent = ::send(fd, answer_.data(), answer_.size(), MSG_NOSIGNAL);
        (void)sent;
        close(fd);
    }

    std::string answer_;
    int listenFd_ = -1;
    std::thread thread_;
};

class FlowEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Built before any capture, so that its first use logs nothing into a test's lines.
        SsoServer::getServer();
        ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    }
    void TearDown() override { network.cleanUp(); }

    // One turn as the worker makes it, then a wait of at most 50 ms for libcurl's sockets.
    int32_t turn() {
        int32_t waiting = network.perform();
        if (waiting == 0 && network.multiHandle != nullptr) {
            curl_multi_poll(network.multiHandle, nullptr, 0, 50, nullptr);
        }
        return waiting;
    }
    // Turns until `count` results wait; the number of turns, or -1 after `limit` turns.
    int turnsUntilResults(size_t count = 1, int limit = 200) {
        for (int turns = 1; turns <= limit; ++turns) {
            if (static_cast<size_t>(turn()) >= count) {
                return turns;
            }
        }
        return -1;
    }
    // Turns until no transfer record is left; false after `limit` turns.
    bool turnsUntilNoRequests(int limit = 200) {
        for (int turns = 0; turns < limit; ++turns) {
            turn();
            if (network.requests.empty()) {
                return true;
            }
        }
        return false;
    }
    // Starts a node verify flow of `session` against `url` and runs it to its result.
    AsyncFlowResult runNodeFlow(std::string const &session, std::string const &url) {
        AsyncFlowResult result;
        EXPECT_TRUE(network.startNodeVerifyFlow(session, nodeConfig(url)));
        EXPECT_GT(turnsUntilResults(), 0);
        EXPECT_TRUE(network.getCompletedFlow(result));
        return result;
    }

    CurlRequest network;
};

TEST_F(FlowEngineTest, LastTransferEndsTheFlowAndLeavesOneResult) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    LogCapture log;
    ASSERT_TRUE(network.startNodeVerifyFlow("s-done", nodeConfig(server.url("/me"))));
    EXPECT_TRUE(network.hasActiveFlow("s-done"));
    EXPECT_EQ(network.activeFlows["s-done"].state, FlowStateUserInfo);
    // Queued only: the transfer starts at the next turn.
    EXPECT_TRUE(server.requests().empty());
    ASSERT_EQ(network.requests.size(), 1u);
    EXPECT_EQ(network.requests[0]->state, RequestQueued);
    int turns = turnsUntilResults();
    ASSERT_GT(turns, 1);
    EXPECT_FALSE(network.hasActiveFlow("s-done"));
    EXPECT_TRUE(network.requests.empty());
    EXPECT_TRUE(network.requestToSession.empty());
    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-done");
    EXPECT_EQ(result.flowType, FlowNodeVerify);
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.data, "a@b|s-done");
    EXPECT_EQ(result.errorMessage, "");
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_FALSE(network.getCompletedFlow(result));
    EXPECT_EQ(network.perform(), 0);
    EXPECT_FALSE(network.getCompletedFlow(result));

    EXPECT_EQ(layer(log),
              (Lines{"CurlRequest: Starting node verify flow for session 's-done'.\n",
                     "CurlRequest: Request queued with ID 1.\n",
                     "CurlRequest: No free handler creating dynamic handler for config 0.\n",
                     "CurlRequest: Created handler for config 0.\n",
                     "CurlRequest: Request 1 now in flight.\n",
                     "CurlRequest: Transfer completed, HTTP 200.\n",
                     "CurlRequest: Processing state 2 for flow type 3.\n",
                     "CurlRequest: State: 2.\n",
                     "CurlRequest: Node userinfo received processing with server operations.\n",
                     "CurlRequest: Node flow processed successfully.\n",
                     "CurlRequest: Flow completed for session 's-done'.\n",
                     "CurlRequest: Released handler.\n"}));
    EXPECT_TRUE(log.has("SsoServer: Async node flow completed. Result: 'a@b|s-done'.\n"));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_NE(requests[0].headers.find("\r\nAuthorization: Bearer t"), std::string::npos);
    // The handle went back to the pool and serves the next transfer.
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_FALSE(network.handlers[0]->inUse);
    EXPECT_TRUE(network.handlers[0]->isDynamic);
}

TEST_F(FlowEngineTest, OnlyTwoHundredsReachTheFlow) {
    struct Row {
        int status;
        bool reachesFlow;
    };
    FailureServer server;
    for (Row const &row : {Row{200, true}, Row{299, true}, Row{300, false}, Row{404, false}}) {
        SCOPED_TRACE(row.status);
        std::string session = "s-status-" + std::to_string(row.status);
        std::string path = "/me" + std::to_string(row.status);
        std::string body = "{\"email\":\"a@b\",\"status\":" + std::to_string(row.status) + "}";
        server.on(path, row.status, body);
        LogCapture log;
        AsyncFlowResult result = runNodeFlow(session, server.url(path));
        EXPECT_EQ(result.sessionId, session);
        EXPECT_EQ(result.flowType, FlowNodeVerify);
        EXPECT_FALSE(network.hasActiveFlow(session));
        EXPECT_TRUE(log.has("CurlRequest: Transfer completed, HTTP " +
                            std::to_string(row.status) + ".\n"));
        if (row.reachesFlow) {
            EXPECT_TRUE(result.success);
            EXPECT_EQ(result.data, "a@b|" + session);
            EXPECT_EQ(result.errorMessage, "");
            EXPECT_EQ(result.httpCode, 0);
            EXPECT_TRUE(log.has("CurlRequest: State: 2.\n"));
        } else {
            EXPECT_FALSE(result.success);
            EXPECT_EQ(result.data, "");
            EXPECT_EQ(result.errorMessage, "HTTP error: " + body);
            EXPECT_EQ(result.httpCode, row.status);
            EXPECT_TRUE(log.hasInOrder(
                {"CurlRequest: Processing state 2 for flow type 3.\n",
                 "CurlRequest: ERROR! HTTP error " + std::to_string(row.status) + " response: '" +
                     body + "'.\n",
                 "CurlRequest: ERROR! 'HTTP error: " + body + "' HTTP: " +
                     std::to_string(row.status) + ".\n"}));
            EXPECT_FALSE(log.has("CurlRequest: State: 2.\n"));
        }
    }
}

// libcurl reads a 1xx line as an interim answer and waits for the final one, so a status
// of 199 can't end a real transfer without a libcurl error (see
// LibcurlFailureWinsOverTheStatus); the engine's own bounds are checked here on the routing
// step itself.
TEST_F(FlowEngineTest, RoutingBoundsAreTwoHundredAndTwoNinetyNine) {
    struct Row {
        int status;
        bool reachesFlow;
    };
    for (Row const &row : {Row{199, false}, Row{200, true}, Row{299, true}, Row{300, false},
                           Row{404, false}}) {
        SCOPED_TRACE(row.status);
        std::string session = "s-bound-" + std::to_string(row.status);
        AsyncFlowContext context;
        context.sessionId = session;
        context.flowType = FlowNodeVerify;
        context.state = FlowStateUserInfo;
        network.activeFlows[session] = context;
        LogCapture log;
        network.processFlowState(network.activeFlows[session], "{\"email\":\"a@b\"}", row.status,
                                 CURLE_OK);
        EXPECT_FALSE(network.hasActiveFlow(session));
        AsyncFlowResult result;
        ASSERT_TRUE(network.getCompletedFlow(result));
        AsyncFlowResult extra;
        EXPECT_FALSE(network.getCompletedFlow(extra));
        EXPECT_EQ(result.success, row.reachesFlow);
        if (row.reachesFlow) {
            EXPECT_EQ(result.data, "a@b|" + session);
        } else {
            EXPECT_EQ(layer(log), (Lines{"CurlRequest: Processing state 2 for flow type 3.\n",
                                         "CurlRequest: ERROR! HTTP error " +
                                             std::to_string(row.status) +
                                             " response: '{\"email\":\"a@b\"}'.\n",
                                         "CurlRequest: ERROR! 'HTTP error: {\"email\":\"a@b\"}' "
                                         "HTTP: " +
                                             std::to_string(row.status) + ".\n"}));
            EXPECT_EQ(result.errorMessage, "HTTP error: {\"email\":\"a@b\"}");
            EXPECT_EQ(result.httpCode, row.status);
        }
    }
}

TEST_F(FlowEngineTest, LibcurlFailureWinsOverTheStatus) {
    struct Row {
        char const *name;
        std::string answer;
        int status;
    };
    // A 199 that no final answer follows, and a 200 whose body is shorter than announced:
    // libcurl reports an error in both, with the status it saw.
    for (Row const &row :
         {Row{"interim 199 only",
              "HTTP/1.1 199 Odd\r\nContent-Length: 15\r\nConnection: close\r\n\r\n"
              "{\"email\":\"a@b\"}",
              199},
          Row{"short 200",
              "HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\n"
              "{\"email\":\"a@b\"}",
              200}}) {
        SCOPED_TRACE(row.name);
        RawServer server(row.answer);
        ASSERT_NE(server.port, 0);
        std::string session = "s-raw-" + std::to_string(row.status);
        std::string id = std::to_string(network.nextRequestId);
        LogCapture log;
        AsyncFlowResult result = runNodeFlow(session, server.url("/me"));
        EXPECT_FALSE(result.success);
        ASSERT_EQ(result.errorMessage.compare(0, 12, "Curl error: "), 0) << result.errorMessage;
        std::string text = result.errorMessage.substr(12);
        EXPECT_EQ(result.httpCode, row.status);
        std::string status = std::to_string(row.status);
        EXPECT_EQ(layer(log),
                  (Lines{"CurlRequest: Starting node verify flow for session '" + session + "'.\n",
                         "CurlRequest: Request queued with ID " + id + ".\n",
                         "CurlRequest: No free handler creating dynamic handler for config 0.\n",
                         "CurlRequest: Created handler for config 0.\n",
                         "CurlRequest: Request " + id + " now in flight.\n",
                         "CurlRequest: Transfer completed, HTTP " + status + ".\n",
                         "CurlRequest: Processing state 2 for flow type 3.\n",
                         "CurlRequest: ERROR! Curl error: " + text + ".\n",
                         "CurlRequest: ERROR! 'Curl error: " + text + "' HTTP: " + status + ".\n",
                         "CurlRequest: Released handler.\n"}));
        if (row.status == 200) {
            EXPECT_EQ(text, curl_easy_strerror(CURLE_PARTIAL_FILE));
        }
        EXPECT_FALSE(network.hasActiveFlow(session));
        // Each row starts with an empty pool, so that both logs show the handle being made.
        log.clear();
        network.cleanupDynamicHandlers();
    }
}

TEST_F(FlowEngineTest, UntrustedTlsFailsTheFlowWithLibcurlsText) {
    FailureServer server(true);
    ASSERT_NE(server.port, 0);
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    LogCapture log;
    AsyncFlowResult result = runNodeFlow("s-tls", server.url("/me"));
    std::string text = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage, "Curl error: " + text);
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_TRUE(log.hasInOrder({"CurlRequest: Transfer completed, HTTP 0.\n",
                                "CurlRequest: ERROR! Curl error: " + text + ".\n",
                                "CurlRequest: ERROR! 'Curl error: " + text + "' HTTP: 0.\n"}));
    EXPECT_FALSE(log.contains("CurlRequest: ERROR! HTTP error "));
}

TEST_F(FlowEngineTest, ResetConnectionFailsTheFlowWithLibcurlsText) {
    FailureServer server;
    FailureServer::Reply reset;
    reset.mode = FailureServer::Mode::Reset;
    server.on("/me", reset);
    LogCapture log;
    AsyncFlowResult result = runNodeFlow("s-reset", server.url("/me"));
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage.compare(0, 12, "Curl error: "), 0) << result.errorMessage;
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_FALSE(log.contains("CurlRequest: ERROR! HTTP error "));
}

TEST_F(FlowEngineTest, CurlErrorIsCheckedBeforeATwoHundredStatus) {
    AsyncFlowContext context;
    context.sessionId = "s-first";
    context.flowType = FlowNodeVerify;
    context.state = FlowStateUserInfo;
    network.activeFlows["s-first"] = context;
    LogCapture log;
    network.processFlowState(network.activeFlows["s-first"], "{\"email\":\"a@b\"}", 200,
                             CURLE_RECV_ERROR);
    std::string text = curl_easy_strerror(CURLE_RECV_ERROR);
    EXPECT_EQ(layer(log), (Lines{"CurlRequest: Processing state 2 for flow type 3.\n",
                                 "CurlRequest: ERROR! Curl error: " + text + ".\n",
                                 "CurlRequest: ERROR! 'Curl error: " + text + "' HTTP: 200.\n"}));
    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.errorMessage, "Curl error: " + text);
    EXPECT_EQ(result.httpCode, 200);
    EXPECT_FALSE(network.hasActiveFlow("s-first"));
}

TEST_F(FlowEngineTest, UnknownFlowTypeFails) {
    AsyncFlowContext context;
    context.sessionId = "s-odd";
    context.flowType = 9;
    network.activeFlows["s-odd"] = context;
    LogCapture log;
    network.processFlowState(network.activeFlows["s-odd"], "{}", 200, CURLE_OK);
    EXPECT_EQ(layer(log), (Lines{"CurlRequest: Processing state 0 for flow type 9.\n",
                                 "CurlRequest: ERROR! Unknown flow type.\n",
                                 "CurlRequest: ERROR! 'Unknown flow type' HTTP: 0.\n"}));
    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-odd");
    EXPECT_EQ(result.flowType, 9);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage, "Unknown flow type");
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_FALSE(network.hasActiveFlow("s-odd"));
}

TEST_F(FlowEngineTest, EmptyBodyReachesTheFlowAsAnEmptyString) {
    FailureServer server;
    server.on("/me", 200, "");
    LogCapture log;
    AsyncFlowResult result = runNodeFlow("s-empty", server.url("/me"));
    // The node completion refuses an empty userinfo document, which it can only have seen
    // because the flow handed the empty body on.
    EXPECT_TRUE(log.hasInOrder({"CurlRequest: Transfer completed, HTTP 200.\n",
                                "CurlRequest: State: 2.\n",
                                "CurlRequest: Node userinfo received processing with server "
                                "operations.\n",
                                "SsoServer: Completing async node flow for session: 's-empty'.\n",
                                "SsoServer: ERROR! UserInfo is empty.\n",
                                "CurlRequest: ERROR! Failed to process node result.\n",
                                "CurlRequest: ERROR! 'Failed to process node result' HTTP: 0.\n"}));
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage, "Failed to process node result");
    EXPECT_EQ(result.httpCode, 0);
}

TEST_F(FlowEngineTest, SecondStartForARunningFlowChangesNothing) {
    FailureServer server;
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server.on("/hang", hang);
    std::string first = nodeConfig(server.url("/hang"));
    ASSERT_TRUE(network.startNodeVerifyFlow("s-busy", first));
    network.perform();
    ASSERT_EQ(network.requests.size(), 1u);
    ASSERT_EQ(network.requests[0]->state, RequestInFlight);
    int32_t nextId = network.nextRequestId;
    AsyncFlowContext before = network.activeFlows["s-busy"];

    LogCapture log;
    EXPECT_FALSE(network.startNodeVerifyFlow("s-busy", nodeConfig(server.url("/other"))));
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Session already has active flow.\n"}));
    EXPECT_TRUE(network.hasActiveFlow("s-busy"));
    AsyncFlowContext const &after = network.activeFlows["s-busy"];
    EXPECT_EQ(after.nodeConfig, first);
    EXPECT_EQ(after.state, before.state);
    EXPECT_EQ(after.currentRequestId, before.currentRequestId);
    EXPECT_EQ(network.nextRequestId, nextId);
    ASSERT_EQ(network.requests.size(), 1u);
    EXPECT_EQ(network.requests[0]->state, RequestInFlight);
    EXPECT_EQ(network.requestToSession.size(), 1u);
    EXPECT_TRUE(network.completedFlows.empty());
}

TEST_F(FlowEngineTest, TwoFlowsComeOutInTheOrderTheyEnded) {
    auto slow = std::make_unique<FailureServer>();
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    slow->on("/me", hang);
    FailureServer fast;
    fast.on("/me", 200, "{\"email\":\"fast@b\"}");

    // The first to start is the last to end: its server holds the answer back.
    ASSERT_TRUE(network.startNodeVerifyFlow("s-started-first", nodeConfig(slow->url("/me"))));
    ASSERT_TRUE(network.startNodeVerifyFlow("s-started-second", nodeConfig(fast.url("/me"))));
    ASSERT_GT(turnsUntilResults(1), 0);
    ASSERT_EQ(network.completedFlows.size(), 1u);
    EXPECT_EQ(network.completedFlows[0].sessionId, "s-started-second");
    ASSERT_TRUE(slow->waitForRequests(1));
    EXPECT_TRUE(network.hasActiveFlow("s-started-first"));
    slow.reset();  // closes the held connection: that flow ends now, with a libcurl error
    ASSERT_GT(turnsUntilResults(2), 0);

    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-started-second");
    EXPECT_TRUE(result.success);
    EXPECT_EQ(result.data, "fast@b|s-started-second");
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-started-first");
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.errorMessage.compare(0, 12, "Curl error: "), 0) << result.errorMessage;
    EXPECT_FALSE(network.getCompletedFlow(result));
}

TEST_F(FlowEngineTest, FinishedTransferWhoseFlowHasGoneLeavesNoResult) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    ASSERT_TRUE(network.startNodeVerifyFlow("s-gone", nodeConfig(server.url("/me"))));
    network.perform();
    ASSERT_EQ(network.requests.size(), 1u);
    ASSERT_EQ(network.requests[0]->state, RequestInFlight);
    int32_t requestId = network.requests[0]->requestId;
    network.activeFlows.erase("s-gone");
    ASSERT_EQ(network.requestToSession.count(requestId), 1u);

    LogCapture log;
    ASSERT_TRUE(turnsUntilNoRequests());
    EXPECT_EQ(layer(log), (Lines{"CurlRequest: Transfer completed, HTTP 200.\n",
                                 "CurlRequest: Released handler.\n"}));
    EXPECT_TRUE(network.requestToSession.empty());
    EXPECT_TRUE(network.completedFlows.empty());
    AsyncFlowResult result;
    EXPECT_FALSE(network.getCompletedFlow(result));
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_FALSE(network.handlers[0]->inUse);
    EXPECT_EQ(server.requests().size(), 1u);
    // The released handle was taken off the multi handle: it serves the next flow.
    LogCapture next;
    AsyncFlowResult again = runNodeFlow("s-after", server.url("/me"));
    EXPECT_TRUE(again.success);
    EXPECT_FALSE(next.has("CurlRequest: Created handler for config 0.\n"));
}

TEST_F(FlowEngineTest, ThirdFailureToGetAHandlerFailsTheFlowAndKeepsTheMapping) {
    FailureServer server;
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    ASSERT_TRUE(network.handlers.empty());
    network.failHandlerCreations = 3;
    ASSERT_TRUE(network.startNodeVerifyFlow("s-starved", nodeConfig(server.url("/me"))));
    ASSERT_EQ(network.requests.size(), 1u);
    int32_t requestId = network.requests[0]->requestId;
    Lines attempt{"CurlRequest: No free handler creating dynamic handler for config 0.\n",
                  "CurlRequest: ERROR! Failed to create handler.\n",
                  "CurlRequest: ERROR! Failed to acquire handler for config 0.\n"};
    for (int tried = 1; tried <= 2; ++tried) {
        SCOPED_TRACE(tried);
        LogCapture log;
        EXPECT_EQ(network.perform(), 0);
        EXPECT_EQ(log.lines(), attempt);
        ASSERT_EQ(network.requests.size(), 1u);
        EXPECT_EQ(network.requests[0]->state, RequestQueued);
        EXPECT_EQ(network.requests[0]->retryCount, tried);
        EXPECT_TRUE(network.hasActiveFlow("s-starved"));
    }
    LogCapture log;
    EXPECT_EQ(network.perform(), 1);
    Lines last = attempt;
    last.push_back("CurlRequest: ERROR! 'Failed to acquire handler' HTTP: 0.\n");
    EXPECT_EQ(log.lines(), last);
    EXPECT_EQ(network.failHandlerCreations, 0);
    EXPECT_TRUE(network.requests.empty());
    EXPECT_FALSE(network.hasActiveFlow("s-starved"));
    // Only a finished transfer erases its mapping; this one never ran.
    ASSERT_EQ(network.requestToSession.count(requestId), 1u);
    EXPECT_EQ(network.requestToSession[requestId], "s-starved");
    AsyncFlowResult result;
    ASSERT_TRUE(network.getCompletedFlow(result));
    EXPECT_EQ(result.sessionId, "s-starved");
    EXPECT_EQ(result.flowType, FlowNodeVerify);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.data, "");
    EXPECT_EQ(result.errorMessage, "Failed to acquire handler");
    EXPECT_EQ(result.httpCode, 0);
    EXPECT_FALSE(network.getCompletedFlow(result));
    EXPECT_TRUE(network.handlers.empty());
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(FlowEngineTest, ThirdSetterFailureDropsTheTransferAndLeavesTheFlowWaiting) {
    LogCapture log;
    ASSERT_TRUE(network.startNodeVerifyFlow("s-nourl", nodeConfig("")));
    ASSERT_EQ(network.requests.size(), 1u);
    int32_t requestId = network.requests[0]->requestId;
    Lines failed{"CurlRequest: ERROR! Failed to set URL.\n", "CurlRequest: Released handler.\n"};
    for (int tried = 1; tried <= 3; ++tried) {
        SCOPED_TRACE(tried);
        log.clear();
        EXPECT_EQ(network.perform(), 0);
        Lines expected;
        if (tried == 1) {
            expected = {"CurlRequest: No free handler creating dynamic handler for config 0.\n",
                        "CurlRequest: Created handler for config 0.\n"};
        }
        expected.insert(expected.end(), failed.begin(), failed.end());
        EXPECT_EQ(log.lines(), expected);
        EXPECT_EQ(network.requests.size(), tried < 3 ? 1u : 0u);
    }
    EXPECT_TRUE(network.hasActiveFlow("s-nourl"));
    EXPECT_TRUE(network.completedFlows.empty());
    EXPECT_EQ(network.requestToSession.count(requestId), 1u);
    ASSERT_EQ(network.handlers.size(), 1u);
    EXPECT_FALSE(network.handlers[0]->inUse);
    // Nothing is left to drive the flow, and the session can't start another one.
    log.clear();
    EXPECT_EQ(network.perform(), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(network.startNodeVerifyFlow("s-nourl", nodeConfig("http://127.0.0.1:1/me")));
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Session already has active flow.\n"}));
}

TEST(FlowEngineIdleTest, PerformBeforeInitReturnsZeroAndTouchesNothing) {
    CurlRequest network;
    LogCapture log;
    EXPECT_EQ(network.perform(), 0);
    EXPECT_FALSE(network.startNodeVerifyFlow("s-early", nodeConfig("http://127.0.0.1:1/me")));
    EXPECT_EQ(network.perform(), 0);
    EXPECT_EQ(log.lines(), (Lines{"CurlRequest: ERROR! Not initialized.\n"}));
    EXPECT_TRUE(network.requests.empty());
    EXPECT_TRUE(network.handlers.empty());
    EXPECT_TRUE(network.activeFlows.empty());
    EXPECT_TRUE(network.requestToSession.empty());
    EXPECT_EQ(network.nextRequestId, 1);
    EXPECT_EQ(network.multiHandle, nullptr);
}

TEST(FlowEngineIdleTest, PerformAfterCleanUpReturnsZero) {
    CurlRequest network;
    ASSERT_TRUE(network.init(CURL_GLOBAL_ALL));
    ASSERT_TRUE(network.startNodeVerifyFlow("s-cut", nodeConfig("http://127.0.0.1:1/me")));
    network.cleanUp();
    LogCapture log;
    EXPECT_EQ(network.perform(), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(network.requests.empty());
    EXPECT_FALSE(network.hasActiveFlow("s-cut"));
    // The identifier goes on counting across a clean-up.
    EXPECT_EQ(network.nextRequestId, 2);
}

class WorkerRestartTest : public ::testing::Test {
protected:
    void SetUp() override { TestMachine::node(); }
    void TearDown() override { TestMachine::reset(); }
};

TEST_F(WorkerRestartTest, StopWithAFlowInFlightThenANewWorkerServes) {
    FailureServer server;
    FailureServer::Reply hang;
    hang.mode = FailureServer::Mode::Hang;
    server.on("/hang", hang);
    server.on("/me", 200, "{\"email\":\"a@b\"}");
    LogCapture log;
    WorkerHost host;
    ASSERT_EQ(host.start(), 0);
    host.send("SSO_NODE_VERIFY|" + nodeConfig(server.url("/hang")) + "|s-held\n");
    ASSERT_TRUE(log.waitFor("CurlRequest: Starting node verify flow for session 's-held'.\n"));
    ASSERT_TRUE(log.waitForPiece(" now in flight.\n"));
    ASSERT_TRUE(server.waitForRequests(1));
    host.stop();
    // The held flow ends with the worker, without a reply: the old worker has ended, so the
    // first line after the restart is the new one's.
    EXPECT_TRUE(log.has("CurlRequest: Clean up.\n"));

    log.clear();
    ASSERT_EQ(host.start(), 0);
    EXPECT_TRUE(log.has("SsoActions: SsoRequest initialized successfully.\n"));
    host.send("SSO_LOAD_CONFIGS\n");
    EXPECT_EQ(host.readLine(), "SSO_LOAD_CONFIGS_OK\n");
    host.send("SSO_NODE_VERIFY|" + nodeConfig(server.url("/me")) + "|s-again\n");
    EXPECT_EQ(host.readLine(), "SSO_NODE_VERIFY_OK|a@b|s-again\n");
    EXPECT_EQ(host.strayReplies(log, LoginChannel::drained("s-again")), "");
    host.stop();
    EXPECT_EQ(server.requests().size(), 2u);
}

}  // namespace
