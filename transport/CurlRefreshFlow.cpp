// CurlRequest, refresh flow: the refresh grant at the token endpoint, then the shared
// userinfo request and the completion under a new session. Also the revocation transfer,
// which no flow state reaches: revocation happens on the blocking road.

#include "platform/Log.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/OAuthKeys.h"
#include "support/OAuthScopes.h"
#include "support/SsoJson.h"
#include "transport/CurlRequest.h"

#include <memory>

bool CurlRequest::startRefreshFlow(std::string const &sessionId, std::string const &uuid,
                                   std::string const &refreshToken, uint32_t configId) {
    AsyncFlowContext context;
    context.sessionId = sessionId;
    context.flowType = FlowRefresh;
    context.uuid = uuid;
    context.storedRefreshToken = refreshToken;
    context.configId = configId;
    return startFlow(std::move(context), "CurlRequest: Starting refresh flow for session '",
                     &CurlRequest::queueRefreshRequest,
                     "CurlRequest: ERROR! Failed to queue refresh request.\n", FlowStateRefresh);
}

bool CurlRequest::queueRefreshRequest(AsyncFlowContext &context) {
    SsoServerConfigOAuth const *config = flowConfig(context);
    if (config == nullptr) {
        return false;
    }
    // The refresh grant authenticates by the Basic header; the code grant by form fields.
    std::string authorization = config->basicAuthorization();
    std::string body = buildFormBody({
        {OAuthKeys::grantType, OAuthKeys::grantRefreshToken},
        {OAuthKeys::refreshToken, context.storedRefreshToken},
        {OAuthKeys::scope, providerScope(config->provider)},
    });
    Log() << "CurlRequest: POST data prepared length: " << body.size() << ".\n";
    queueTransfer(context, static_cast<int32_t>(context.configId), HttpPost, config->tokenUri,
                  {OAuthKeys::formContentType, authorization}, body, config->proxy);
    return true;
}

bool CurlRequest::queueRevokeRequest(AsyncFlowContext &context) {
    SsoServerConfigOAuth const *config = flowConfig(context);
    if (config == nullptr) {
        return false;
    }
    if (config->revokeUri.empty()) {
        Log() << "CurlRequest: No revoke URI configured, skipping..\n";
        return false;
    }
    std::string body = buildFormBody({
        {OAuthKeys::token, context.refreshToken},
        {OAuthKeys::tokenTypeHint, OAuthKeys::grantRefreshToken},
        {OAuthKeys::clientId, config->clientId},
        {OAuthKeys::clientSecret, config->clientSecret},
    });
    queueTransfer(context, static_cast<int32_t>(context.configId), HttpPost, config->revokeUri,
                  {OAuthKeys::formContentType}, body, config->proxy);
    return true;
}

void CurlRequest::advanceRefreshFlow(AsyncFlowContext &context, std::string const &response,
                                     int32_t httpCode) {
    Log() << "CurlRequest: State: " << context.state << ".\n";
    switch (context.state) {
        case FlowStateRefresh: {
            Json::Value tokens;
            if (!readString(response, tokens)) {
                Log() << "CurlRequest: ERROR! Failed to parse refresh response.\n";
                failFlow(context, "Failed to parse refresh response", httpCode);
                return;
            }
            std::string accessToken;
            MemberText access = readMember(tokens, OAuthKeys::accessToken, accessToken);
            if (failOnWrongType(context, access, OAuthKeys::accessToken, httpCode)) {
                return;
            }
            if (access != MemberText::Text) {
                Log() << "CurlRequest: ERROR! Refresh response missing Access Token.\n";
                failFlow(context, "Refresh response missing Access Token", httpCode);
                return;
            }
            context.accessToken = accessToken;
            // A provider that does not rotate refresh tokens keeps the stored one in force.
            std::string refreshToken;
            MemberText refresh = readMember(tokens, OAuthKeys::refreshToken, refreshToken);
            if (failOnWrongType(context, refresh, OAuthKeys::refreshToken, httpCode)) {
                return;
            }
            if (refresh == MemberText::Text) {
                context.refreshToken = refreshToken;
            } else {
                context.refreshToken = context.storedRefreshToken;
            }
            Log() << "CurlRequest: Token refresh successful queuing userinfo request.\n";
            if (!queueUserInfoRequest(context)) {
                Log() << "CurlRequest: ERROR! Failed to queue userinfo request.\n";
                failFlow(context, "Failed to queue userinfo request", 0);
                return;
            }
            context.state = FlowStateUserInfo;
            return;
        }
        case FlowStateUserInfo: {
            context.userInfoResponse = response;
            Log() << "CurlRequest: Userinfo received processing server operations.\n";
            std::unique_ptr<char[]> token(SsoServer::getServer().completeAsyncLoginFlow(
                context.userInfoResponse, context.accessToken, context.refreshToken,
                context.configId, context.sessionId));
            if (!token) {
                Log() << "CurlRequest: ERROR! Failed to process refresh result.\n";
                failFlow(context, "Failed to process refresh result", 0);
                return;
            }
            Log() << "CurlRequest: Refresh flow processed successfully.\n";
            completeFlow(context, token.get());
            return;
        }
        default:
            Log() << "CurlRequest: ERROR! Invalid state " << context.state << ".\n";
            failFlow(context, "Invalid state in refresh flow", 0);
            return;
    }
}
