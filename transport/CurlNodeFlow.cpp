// CurlRequest, node verify flow: one userinfo request with the access token that a server
// passed on in its node configuration, then the node's completion.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "support/SsoJson.h"
#include "transport/CurlRequest.h"

#include <memory>

namespace {

// An optional member; absent or not text reads as "".
std::string optionalText(Json::Value const &config, char const *key) {
    std::string text;
    return readMember(config, key, text) == MemberText::Text ? text : std::string();
}

}  // namespace

bool CurlRequest::startNodeVerifyFlow(std::string const &sessionId,
                                      std::string const &nodeConfig) {
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
    std::string accessToken;
    std::string url;
    // A required member of a wrong type (object or array) counts as missing.
    if (readMember(config, "access_token", accessToken) != MemberText::Text ||
        readMember(config, "userinfo_uri", url) != MemberText::Text) {
        Log() << "CurlRequest: ERROR! Node config missing required fields.\n";
        return false;
    }
    context.accessToken = accessToken;
    // This flow reads "proxy", not the "qx_proxy" that a server writes: a node configuration
    // as a server issues it is fetched without a proxy here.
    std::string proxy = optionalText(config, "proxy");
    context.provider = optionalText(config, "provider");
    context.userName = optionalText(config, "qx_user_name");
    context.userType = optionalText(config, "qx_user_type");
    // A node has no configurations of its own: configuration 0's pool, made on demand.
    queueTransfer(context, 0, HttpGet, url, {"Authorization: Bearer " + context.accessToken},
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
