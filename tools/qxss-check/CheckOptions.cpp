#include "tools/qxss-check/CheckOptions.h"

// The first configuration directory the library looks in, and the file name it reads there.
char const kProductionConfigFile[] = "/usr/QX/etc/sso.cfg";

CheckOptions parseCheckOptions(std::vector<std::string> const &arguments) {
    CheckOptions options;
    std::vector<std::string> files;
    bool optionsEnded = false;
    for (std::string const &argument : arguments) {
        if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
            files.push_back(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument == "--help" || argument == "-h") {
            options.action = CheckOptions::Action::Help;
            return options;
        } else if (argument == "--version") {
            options.action = CheckOptions::Action::Version;
            return options;
        } else if (argument == "--offline") {
            options.offline = true;
        } else if (argument == "--json") {
            options.json = true;
        } else if (argument == "--verbose" || argument == "-v") {
            options.verbose = true;
        } else {
            options.action = CheckOptions::Action::UsageError;
            options.error = "unknown option '" + argument + "'";
            return options;
        }
    }
    if (files.size() > 1) {
        options.action = CheckOptions::Action::UsageError;
        options.error = "one configuration file at a time";
        return options;
    }
    if (!files.empty() && files[0].empty()) {
        options.action = CheckOptions::Action::UsageError;
        options.error = "the file name is empty";
        return options;
    }
    options.file = files.empty() ? kProductionConfigFile : files[0];
    return options;
}

char const *checkHelpText() {
    return R"(Usage: qxss-check [--offline] [--json] [--verbose] [FILE]

Checks a libqxss configuration file with the library's own loading code and tells
whether the library would load it.

FILE is the configuration file to check (default: /usr/QX/etc/sso.cfg, the file the
library reads). A directory stands for the file sso.cfg in it.

Steps, as the library takes them on SSO_LOAD_CONFIGS:
  1. read the file and validate every entry (the file is taken whole or refused);
  2. make a provider record of every OAuth entry;
  3. discovery: fetch each provider's OpenID configuration, through its qx_proxy if
     one is set (skipped with --offline);
  4. build the authorization URL that a client choosing the provider would be sent to,
     with a fresh PKCE challenge and a random state and nonce (skipped with --offline).
The library stops at the first provider whose discovery fails; the checker tries every
provider and reports each.

For each provider it prints the ID, name, kind, endpoints, proxy and authorization URL;
for every problem, the log statement that the library writes for it.

Options:
  --offline    no network: validate the file only
  --json       print the report as one JSON document on standard output
  --verbose    also print the library's whole log on standard error (it shows client
               secrets in the clear)
  --help       print this help
  --version    print the version

Exit status:
  0  the library would load the file
  1  it would not (the file is missing or unreadable, an entry is invalid, or discovery
     failed for a provider)
  2  usage error

See qxss-check(1) and sso.cfg(5).
)";
}
