// CurlRequest's turn: starting queued transfers on pooled handles, taking finished ones off the
// multi handle and handing their answers to the flow steps, and freeing finished records. The
// socket loop is in CurlSocketLoop.cpp, the flow steps in CurlFlowSteps.cpp and the flows
// themselves in CurlVerifyFlow.cpp, CurlRefreshFlow.cpp and CurlNodeFlow.cpp.

#include "transport/CurlRequest.h"

#include "platform/Log.h"

#include <cstring>
#include <memory>

namespace {

// How many times a queued transfer may fail to start before it is dropped (or, for want of a
// handle, before its flow fails).
constexpr int32_t kStartAttempts = 3;

bool setFailed(char const *what) {
    Log() << "CurlRequest: ERROR! Failed to set " << what << ".\n";
    return false;
}

}  // namespace

int32_t CurlRequest::perform() {
    if (!initialized || multiHandle == nullptr) {
        return 0;
    }
    processRequests();
    driveTransfers();
    processCompletedTransfers();
    cleanupFinishedRequests();
    return static_cast<int32_t>(completedFlows.size());
}

bool CurlRequest::getCompletedFlow(AsyncFlowResult &result) {
    if (completedFlows.empty()) {
        return false;
    }
    result = std::move(completedFlows.front());
    completedFlows.erase(completedFlows.begin());
    return true;
}

bool CurlRequest::hasActiveFlow(std::string const &sessionId) const {
    return activeFlows.find(sessionId) != activeFlows.end();
}

AsyncFlowContext *CurlRequest::flowOfRequest(int32_t requestId) {
    auto session = requestToSession.find(requestId);
    if (session == requestToSession.end()) {
        return nullptr;
    }
    auto flow = activeFlows.find(session->second);
    return flow == activeFlows.end() ? nullptr : &flow->second;
}

bool CurlRequest::processRequests() {
    for (curlRequest *request : requests) {
        if (request->state == RequestQueued && !request->finished) {
            startTransfer(request);
        }
    }
    return true;
}

void CurlRequest::startTransfer(curlRequest *request) {
    void *handle = acquireHandler(request->configId);
    if (handle == nullptr) {
        noHandlerFor(request);
        return;
    }
    request->handle = handle;
    if (!setUpTransfer(request) || !addTransfer(request)) {
        startFailed(request);
        return;
    }
    request->state = RequestInFlight;
    Log() << "CurlRequest: Request " << request->requestId << " now in flight.\n";
}

void CurlRequest::noHandlerFor(curlRequest *request) {
    Log() << "CurlRequest: ERROR! Failed to acquire handler for config " << request->configId
          << ".\n";
    // The record stays queued, so the next turn tries again.
    if (++request->retryCount < kStartAttempts) {
        return;
    }
    request->finished = true;
    request->state = RequestFailed;
    if (AsyncFlowContext *flow = flowOfRequest(request->requestId)) {
        failFlow(*flow, "Failed to acquire handler", 0);
    }
}

bool CurlRequest::setUpTransfer(curlRequest *request) {
    void *handle = request->handle;
    if (!setOptions(handle, request->method)) {
        return setFailed("options");
    }
    if (!setUrl(handle, request->url)) {
        return setFailed("URL");
    }
    // A burst of transfers to a provider that speaks HTTP/2 waits for the connection being
    // made and shares it, instead of each opening its own. Over TLS only: there the handshake
    // tells at once whether a connection multiplexes; over plain HTTP only the first answer
    // would, and a first request that is never answered would hold every later transfer back.
    if (std::strncmp(request->url, "https://", std::strlen("https://")) == 0) {
        curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);
    }
    // A failed setHeaders leaves its list as it stands: null after a failed append, complete
    // when only setting it failed (the next attempt then appends the same lines again).
    if (request->headers != nullptr && !request->headers->empty() &&
        !setHeaders(handle, request->headers, request->headerList)) {
        return setFailed("headers");
    }
    if (request->method == HttpPost && request->postData != nullptr &&
        !setData(handle, request->postData)) {
        dropHeaderList(request);
        return setFailed("POST data");
    }
    if (request->proxy != nullptr && !setProxy(handle, request->proxy)) {
        dropHeaderList(request);
        return setFailed("proxy");
    }
    return true;
}

