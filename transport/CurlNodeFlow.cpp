// CurlRequest, node verify flow: one userinfo request with the access token that a server
// passed on in its node configuration, then the node's completion.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "support/ConfigKeys.h"
#include "support/OAuthKeys.h"
#include "support/SsoJson.h"
#include "transport/CurlRequest.h"

#include <memory>
#include <utility>

bool CurlRequest::startNodeVerifyFlow(std::string const &sessionId, std::string const &nodeConfig) {
    AsyncFlowContext context;
    context.sessionId = sessionId;
    context.flowType = FlowNodeVerify;
    context.nodeConfig = nodeConfig;
    context.configId = 0;
    return startFlow(std::move(context), "CurlRequest: Starting node verify flow for session '",
                     &CurlRequest::queueNodeUserInfoRequest,
                     "CurlRequest: ERROR! Failed to queue node userinfo request.\n",
                     FlowStateUserInfo);
}

bool CurlRequest::queueNodeUserInfoRequest(AsyncFlowContext &context) {
    Json::Value config;
    if (!readString(context.nodeConfig, config)) {
        Log() << "CurlRequest: ERROR! Failed to parse node config JSON.\n";
        return false;
    }
    // Read in this order; an object or an array where text is read fails the start, and the
    // blocking road then answers by its own rules.
    std::string accessToken;
    std::string url;
    MemberText access = readMember(config, ConfigKeys::accessToken, accessToken);
    if (wrongType(access, ConfigKeys::accessToken)) {
        return false;
    }
    MemberText uri = access == MemberText::Text ? readMember(config, ConfigKeys::userinfoUri, url)
                                                : MemberText::Missing;
    if (wrongType(uri, ConfigKeys::userinfoUri)) {
        return false;
    }
    if (access != MemberText::Text || uri != MemberText::Text) {
        Log() << "CurlRequest: ERROR! Node config missing required fields.\n";
        return false;
    }
    context.accessToken = accessToken;
    // This flow reads "proxy", not the "qx_proxy" that a server writes: a node configuration
    // as a server issues it is fetched without a proxy here.
    std::string proxy;
    for (auto const &member : {std::make_pair(ConfigKeys::nodeFlowProxy, &proxy),
                               std::make_pair(ConfigKeys::provider, &context.provider),
                               std::make_pair(ConfigKeys::userName, &context.userName),
                               std::make_pair(ConfigKeys::userType, &context.userType)}) {
        // Absent reads as "".
        std::string text;
        MemberText how = readMember(config, member.first, text);
        if (wrongType(how, member.first)) {
            return false;
        }
        *member.second = how == MemberText::Text ? text : std::string();
    }
    // A node has no configurations of its own: configuration 0's pool, made on demand.
    queueTransfer(context, 0, HttpGet, url, {OAuthKeys::bearerPrefix + context.accessToken},
                  std::string(), proxy);
    return true;
}

void CurlRequest::advanceNodeVerifyFlow(AsyncFlowContext &context, std::string const &response,
                                        int32_t /*httpCode*/) {
    Log() << "CurlRequest: State: " << context.state << ".\n";
    if (context.state != FlowStateUserInfo) {
        Log() << "CurlRequest: ERROR! Invalid state " << context.state << ".\n";
        failFlow(context, "Invalid state in node verify flow", 0);
        return;
    }
    context.userInfoResponse = response;
    Log() << "CurlRequest: Node userinfo received processing with server operations.\n";
    std::unique_ptr<char[]> token(SsoServer::getServer().completeAsyncNodeFlow(
        context.userInfoResponse, context.sessionId, context.provider, context.userName,
        context.userType));
    if (!token) {
        Log() << "CurlRequest: ERROR! Failed to process node result.\n";
        failFlow(context, "Failed to process node result", 0);
        return;
    }
    Log() << "CurlRequest: Node flow processed successfully.\n";
    completeFlow(context, token.get());
}
