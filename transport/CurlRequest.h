#pragma once

#include "transport/AsyncFlowContext.h"
#include "transport/AsyncFlowResult.h"
#include "transport/CurlHandler.h"
#include "transport/CurlTransfer.h"
#include "transport/HttpMethod.h"

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

struct OAuthAuthzInfo;
class SsoServerConfigOAuth;
enum class MemberText;

// Flow types and states of AsyncFlowContext.
enum flowType { FlowVerify = 1, FlowRefresh = 2, FlowNodeVerify = 3 };
enum flowState {
    FlowStateCreated = 0,
    FlowStateTokenExchange = 1,
    FlowStateUserInfo = 2,
    FlowStateRefresh = 3,
};

// The process-wide transport. Lower half: a pool of libcurl easy handles per provider
// configuration, the setters that prepare a handle for one transfer, and the blocking request
// used for discovery. Upper half: the flow engine, which runs the verify, refresh and node
// verify flows as non-blocking transfers on one multi handle, advanced once per worker turn.
// Reached through getNetwork(); used by the worker thread, and by the host's thread only while
// no worker runs (initialize/destroy).
class CurlRequest {
public:
    // The singleton, built on first use and never destroyed, so that a worker still running
    // when the host exits never has it torn down under it.
    static CurlRequest &getNetwork();

    CurlRequest();
    ~CurlRequest();
    CurlRequest(CurlRequest const &) = delete;
    CurlRequest &operator=(CurlRequest const &) = delete;

    // Global libcurl set-up with flag 1, 2 or 3 and the multi handle. Once; false on failure
    // or when already initialized.
    bool init(int flag);
    // Frees transfers, handles, the multi handle and the global state. No-op unless initialized.
    void cleanUp();

    // Appends one handle for `configId` to the pool. False if libcurl cannot make one.
    bool createHandler(int32_t configId, bool isDynamic);
    // Makes `count` static handles for `configId`. False at the first failure.
    bool setupHandlersForConfig(int32_t configId, int32_t count);
    // A free handle of `configId` marked in use, a new dynamic one if none is free, or null.
    void *acquireHandler(int32_t configId);
    // Marks the handle free and resets all its options. Unknown handles are ignored.
    void releaseHandler(void *handle);
    // Removes idle dynamic handles.
    void cleanupDynamicHandlers();

    // Base options and CA for one transfer. False on the first failing option.
    bool setOptions(void *handle, httpMethod method);
    bool setUrl(void *handle, char const *url);
    // Appends `headers` to `list` and sets them. False for an empty vector or a failed append.
    bool setHeaders(void *handle, std::vector<std::string> const *headers, curl_slist *&list);
    // Sets the form body by pointer; `data` must outlive the transfer.
    bool setData(void *handle, char const *data);
    bool setProxy(void *handle, char const *proxy);
    // CA bundle for the server's (CaTargetServer) or the proxy's (CaTargetProxy) TLS.
    CURLcode setupCAFile(void *handle, int32_t target);

    // One blocking request (30-second limit): the body whatever the HTTP status, or "" on any
    // failure. `data` and `proxy` may be null.
    std::string syncRequest(httpMethod method, char const *url,
                            std::vector<std::string> const &headers, char const *data,
                            char const *proxy);

    // libcurl write callback: appends to the std::string behind `user`.
    static size_t writeToString(void *bytes, size_t size, size_t count, void *user);

    // The flow engine (worker thread only).

    // One turn: starts queued transfers, lets libcurl move, routes finished transfers to their
    // flows and frees finished records. Returns how many results wait in completedFlows; 0
    // before init.
    int32_t perform();
    // The worker's wait: Io::wait on the two channel descriptors with the same result (0 when
    // neither is ready, bit 1 for `first`, bit 2 for `second`, negative on failure), which also
    // returns early when a transfer's socket is ready or libcurl's timer is due, and does not
    // sleep at all while a queued transfer waits to start. At most `ms` milliseconds.
    int waitForEvents(int first, int second, int ms);
    // Moves the oldest finished flow into `result`; false when there is none. One at a time,
    // each a shift of the vector: for callers that expect a few (tests, tools). The worker's
    // drain reads `completedFlows` in one pass instead.
    bool getCompletedFlow(AsyncFlowResult &result);
    // Whether a flow of `sessionId` is running. Changes nothing.
    bool hasActiveFlow(std::string const &sessionId) const;
    // Gives each queued transfer a pooled handle and adds it to the multi handle. Three
    // failures to get a handle fail the flow; three failures of a setter or of the multi
    // handle drop the transfer and leave the flow waiting. Always true.
    bool processRequests();
    // Takes every finished transfer off the multi handle, routes its answer to its flow and
    // gives the handle back to the pool.
    void processCompletedTransfers();
    // Frees the records of finished transfers, keeping the order of the others.
    void cleanupFinishedRequests();
    // Fails the flow on a libcurl error or a status outside 200-299, else advances it by type.
    void processFlowState(AsyncFlowContext &context, std::string const &response, int32_t httpCode,
                          CURLcode result);
    // End a flow with a result; both destroy `context` (it is erased from activeFlows).
    void failFlow(AsyncFlowContext &context, std::string const &message, int32_t httpCode);
    void completeFlow(AsyncFlowContext &context, std::string const &data);

    // "key=value" pairs joined by "&", in the given order; values percent-encoded, keys not.
    static std::string buildFormBody(std::vector<std::pair<std::string, std::string>> const &pairs);

