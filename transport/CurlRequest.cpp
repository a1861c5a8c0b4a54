// CurlRequest's life cycle: global libcurl set-up with the multi handle and its connection
// bounds, and the clean-up that ends every transfer, handle and flow at once.

#include "transport/CurlRequest.h"

#include "platform/Log.h"
#include "transport/CurlHandles.h"
#include "transport/CurlShare.h"

#include <unistd.h>

namespace {

// Connections of the flow engine. Per provider host: transfers over the bound wait in libcurl's
// own queue instead of each opening a descriptor, so a burst of logins far past the process's
// descriptor limit still succeeds. Flows have no timeout, and over HTTP/1.1 a request that the
// provider never answers keeps its connection for good: 64 leaves room for the other logins to
// a provider that hangs on dozens of requests, and keeps 3,200 requests a second moving to a
// provider 20 ms away; over HTTP/2 each connection carries up to 100 requests at once. In
// total: four providers at that bound. Idle: one provider's bound, so that after a burst the
// process keeps no more than that open.
constexpr long kConnectionsPerHost = 64;
constexpr long kConnectionsInTotal = 256;
constexpr long kIdleConnections = 64;

}  // namespace

CurlRequest &CurlRequest::getNetwork() {
    // Never destroyed, so that a host exiting without SsoDestroy does not tear the transfers
    // down under a worker that is still running; SsoDestroy cleans up explicitly.
    static CurlRequest &network = *new CurlRequest;
    return network;
}

CurlRequest::CurlRequest() : errorBuffer(newCurlErrorBuffer()) {}

CurlRequest::~CurlRequest() {
    cleanUp();
    delete[] errorBuffer;
}

bool CurlRequest::init(int flag) {
    if (initialized) {
        Log() << "CurlRequest: ERROR! Already initialized.\n";
        return false;
    }
    if (flag < CURL_GLOBAL_SSL || flag > CURL_GLOBAL_ALL) {
        Log() << "CurlRequest: ERROR! Invalid flag.\n";
        return false;
    }
    if (curl_global_init(flag) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Basic initialization failed.\n";
        return false;
    }
    multiHandle = curl_multi_init();
    if (multiHandle == nullptr) {
        Log() << "CurlRequest: ERROR! Multi sockets initialization failed.\n";
        curl_global_cleanup();
        return false;
    }
    watchSockets();
    curl_multi_setopt(multiHandle, CURLMOPT_MAX_HOST_CONNECTIONS, kConnectionsPerHost);
    curl_multi_setopt(multiHandle, CURLMOPT_MAX_TOTAL_CONNECTIONS, kConnectionsInTotal);
    curl_multi_setopt(multiHandle, CURLMOPT_MAXCONNECTS, kIdleConnections);
    // cleanUp frees the buffer, so a start after a stop needs a new one.
    if (errorBuffer == nullptr) {
        errorBuffer = newCurlErrorBuffer();
    }
    Log() << "CurlRequest: Success. Version: " << curl_version() << ".\n";
    initialized = true;
    return true;
}

void CurlRequest::freeRequest(curlRequest *request) {
    if (request->handle != nullptr) {
        if (multiHandle != nullptr) {
            curl_multi_remove_handle(multiHandle, request->handle);
        }
        request->handle = nullptr;
    }
    delete[] request->sessionId;
    delete[] request->url;
    delete request->headers;
    delete[] request->postData;
    delete[] request->proxy;
    curl_slist_free_all(request->headerList);
    delete request->response;
    delete request;
}

void CurlRequest::cleanUp() {
    if (!initialized) {
        return;
    }
    Log() << "CurlRequest: Clean up.\n";
    for (curlRequest *request : requests) {
        freeRequest(request);
    }
    requests.clear();
    for (curlHandler *handler : handlers) {
        if (handler->handle != nullptr) {
            curl_multi_remove_handle(multiHandle, handler->handle);
            curl_easy_cleanup(handler->handle);
        }
        delete handler;
    }
    handlers.clear();
    curl_multi_cleanup(multiHandle);
    multiHandle = nullptr;
    // After the multi handle, whose cleanup still takes sockets out of the set.
    if (socketSet >= 0) {
        close(socketSet);
        socketSet = -1;
    }
    timerDue = -1;
    CurlShare::getShare().close();
    curl_global_cleanup();
    delete[] errorBuffer;
    errorBuffer = nullptr;
    activeFlows.clear();
    completedFlows.clear();
    requestToSession.clear();
    initialized = false;
}
