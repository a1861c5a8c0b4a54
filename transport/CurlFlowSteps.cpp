// CurlRequest's flow steps that every flow shares: starting a flow, queueing a transfer, routing
// a finished transfer's answer to its flow by type, and ending the flow with a result.

#include "transport/CurlRequest.h"

#include "platform/Log.h"
#include "platform/Strings.h"
#include "platform/Url.h"
#include "support/SsoJson.h"

#include <memory>

namespace {

// The statuses that count as an answer; redirects are not followed, so a 3xx is as much a
// failure as a 4xx.
constexpr int32_t kFirstSuccessStatus = 200;
constexpr int32_t kLastSuccessStatus = 299;

char *copyText(std::string const &text) {
    char *copy = nullptr;
    return StringInit(copy, text.c_str());
}

}  // namespace

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
    if (httpCode < kFirstSuccessStatus || httpCode > kLastSuccessStatus) {
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
