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
#include <vector>

// The process-wide transport: a pool of libcurl easy handles per provider configuration, the
// setters that prepare a handle for one transfer, and the blocking request used for discovery.
// Reached through getNetwork(); used by the worker thread, and by the host's thread only while
// no worker runs (initialize/destroy).
class CurlRequest {
public:
    // The singleton, built on first use, destroyed at exit.
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

    // Advances background transfers; worker thread, once per turn.
    void perform();
    // Moves the oldest finished flow into `result`; false when there is none.
    bool getCompletedFlow(AsyncFlowResult &result);

    bool initialized = false;
    char *errorBuffer = nullptr;
    CURLM *multiHandle = nullptr;
    std::vector<curlHandler *> handlers;
    std::vector<curlRequest *> requests;
    int32_t nextRequestId = 1;
    std::unordered_map<std::string, AsyncFlowContext> activeFlows;
    std::vector<AsyncFlowResult> completedFlows;
    std::unordered_map<int32_t, std::string> requestToSession;

private:
    void freeRequest(curlRequest *request);
};
