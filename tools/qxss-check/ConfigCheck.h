#pragma once

#include "tools/qxss-check/LogCollector.h"

#include <cstdint>
#include <string>
#include <vector>

// What the checker found out about one entry of the file.
struct ProviderReport {
    // From the file.
    int32_t id = -1;
    std::string name;
    std::string desc;
    std::string type;      // "OAuth" or "SAML"
    std::string provider;  // "okta", "microsoft", "google", "keycloak"
    // From the library's record (OAuth entries only).
    bool served = false;  // the library made a record for it
    std::string idpDomain;
    std::string clientId;
    std::vector<std::string> redirectUris;
    std::string userType;
    std::string userName;
    std::string promptType;
    bool refresh = false;
    int64_t refreshLifetime = 0;
    std::string proxy;
    bool userinfoFromFile = false;  // "userinfo_uri" given in the file
    // Discovery.
    enum class Discovery { NotTried, Skipped, Succeeded, Failed };
    Discovery discovery = Discovery::NotTried;
    std::string discoveryUrl;  // as the library logged it
    std::string authorizationEndpoint;
    std::string tokenEndpoint;
    std::string userinfoEndpoint;
    std::string revocationEndpoint;
    std::string issuer;
    // The URL a client choosing this entry's ID is sent to; empty when none could be built.
    std::string authorizationUrl;
    // What the library logged as a problem while handling this entry.
    std::vector<LoggedProblem> problems;
    // The checker's own remarks (not library statements).
    std::vector<std::string> notes;
    // The checker's own warnings about this entry (ConfigWarnings.h).
    std::vector<std::string> warnings;
};

struct CheckReport {
    std::string file;  // the file read (a directory given stands for its sso.cfg)
    bool offline = false;
    bool loads = false;   // the library would load the file
    std::string verdict;  // one sentence
    // Problems that belong to the file as a whole (reading, validation, transport start).
    std::vector<LoggedProblem> problems;
    // The checker's own warnings about the file (who may read, write or replace it).
    std::vector<std::string> warnings;
    std::vector<ProviderReport> providers;  // in ID order; empty when the file was refused
};

class SsoServerConfigOAuth;

// The provider's authorization URL for a client configuration string
// ("<client JSON>|<code challenge>|<session>", as SSO_GET_CONFIG_OK carries it), with the state
// and nonce given, built by the client side's own code. Empty on failure; the log says why.
std::string authorizationUrlFrom(std::string const &clientConfig, std::string const &session,
                                 std::string const &state, std::string const &nonce);

// The directory part of `path`: "." for a bare name, "/" for a file in the root.
std::string directoryOf(std::string const &path);

// Fills the settings and endpoints of `report` from a provider record.
void describeRecord(SsoServerConfigOAuth const &record, ProviderReport &report);

// The file the library is to read, in a directory the library can be pointed at: the library
// reads "<configuration directory>/sso.cfg", and the admin's file may have any name, so such a
// file is reached through a private directory holding a link to it, removed with this object.
class ConfigPlace {
public:
    ConfigPlace() = default;
    ~ConfigPlace();
    ConfigPlace(ConfigPlace const &) = delete;
    ConfigPlace &operator=(ConfigPlace const &) = delete;

    // Finds `given` (a file, or a directory standing for its sso.cfg) and prepares the
    // directory. False with `error` set (one line, with the path) when that cannot be done;
    // `path` is set as far as it was found.
    bool open(std::string const &given, std::string &error);

    std::string path;       // the file found
    bool found = false;     // the file exists and is a regular file
    std::string directory;  // what the library is to take as its configuration directory

private:
    std::string linkDirectory_;
    std::string link_;
};

// Runs the library's loading code on `file` (a file, or a directory holding sso.cfg): both
// validation passes, then, unless `offline`, discovery for every provider and the
// authorization URL of each. Statements come from `log`, which must be installed. Never
// throws.
CheckReport checkConfiguration(std::string const &file, bool offline, LogCollector &log);
