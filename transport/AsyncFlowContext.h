#pragma once

#include <cstdint>
#include <string>

// The whole state of one background flow, keyed by its session. Each flow fills the fields it
// needs when it starts and as its transfers finish; the rest stay empty. Owned by the flow
// engine's table of active flows; the worker thread alone touches it.
struct AsyncFlowContext {
    // Every flow: the user session that the reply is written for (for a refresh, the session
    // value being refreshed, which the completion replaces), the flow's kind (a `flowType`
    // value, 0 until set), its `FlowState...` step, and the identifier of the transfer last
    // queued for it (-1 before the first; written by the engine, read by nobody).
    std::string sessionId;
    int32_t flowType = 0;
    int32_t state = 0;
    // Verify: the authorization code as the host sent it, and the redirect URI and PKCE
    // verifier of the pending login, for the code grant.
    std::string code;
    std::string redirectUri;
    std::string codeVerifier;
    // Refresh: the command's identifier (kept, never read) and the refresh token of the stored
    // record, sent in the refresh grant.
    std::string uuid;
    std::string storedRefreshToken;
    // Node verify: the node configuration JSON that the host passed on.
    std::string nodeConfig;
    // Verify and refresh: the tokens of the token answer (refresh keeps storedRefreshToken
    // when the provider sends no new one). Node verify: the access token of nodeConfig. All
    // three send accessToken to the userinfo endpoint.
    std::string accessToken;
    std::string refreshToken;
    // Every flow: the userinfo answer handed to the completion.
    std::string userInfoResponse;
    // Verify and refresh: the provider record, whose endpoints, credentials, proxy and
    // transfer pool the flow uses. Node verify: always 0 (a node has no records; 0 names the
    // pool it borrows).
    uint32_t configId = 0;
    // Node verify: what the completion resolves the user with, read from nodeConfig (verify
    // and refresh read these from the provider record instead).
    std::string provider;
    std::string userName;
    std::string userType;
    int32_t currentRequestId = -1;
    // No flow uses these: the text stays empty and the value 0.
    std::string reservedText;
    int32_t reservedValue = 0;
};
