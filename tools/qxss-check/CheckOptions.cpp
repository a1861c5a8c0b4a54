// The command line of qxss-check: its parsing and the text of --help.
#include "tools/qxss-check/CheckOptions.h"

// The first configuration directory the library looks in, and the file name it reads there.
char const kProductionConfigFile[] = "/usr/QX/etc/sso.cfg";

namespace {

// What the command line said beyond the options themselves, for the checks of the whole.
struct Given {
    std::vector<std::string> files;
    bool road = false;
    bool timeout = false;
};

// Takes `value` for --login, --road or --timeout into `options`. The reason when it is not one
// that the option takes; empty when it was taken.
std::string takeValue(std::string const &option, std::string const &value, CheckOptions &options,
                      Given &given) {
    bool digits = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    if (option == "--timeout") {
        if (!digits || value.size() > 4 || std::stoi(value) < 1) {
            return "--timeout takes seconds (1 to 9999), not '" + value + "'";
        }
        options.timeoutSeconds = std::stoi(value);
        given.timeout = true;
    } else if (option == "--road") {
        if (value != "flow" && value != "blocking") {
            return "--road takes 'flow' or 'blocking', not '" + value + "'";
        }
        options.blockingRoad = value == "blocking";
        given.road = true;
    } else {
        if (!digits) {
            return "--login takes a login option ID (digits), not '" + value + "'";
        }
        options.loginId = value;
        options.action = CheckOptions::Action::Login;
    }
    return "";
}

// What is wrong with the command line as a whole: options that do not go together, or other
// than one file; empty when nothing is.
std::string wholeLineError(CheckOptions const &options, Given const &given) {
    if (options.action == CheckOptions::Action::Login && (options.offline || options.json)) {
        return std::string(options.offline ? "--offline" : "--json") + " does not go with --login";
    }
    if (options.action != CheckOptions::Action::Login &&
        (given.road || given.timeout || options.showSecrets)) {
        return std::string(given.road      ? "--road"
                           : given.timeout ? "--timeout"
                                           : "--show-secrets") +
               " goes with --login only";
    }
    if (given.files.size() > 1) {
        return "one configuration file at a time";
    }
    if (!given.files.empty() && given.files[0].empty()) {
        return "the file name is empty";
    }
    return "";
}

CheckOptions refuse(CheckOptions options, std::string const &why) {
    options.action = CheckOptions::Action::UsageError;
    options.error = why;
    return options;
}

}  // namespace

CheckOptions parseCheckOptions(std::vector<std::string> const &arguments) {
    CheckOptions options;
    Given given;
    bool optionsEnded = false;
    for (size_t at = 0; at < arguments.size(); ++at) {
        std::string const &argument = arguments[at];
        if (!optionsEnded &&
            (argument == "--login" || argument == "--road" || argument == "--timeout")) {
            if (at + 1 >= arguments.size()) {
                return refuse(options, "option '" + argument + "' needs a value");
            }
            std::string why = takeValue(argument, arguments[++at], options, given);
            if (!why.empty()) {
                return refuse(options, why);
            }
        } else if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
            given.files.push_back(argument);
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
        } else if (argument == "--show-secrets") {
            options.showSecrets = true;
        } else {
            return refuse(options, "unknown option '" + argument + "'");
        }
    }
    std::string why = wholeLineError(options, given);
    if (!why.empty()) {
        return refuse(options, why);
    }
    options.file = given.files.empty() ? kProductionConfigFile : given.files[0];
    return options;
}

char const *checkHelpText() {
    return R"(Usage: qxss-check [--offline] [--json] [--verbose] [FILE]
       qxss-check --login ID [--road flow|blocking] [--timeout SECONDS] [--show-secrets]
                  [--verbose] [FILE]

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
for every problem, the log statement that the library writes for it; and warnings of its
own (they do not change the exit status): a file that group or others may read or write,
that root does not own or that stands in a directory others may write; http:// addresses;
a discovered issuer that is not the idp_domain; and the rules of the real providers that
fail every login of an entry, with the setting that fixes it.

--login ID signs one user in from the terminal through the entry with that login option
ID, with the library's own code, as a host's SSO_GET_CONFIG and SSO_VERIFY would: it
prints the authorization URL (fresh state and nonce), reads the address the browser was
sent back to (or the code alone) from standard input, checks the state, completes the
login, and prints each provider call with its status and time, the userinfo claims, how
the user name was chosen, and the user token a host would get. It exits 0 when the user
is logged in, 1 otherwise.

Options:
  --offline    no network: validate the file only
  --json       print the report as one JSON document on standard output
  --verbose    also print the library's whole log on standard error (it shows client
               secrets in the clear)
  --login ID   sign a user in through the entry with login option ID (see above)
  --road flow|blocking
               with --login: the road of SSO_VERIFY, the background flow (default) or
               the blocking road the worker falls back to
  --timeout SECONDS
               with --login: how long to wait for the reply to SSO_VERIFY (default 60)
  --show-secrets
               with --login: print the session value of the user token unmasked
  --help       print this help
  --version    print the version

Exit status:
  0  the library would load the file (with --login: the user is logged in)
  1  it would not: the file is missing or unreadable, an entry is invalid, or discovery
     failed for a provider (with --login: the user is not logged in)
  2  usage error

See qxss-check(1) and sso.cfg(5).
)";
}
