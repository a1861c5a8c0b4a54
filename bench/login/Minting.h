#pragma once

#include "bench/login/Timing.h"

#include <string>
#include <utility>
#include <vector>

class LocalProvider;
class WorkerHost;

// Codes for the logins to time, each signed for by the scripted user just before its phase.

// The redirect URI of every login.
extern std::string const kRedirect;

// A PKCE verifier and its S256 challenge.
std::pair<std::string, std::string> pkce();
// Codes for the bare client or the peer: authorization URLs of their own at `provider` (the
// library's scope, no nonce), signed for by the scripted user. Empty when any sign-in failed.
std::vector<Job> mintOwn(LocalProvider const &provider, int count, char const *who);
// The library's road to a code: "SSO_GET_CONFIG" for a new user session on `configId`, the
// authorization URL of SsoLoginUrl, the scripted user's sign-in. Empty when any step failed.
// The user signs in at `provider`, which `configId` names.
std::vector<Job> mintLibrary(LocalProvider const &provider, WorkerHost &host, int configId,
                             int count);
