// CurlRequest, upper half: the flow engine. One turn of perform, starting queued transfers,
// routing finished ones to their flows, ending flows, and the steps that every flow shares to
// start and to queue a transfer. The flows themselves live in CurlVerifyFlow.cpp,
// CurlRefreshFlow.cpp and CurlNodeFlow.cpp.

#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "platform/Strings.h"
#include "platform/Url.h"
#include "support/SsoJson.h"
#include "transport/CurlRequest.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>

namespace {

constexpr int32_t kStartAttempts = 3;
constexpr int kReadyPerTurn = 1024;

// The test seam of the engine's callbacks (see PlatformFakes::allocation).
void callbackHook(char const *where) {
    auto const &hook = PlatformFakes::allocation();
    if (hook) {
        hook(where);
    }
}

// "CurlRequest: ERROR! <what> failed: '<message>'" for the exception being handled. Call
// inside a catch block only.
void logFailure(char const *what) {
    try {
        throw;
    } catch (std::exception const &error) {
        Log() << "CurlRequest: ERROR! " << what << " failed: '" << error.what() << "'.\n";
    } catch (...) {
        Log() << "CurlRequest: ERROR! " << what << " failed: 'unknown exception'.\n";
    }
}

int64_t steadyMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

char *copyText(std::string const &text) {
    char *copy = nullptr;
    return StringInit(copy, text.c_str());
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

int CurlRequest::waitForEvents(int first, int second, int ms) {
    if (!initialized || multiHandle == nullptr) {
        return Io::wait(first, second, ms);
    }
    int timeout = ms;
    for (curlRequest const *request : requests) {
        if (request->state == RequestQueued && !request->finished) {
            timeout = 0;
            break;
        }
    }
    if (socketSet >= 0) {
        // The set stands for every transfer's socket: three descriptors to poll, however many
        // transfers are in flight.
        if (timerDue >= 0) {
            timeout = static_cast<int>(
                std::min<int64_t>(timeout, std::max<int64_t>(0, timerDue - steadyMilliseconds())));
        }
        pollfd fds[3] = {{first, POLLIN, 0}, {second, POLLIN, 0}, {socketSet, POLLIN, 0}};
        if (poll(fds, 3, timeout) < 0 && errno != EINTR) {
            return Io::wait(first, second, timeout);
        }
        return Io::wait(first, second, 0);
    }
    curl_waitfd channel[2] = {{first, CURL_WAIT_POLLIN, 0}, {second, CURL_WAIT_POLLIN, 0}};
    int events = 0;
    if (curl_multi_poll(multiHandle, channel, 2, timeout, &events) != CURLM_OK) {
        return Io::wait(first, second, ms);
    }
    // libcurl reports only POLLIN for the channel; a hang-up or an error must read as ready
    // too, so the channel's own answer is taken from a poll that does not wait.
    return Io::wait(first, second, 0);
}

void CurlRequest::watchSockets() {
    socketSet = epoll_create1(EPOLL_CLOEXEC);
    timerDue = -1;
    if (socketSet < 0) {
        return;
    }
    curl_multi_setopt(multiHandle, CURLMOPT_SOCKETFUNCTION, &CurlRequest::onSocket);
    curl_multi_setopt(multiHandle, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multiHandle, CURLMOPT_TIMERFUNCTION, &CurlRequest::onTimer);
    curl_multi_setopt(multiHandle, CURLMOPT_TIMERDATA, this);
}

void CurlRequest::watchSocket(curl_socket_t socket, int what) {
    if (what == CURL_POLL_REMOVE) {
        epoll_ctl(socketSet, EPOLL_CTL_DEL, socket, nullptr);
        return;
    }
    epoll_event event{};
    event.events =
        ((what & CURL_POLL_IN) != 0 ? EPOLLIN : 0u) | ((what & CURL_POLL_OUT) != 0 ? EPOLLOUT : 0u);
    event.data.fd = socket;
    if (epoll_ctl(socketSet, EPOLL_CTL_MOD, socket, &event) != 0 && errno == ENOENT) {
        epoll_ctl(socketSet, EPOLL_CTL_ADD, socket, &event);
    }
}

// Both callbacks run inside libcurl's C frames, which no exception may cross, and a -1 would
// stop every transfer of the multi handle for good: a failure is logged, 0 returned, and the
// next turn catches up on what could not be recorded.
int CurlRequest::onSocket(CURL * /*easy*/, curl_socket_t socket, int what, void *self,
                          void * /*known*/) {
    auto *network = static_cast<CurlRequest *>(self);
    try {
        callbackHook("CurlRequest socket");
        network->watchSocket(socket, what);
    } catch (...) {
        logFailure("Socket callback");
        network->missedSockets.emplace_back(socket, what);
    }
    return 0;
}

int CurlRequest::onTimer(CURLM * /*multi*/, long timeoutMs, void *self) {
    auto *network = static_cast<CurlRequest *>(self);
    try {
        callbackHook("CurlRequest timer");
        network->timerDue = timeoutMs < 0 ? -1 : steadyMilliseconds() + timeoutMs;
    } catch (...) {
        logFailure("Timer callback");
        // A timer run that is due at once makes libcurl tell its next time again.
        network->timerDue = steadyMilliseconds();
    }
    return 0;
}

void CurlRequest::driveTransfers() {
    int running = 0;
    CURLMcode code = CURLM_OK;
    // Sockets whose callback failed are watched from now on.
    std::vector<std::pair<curl_socket_t, int>> missed;
    missed.swap(missedSockets);
    for (auto const &socket : missed) {
        watchSocket(socket.first, socket.second);
    }
    if (socketSet < 0) {
        code = curl_multi_perform(multiHandle, &running);
    } else {
        // Sockets that stay ready beyond these are taken on the next turn, which then does not
        // wait.
        epoll_event events[kReadyPerTurn];
        int ready = epoll_wait(socketSet, events, kReadyPerTurn, 0);
        for (int i = 0; i < ready; ++i) {
            uint32_t what = events[i].events;
            int mask = ((what & EPOLLIN) != 0 ? CURL_CSELECT_IN : 0) |
                       ((what & EPOLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                       ((what & (EPOLLERR | EPOLLHUP)) != 0 ? CURL_CSELECT_ERR : 0);
            CURLMcode result =
                curl_multi_socket_action(multiHandle, events[i].data.fd, mask, &running);
            code = result != CURLM_OK ? result : code;
        }
        // Also what starts new transfers: adding one sets the timer to now.
        if (timerDue >= 0 && steadyMilliseconds() >= timerDue) {
            timerDue = -1;
            CURLMcode result =
                curl_multi_socket_action(multiHandle, CURL_SOCKET_TIMEOUT, 0, &running);
            code = result != CURLM_OK ? result : code;
        }
    }
    if (code != CURLM_OK) {
        Log() << "CurlRequest: ERROR! Failed to send requests failed: " << curl_multi_strerror(code)
              << ".\n";
    }
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

void CurlRequest::startFailed(curlRequest *request) {
    releaseHandler(request->handle);
    request->handle = nullptr;
    // A transfer whose options cannot be set is dropped after three tries without a result:
    // only the lack of a handle ends its flow.
    if (++request->retryCount >= kStartAttempts) {
        request->finished = true;
    }
}

bool CurlRequest::processRequests() {
    for (curlRequest *request : requests) {
        if (request->state != RequestQueued || request->finished) {
            continue;
        }
        void *handle = acquireHandler(request->configId);
        if (handle == nullptr) {
            Log() << "CurlRequest: ERROR! Failed to acquire handler for config "
                  << request->configId << ".\n";
            if (++request->retryCount >= kStartAttempts) {
                request->finished = true;
                request->state = RequestFailed;
                auto session = requestToSession.find(request->requestId);
                if (session != requestToSession.end()) {
                    auto flow = activeFlows.find(session->second);
                    if (flow != activeFlows.end()) {
                        failFlow(flow->second, "Failed to acquire handler", 0);
                    }
                }
            }
            continue;
        }
        request->handle = handle;
        if (!setOptions(handle, request->method)) {
            Log() << "CurlRequest: ERROR! Failed to set options.\n";
            startFailed(request);
            continue;
        }
        if (!setUrl(handle, request->url)) {
            Log() << "CurlRequest: ERROR! Failed to set URL.\n";
            startFailed(request);
            continue;
        }
        // A burst of transfers to a provider that speaks HTTP/2 waits for the connection being
        // made and shares it, instead of each opening its own. Over TLS only: there the
        // handshake tells at once whether a connection multiplexes; over plain HTTP only the
        // first answer would, and a first request that is never answered would hold every
        // later transfer back.
        if (std::strncmp(request->url, "https://", 8) == 0) {
            curl_easy_setopt(handle, CURLOPT_PIPEWAIT, 1L);
        }
        if (request->headers != nullptr && !request->headers->empty() &&
            !setHeaders(handle, request->headers, request->headerList)) {
            Log() << "CurlRequest: ERROR! Failed to set headers.\n";
            startFailed(request);
            continue;
        }
        if (request->method == HttpPost && request->postData != nullptr &&
            !setData(handle, request->postData)) {
            Log() << "CurlRequest: ERROR! Failed to set POST data.\n";
            curl_slist_free_all(request->headerList);
            request->headerList = nullptr;
            startFailed(request);
            continue;
        }
        if (request->proxy != nullptr && !setProxy(handle, request->proxy)) {
            Log() << "CurlRequest: ERROR! Failed to set proxy.\n";
            curl_slist_free_all(request->headerList);
            request->headerList = nullptr;
            startFailed(request);
            continue;
        }
        request->response = new std::string();
        curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &CurlRequest::writeToString);
        curl_easy_setopt(handle, CURLOPT_WRITEDATA, request->response);
        curl_easy_setopt(handle, CURLOPT_PRIVATE, request->response);
        CURLMcode added = curl_multi_add_handle(multiHandle, handle);
        if (added != CURLM_OK) {
            Log() << "CurlRequest: ERROR! curl_multi_add_handle failed: "
                  << curl_multi_strerror(added) << ".\n";
            curl_slist_free_all(request->headerList);
            request->headerList = nullptr;
            delete request->response;
            request->response = nullptr;
            startFailed(request);
            continue;
        }
        request->state = RequestInFlight;
        Log() << "CurlRequest: Request " << request->requestId << " now in flight.\n";
    }
    return true;
}

void CurlRequest::processCompletedTransfers() {
    int waiting = 0;
    while (CURLMsg *message = curl_multi_info_read(multiHandle, &waiting)) {
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        CURL *handle = message->easy_handle;
        CURLcode result = message->data.result;
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
            int32_t requestId = request->requestId;
            auto session = requestToSession.find(requestId);
            if (session != requestToSession.end()) {
                auto flow = activeFlows.find(session->second);
                if (flow != activeFlows.end()) {
                    // The flow may queue its next transfer (which grows requests and
                    // requestToSession) or end (which erases the flow): nothing found above is
                    // used after this call but the record itself.
                    std::string body = response ? *response : std::string();
                    std::string sessionId = session->second;
                    try {
                        processFlowState(flow->second, body, static_cast<int32_t>(status), result);
                    } catch (...) {
                        // A flow that threw still ends with a result, so its command gets its
                        // one reply.
                        logFailure("Flow step");
                        auto broken = activeFlows.find(sessionId);
                        if (broken != activeFlows.end()) {
                            failFlow(broken->second, "Flow step failed", 0);
                        }
                    }
                }
                requestToSession.erase(requestId);
            }
            request->finished = true;
            request->state = RequestDone;
            curl_slist_free_all(request->headerList);
            request->headerList = nullptr;
            request->handle = nullptr;
        }
        curl_multi_remove_handle(multiHandle, handle);
        releaseHandler(handle);
    }
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

void CurlRequest::processFlowState(AsyncFlowContext &context, std::string const &response,
                                   int32_t httpCode, CURLcode result) {
    Log() << "CurlRequest: Processing state " << context.state << " for flow type "
          << context.flowType << ".\n";
    if (result != CURLE_OK) {
        std::string text = curl_easy_strerror(result);
        Log() << "CurlRequest: ERROR! Curl error: " << text << ".\n";
        failFlow(context, "Curl error: " + text, httpCode);
        return;
    }
    // Redirects are not followed, so a 3xx is as much a failure as a 4xx.
    if (httpCode < 200 || httpCode > 299) {
        Log() << "CurlRequest: ERROR! HTTP error " << httpCode << " response: '" << response
              << "'.\n";
        failFlow(context, "HTTP error: " + response, httpCode);
        return;
    }
    switch (context.flowType) {
        case FlowRefresh:
            advanceRefreshFlow(context, response, httpCode);
            return;
        case FlowNodeVerify:
            advanceNodeVerifyFlow(context, response, httpCode);
            return;
        case FlowVerify:
            advanceVerifyFlow(context, response, httpCode);
            return;
        default:
            Log() << "CurlRequest: ERROR! Unknown flow type.\n";
            failFlow(context, "Unknown flow type", 0);
            return;
    }
}

bool CurlRequest::wrongType(MemberText how, char const *key) {
    if (how != MemberText::WrongType) {
        return false;
    }
    Log() << "CurlRequest: ERROR! Field '" << key << "' has a value of a wrong type.\n";
    return true;
}

bool CurlRequest::failOnWrongType(AsyncFlowContext &context, MemberText how, char const *key,
                                  int32_t httpCode) {
    if (!wrongType(how, key)) {
        return false;
    }
    failFlow(context, std::string("Field '") + key + "' has a value of a wrong type", httpCode);
    return true;
}

void CurlRequest::failFlow(AsyncFlowContext &context, std::string const &message,
                           int32_t httpCode) {
    Log() << "CurlRequest: ERROR! '" << message << "' HTTP: " << httpCode << ".\n";
    AsyncFlowResult result;
    result.sessionId = context.sessionId;
    result.flowType = context.flowType;
    result.success = false;
    result.errorMessage = message;
    result.httpCode = httpCode;
    completedFlows.push_back(std::move(result));
    // The key is copied first: erasing destroys the context that holds it.
    std::string key = context.sessionId;
    activeFlows.erase(key);
}

void CurlRequest::completeFlow(AsyncFlowContext &context, std::string const &data) {
    Log() << "CurlRequest: Flow completed for session '" << context.sessionId << "'.\n";
    AsyncFlowResult result;
    result.sessionId = context.sessionId;
    result.flowType = context.flowType;
    result.success = true;
    result.data = data;
    result.httpCode = 0;
    completedFlows.push_back(std::move(result));
    std::string key = context.sessionId;
    activeFlows.erase(key);
}

std::string CurlRequest::buildFormBody(
    std::vector<std::pair<std::string, std::string>> const &pairs) {
    std::string body;
    for (auto const &pair : pairs) {
        if (!body.empty()) {
            body += '&';
        }
        std::unique_ptr<char[]> value(UrlEncode(pair.second.c_str()));
        body += pair.first;
        body += '=';
        body += value.get();
    }
    return body;
}

bool CurlRequest::startFlow(AsyncFlowContext context, char const *startLine,
                            bool (CurlRequest::*queue)(AsyncFlowContext &),
                            char const *queueFailure, int32_t waitingState) {
    if (!initialized) {
        Log() << "CurlRequest: ERROR! Not initialized.\n";
        return false;
    }
    if (hasActiveFlow(context.sessionId)) {
        Log() << "CurlRequest: ERROR! Session already has active flow.\n";
        return false;
    }
    Log() << startLine << context.sessionId << "'.\n";
    context.state = FlowStateCreated;
    context.currentRequestId = -1;
    std::string key = context.sessionId;
    AsyncFlowContext &stored = activeFlows[key] = std::move(context);
    if (!(this->*queue)(stored)) {
        Log() << queueFailure;
        activeFlows.erase(key);
        return false;
    }
    stored.state = waitingState;
    return true;
}

void CurlRequest::queueTransfer(AsyncFlowContext &context, int32_t configId, httpMethod method,
                                std::string const &url, std::vector<std::string> headers,
                                std::string const &postData, std::string const &proxy) {
    auto *request = new curlRequest;
    request->requestId = nextRequestId++;
    request->configId = configId;
    request->method = method;
    request->state = RequestQueued;
    request->retryCount = 0;
    request->finished = false;
    request->url = copyText(url);
    request->sessionId = copyText(context.sessionId);
    if (!proxy.empty()) {
        request->proxy = copyText(proxy);
    }
    if (method == HttpPost) {
        request->postData = copyText(postData);
    }
    request->headers = new std::vector<std::string>(std::move(headers));
    requestToSession[request->requestId] = context.sessionId;
    context.currentRequestId = request->requestId;
    requests.push_back(request);
    Log() << "CurlRequest: Request queued with ID " << request->requestId << ".\n";
}
