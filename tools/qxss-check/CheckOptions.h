#pragma once

#include <string>
#include <vector>

// The command line of qxss-check.
struct CheckOptions {
    enum class Action { Check, Login, Help, Version, UsageError };

    Action action = Action::Check;
    // The file to check: the argument, or the production file when none is given.
    std::string file;
    bool offline = false;  // --offline: no discovery, no authorization URLs
    bool json = false;     // --json: one JSON document on standard output
    bool verbose = false;  // --verbose: the library's whole log on standard error
    // --login ID: sign one user in through the entry whose login option ID is `loginId`.
    std::string loginId;
    bool blockingRoad = false;  // --road blocking (default: --road flow)
    bool showSecrets = false;   // --show-secrets: the session value unmasked
    int timeoutSeconds = 60;    // --timeout: how long --login waits for the reply to SSO_VERIFY
    // For UsageError: what was wrong, one line.
    std::string error;
};

// The file the library reads in production.
extern char const kProductionConfigFile[];

// Reads the arguments after the program name. Never fails: a bad command line comes back as
// Action::UsageError with `error` set.
CheckOptions parseCheckOptions(std::vector<std::string> const &arguments);

// The text of --help.
char const *checkHelpText();
