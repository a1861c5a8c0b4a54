// What a finished transfer does to its flow: the last one ends it with one result, a status
// outside 200-299 or a libcurl failure fails it with the cause, and the flow's type decides
// its next step.
#include "tests/harness/FailureServer.h"
#include "tests/harness/LogCapture.h"
#include "tests/harness/RawServer.h"
#include "tests/transport/FlowEngineTest.h"
#include "transport/CurlRequest.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

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

    EXPECT_EQ(
        log.startingWith("CurlRequest: "),
        (Lines{"CurlRequest: Starting node verify flow for session 's-done'.\n",
               "CurlRequest: Request queued with ID 1.\n",
               "CurlRequest: No free handler creating dynamic handler for config 0.\n",
               "CurlRequest: Created handler for config 0.\n",
               "CurlRequest: Request 1 now in flight.\n",
               "CurlRequest: Transfer completed, HTTP 200.\n",
               "CurlRequest: Processing state 2 for flow type 3.\n", "CurlRequest: State: 2.\n",
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
        EXPECT_TRUE(
            log.has("CurlRequest: Transfer completed, HTTP " + std::to_string(row.status) + ".\n"));
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
            EXPECT_TRUE(
                log.hasInOrder({"CurlRequest: Processing state 2 for flow type 3.\n",
                                "CurlRequest: ERROR! HTTP error " + std::to_string(row.status) +
                                    " response: '" + body + "'.\n",
                                "CurlRequest: ERROR! 'HTTP error: " + body +
                                    "' HTTP: " + std::to_string(row.status) + ".\n"}));
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
    for (Row const &row :
         {Row{199, false}, Row{200, true}, Row{299, true}, Row{300, false}, Row{404, false}}) {
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
            EXPECT_EQ(log.startingWith("CurlRequest: "),
                      (Lines{"CurlRequest: Processing state 2 for flow type 3.\n",
                             "CurlRequest: ERROR! HTTP error " + std::to_string(row.status) +
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
    for (Row const &row : {Row{"interim 199 only",
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
        EXPECT_EQ(log.startingWith("CurlRequest: "),
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
    EXPECT_EQ(log.startingWith("CurlRequest: "),
              (Lines{"CurlRequest: Processing state 2 for flow type 3.\n",
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
    EXPECT_EQ(log.startingWith("CurlRequest: "),
              (Lines{"CurlRequest: Processing state 0 for flow type 9.\n",
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
    EXPECT_TRUE(
        log.hasInOrder({"CurlRequest: Transfer completed, HTTP 200.\n", "CurlRequest: State: 2.\n",
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

}  // namespace
