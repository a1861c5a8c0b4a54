#pragma once

#include <cstdio>

struct CheckOptions;
class LogCollector;

// qxss-check --login: one whole login through the library's own code, from the admin's
// terminal. Loads the file as SSO_LOAD_CONFIGS does, asks SSO_GET_CONFIG for the entry, prints
// the authorization URL (fresh state and nonce) on `out`, reads the address the browser was sent
// back to (or the code alone) from `in`, checks the state and answers SSO_VERIFY on the road
// that `options` names; then reports the provider calls, the userinfo claims, how the user name
// was chosen and the user token. Returns the exit status: 0 logged in, 1 not. Uses the
// library's singletons; once per process.
int runLogin(CheckOptions const &options, LogCollector &log, std::FILE *in, std::FILE *out);
