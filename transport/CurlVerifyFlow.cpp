// CurlRequest, verify flow: the code exchange at the token endpoint, the userinfo request
// (shared with the refresh flow) and the hand-over to SsoServer's completion.

#include "platform/Log.h"
#include "platform/Url.h"
#include "server/OAuthAuthzInfo.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/OAuthKeys.h"
#include "support/SsoJson.h"
#include "transport/CurlRequest.h"

#include <memory>

SsoServerConfigOAuth const *CurlRequest::flowConfig(AsyncFlowContext const &context) {
    auto const &configs = SsoServer::getServer().configs;
    if (context.configId >= configs.size()) {
        Log() << "CurlRequest: ERROR! Invalid config ID.\n";
        return nullptr;
    }
    auto const *config = static_cast<SsoServerConfigOAuth const *>(configs[context.configId]);
    if (config == nullptr) {
        Log() << "CurlRequest: ERROR! Config is null.\n";
    }
    return config;
}

bool CurlRequest::startVerifyFlow(std::string const &sessionId, std::string const &code,
                                  OAuthAuthzInfo const &info) {
    AsyncFlowContext context;
    context.sessionId = sessionId;
    context.flowType = FlowVerify;
    context.code = code;
    context.redirectUri = info.redirectUri;
    context.codeVerifier = info.codeVerifier;
    context.configId = info.configId;
    return startFlow(std::move(context), "CurlRequest: Starting verify flow for session '",
                     &CurlRequest::queueTokenExchangeRequest,
                     "CurlRequest: ERROR! Failed to queue token exchange request.\n",
                     FlowStateTokenExchange);
}

bool CurlRequest::queueTokenExchangeRequest(AsyncFlowContext &context) {
    SsoServerConfigOAuth const *config = flowConfig(context);
    if (config == nullptr) {
        return false;
    }
    Log() << "CurlRequest: Original code: '" << context.code << "'.\n";
    // Decoded once here and encoded once in the body, whatever form the code arrived in.
    std::unique_ptr<char[]> decoded(UrlDecode(context.code.c_str()));
    Log() << "CurlRequest: Decoded code: '" << decoded.get() << "'.\n";
    std::string body = buildFormBody({
        {OAuthKeys::clientId, config->clientId},
        {OAuthKeys::clientSecret, config->clientSecret},
        {OAuthKeys::grantType, OAuthKeys::grantAuthorizationCode},
        {OAuthKeys::code, decoded.get()},
        {OAuthKeys::codeVerifier, context.codeVerifier},
        {OAuthKeys::redirectUri, context.redirectUri},
    });
    Log() << "CurlRequest: POST data prepared, length: " << body.size() << ".\n";
    queueTransfer(context, static_cast<int32_t>(context.configId), HttpPost, config->tokenUri,
                  {OAuthKeys::formContentType}, body, config->proxy);
    return true;
}

bool CurlRequest::queueUserInfoRequest(AsyncFlowContext &context) {
    SsoServerConfigOAuth const *config = flowConfig(context);
    if (config == nullptr) {
        return false;
    }
    queueTransfer(context, static_cast<int32_t>(context.configId), HttpGet, config->userinfoUri,
                  {OAuthKeys::bearerPrefix + context.accessToken}, std::string(), config->proxy);
    return true;
}

void CurlRequest::advanceVerifyFlow(AsyncFlowContext &context, std::string const &response,
                                    int32_t httpCode) {
    Log() << "CurlRequest: State: " << context.state << ".\n";
    switch (context.state) {
        case FlowStateTokenExchange: {
            Json::Value tokens;
            if (!readString(response, tokens)) {
                Log() << "CurlRequest: ERROR! Failed to parse token response.\n";
                failFlow(context, "Failed to parse token response", httpCode);
                return;
            }
            // Read in this order; an object or an array where text is read fails the step.
            std::string accessToken;
            std::string idToken;
            MemberText access = readMember(tokens, OAuthKeys::accessToken, accessToken);
            if (failOnWrongType(context, access, OAuthKeys::accessToken, httpCode)) {
                return;
            }
            MemberText id = access == MemberText::Text
                                ? readMember(tokens, OAuthKeys::idToken, idToken)
                                : MemberText::Missing;
            if (failOnWrongType(context, id, OAuthKeys::idToken, httpCode)) {
                return;
            }
            if (access != MemberText::Text || id != MemberText::Text) {
                Log() << "CurlRequest: ERROR! Token response missing required fields.\n";
                failFlow(context, "Token response missing required fields", httpCode);
                return;
            }
            context.accessToken = accessToken;
            std::string refreshToken;
            MemberText refresh = readMember(tokens, OAuthKeys::refreshToken, refreshToken);
            if (failOnWrongType(context, refresh, OAuthKeys::refreshToken, httpCode)) {
                return;
            }
            if (refresh == MemberText::Text) {
                context.refreshToken = refreshToken;
            }
            Log() << "CurlRequest: Token exchange successful queuing userinfo request.\n";
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
            Log() << "CurlRequest: Userinfo received processing with SsoServer.\n";
            std::unique_ptr<char[]> token(SsoServer::getServer().completeAsyncLoginFlow(
                context.userInfoResponse, context.accessToken, context.refreshToken,
                context.configId, std::string()));
            if (!token) {
                Log() << "CurlRequest: ERROR! Failed to process login result.\n";
                failFlow(context, "Failed to process login result", 0);
                return;
            }
            Log() << "CurlRequest: Login flow processed successfully.\n";
            completeFlow(context, token.get());
            return;
        }
        default:
            Log() << "CurlRequest: ERROR! Invalid state " << context.state << ".\n";
            failFlow(context, "Invalid state in verify flow", 0);
            return;
    }
}