bool CurlRequest::addTransfer(curlRequest *request) {
    void *handle = request->handle;
    request->response = new std::string();
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &CurlRequest::writeToString);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, request->response);
    curl_easy_setopt(handle, CURLOPT_PRIVATE, request->response);
    CURLMcode added = curl_multi_add_handle(multiHandle, handle);
    if (added == CURLM_OK) {
        return true;
    }
    Log() << "CurlRequest: ERROR! curl_multi_add_handle failed: " << curl_multi_strerror(added)
          << ".\n";
    dropHeaderList(request);
    delete request->response;
    request->response = nullptr;
    return false;
}

void CurlRequest::dropHeaderList(curlRequest *request) {
    curl_slist_free_all(request->headerList);
    request->headerList = nullptr;
}

void CurlRequest::startFailed(curlRequest *request) {
    releaseHandler(request->handle);
    request->handle = nullptr;
    // A transfer whose options cannot be set is dropped after three tries without a result:
    // only the lack of a handle ends its flow.
    if (++request->retryCount >= kStartAttempts) {
        request->finished = true;
    }
}

void CurlRequest::processCompletedTransfers() {
    int waiting = 0;
    while (CURLMsg *message = curl_multi_info_read(multiHandle, &waiting)) {
        if (message->msg == CURLMSG_DONE) {
            finishTransfer(message->easy_handle, message->data.result);
        }
    }
}

void CurlRequest::finishTransfer(CURL *handle, CURLcode result) {
    char *privateData = nullptr;
    curl_easy_getinfo(handle, CURLINFO_PRIVATE, &privateData);
    std::unique_ptr<std::string> response(reinterpret_cast<std::string *>(privateData));
    long status = 0;
    if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) {
        status = 0;
    }
    Log() << "CurlRequest: Transfer completed, HTTP " << status << ".\n";

    curlRequest *request = nullptr;
    for (curlRequest *candidate : requests) {
        if (candidate->handle == handle) {
            request = candidate;
            break;
        }
    }
    if (request != nullptr) {
        // Only the buffer's owner here frees it now.
        request->response = nullptr;
        routeAnswer(request->requestId, response ? *response : std::string(),
                    static_cast<int32_t>(status), result);
        request->finished = true;
        request->state = RequestDone;
        dropHeaderList(request);
        request->handle = nullptr;
    }
    curl_multi_remove_handle(multiHandle, handle);
    releaseHandler(handle);
}

void CurlRequest::routeAnswer(int32_t requestId, std::string const &body, int32_t status,
                              CURLcode result) {
    if (AsyncFlowContext *flow = flowOfRequest(requestId)) {
        // The flow may queue its next transfer (which grows requests and requestToSession) or
        // end (which erases the flow): nothing found above is used after this call.
        std::string sessionId = requestToSession[requestId];
        try {
            processFlowState(*flow, body, status, result);
        } catch (...) {
            // A flow that threw still ends with a result, so its command gets its one reply.
            logFailure("Flow step");
            auto broken = activeFlows.find(sessionId);
            if (broken != activeFlows.end()) {
                failFlow(broken->second, "Flow step failed", 0);
            }
        }
    }
    // Also when the flow has gone: a finished transfer's mapping is not needed any more.
    requestToSession.erase(requestId);
}

void CurlRequest::cleanupFinishedRequests() {
    size_t kept = 0;
    for (curlRequest *request : requests) {
        if (request->finished) {
            freeRequest(request);
        } else {
            requests[kept++] = request;
        }
    }
    requests.resize(kept);
}