    // Verify flow: code exchange, then userinfo, then the login's completion. False when the
    // flow cannot start (the caller then takes the blocking road).
    bool startVerifyFlow(std::string const &sessionId, std::string const &code,
                         OAuthAuthzInfo const &info);
    bool queueTokenExchangeRequest(AsyncFlowContext &context);
    bool queueUserInfoRequest(AsyncFlowContext &context);
    void advanceVerifyFlow(AsyncFlowContext &context, std::string const &response,
                           int32_t httpCode);

    // Refresh flow: refresh grant, then userinfo, then the completion under a new session.
    bool startRefreshFlow(std::string const &sessionId, std::string const &uuid,
                          std::string const &refreshToken, uint32_t configId);
    bool queueRefreshRequest(AsyncFlowContext &context);
    // Builds a revocation transfer with the context's refresh token. No flow state reaches it.
    bool queueRevokeRequest(AsyncFlowContext &context);
    void advanceRefreshFlow(AsyncFlowContext &context, std::string const &response,
                            int32_t httpCode);

    // Node verify flow: one userinfo request with the access token of a node configuration.
    bool startNodeVerifyFlow(std::string const &sessionId, std::string const &nodeConfig);
    bool queueNodeUserInfoRequest(AsyncFlowContext &context);
    void advanceNodeVerifyFlow(AsyncFlowContext &context, std::string const &response,
                               int32_t httpCode);

    bool initialized = false;
    char *errorBuffer = nullptr;
    CURLM *multiHandle = nullptr;
    std::vector<curlHandler *> handlers;
    std::vector<curlRequest *> requests;
    int32_t nextRequestId = 1;
    std::unordered_map<std::string, AsyncFlowContext> activeFlows;
    std::vector<AsyncFlowResult> completedFlows;
    std::unordered_map<int32_t, std::string> requestToSession;

    // The sockets of the transfers in flight, as libcurl names them, in an epoll set, and when
    // libcurl's timer is next due (steady clock, milliseconds; -1: not set). A turn hands
    // libcurl only the sockets that are ready, so its cost follows the traffic, not the number
    // of transfers in flight. -1 (no epoll set could be made): every turn runs every transfer.
    int socketSet = -1;
    int64_t timerDue = -1;
    // Sockets (with libcurl's CURL_POLL_* wish) whose callback failed; the next turn watches
    // them.
    std::vector<std::pair<curl_socket_t, int>> missedSockets;

    // Test seam at the pool boundary: the next this-many handle creations fail as if libcurl
    // could not make a handle. Production code never sets it.
    int32_t failHandlerCreations = 0;

private:
    void freeRequest(curlRequest *request);
    // Makes the epoll set and gives libcurl the callbacks that fill it (after curl_multi_init).
    void watchSockets();
    // Lets libcurl move: the ready sockets of the set and a due timer, or all transfers.
    void driveTransfers();
    // Whether a member read as `how` is of a wrong type (an object or an array where text is
    // read); logs "Field '<key>' has a value of a wrong type" then.
    static bool wrongType(MemberText how, char const *key);
    // wrongType, and then fails the flow with the same words and `httpCode`.
    bool failOnWrongType(AsyncFlowContext &context, MemberText how, char const *key,
                         int32_t httpCode);
    // Adds, changes or removes one socket of the set as libcurl wishes.
    void watchSocket(curl_socket_t socket, int what);
    static int onSocket(CURL *easy, curl_socket_t socket, int what, void *self, void *known);
    static int onTimer(CURLM *multi, long timeoutMs, void *self);
    // The start steps that all three flows share.
    bool startFlow(AsyncFlowContext context, char const *startLine,
                   bool (CurlRequest::*queue)(AsyncFlowContext &), char const *queueFailure,
                   int32_t waitingState);
    // The queueing steps that all transfers share. `postData` and `proxy` may be empty.
    void queueTransfer(AsyncFlowContext &context, int32_t configId, httpMethod method,
                       std::string const &url, std::vector<std::string> headers,
                       std::string const &postData, std::string const &proxy);
    // The provider record of a verify or refresh flow's configId; null (logged) when the id is
    // past the records or the slot is empty.
    static SsoServerConfigOAuth const *flowConfig(AsyncFlowContext const &context);
    // Gives back the handle of a transfer whose start failed, counting the attempt.
    void startFailed(curlRequest *request);
    // Gives a queued transfer a pooled handle, sets it up and adds it to the multi handle.
    void startTransfer(curlRequest *request);
    // Counts a start without a handle; the last attempt fails the transfer's flow.
    void noHandlerFor(curlRequest *request);
    // Applies the transfer's options, URL, headers, body and proxy to its handle; false
    // (logged) at the first that fails.
    bool setUpTransfer(curlRequest *request);
    // Gives the transfer its response buffer and puts it on the multi handle; false (logged)
    // when libcurl refuses it.
    bool addTransfer(curlRequest *request);
    // Frees the header list built for the transfer so far.
    static void dropHeaderList(curlRequest *request);
    // Takes one finished transfer off the multi handle and hands its answer to its flow.
    void finishTransfer(CURL *handle, CURLcode result);
    // Runs the flow step of a finished transfer's flow, if the flow still runs, and forgets
    // the transfer's session.
    void routeAnswer(int32_t requestId, std::string const &body, int32_t status, CURLcode result);
    // The running flow that queued transfer `requestId`, or null.
    AsyncFlowContext *flowOfRequest(int32_t requestId);
    // The proxy of the discovery request, whose failing options do not stop it; false
    // (logged) only when an HTTPS proxy's CA cannot be set.
    bool setLenientProxy(void *easy, char const *proxy);
    // The test seam of the engine's callbacks (see PlatformFakes::allocation).
    static void callbackHook(char const *where);
    // "CurlRequest: ERROR! <what> failed: '<message>'" for the exception being handled. Call
    // inside a catch block only.
    static void logFailure(char const *what);
};
