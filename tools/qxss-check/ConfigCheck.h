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
};

struct CheckReport {
    std::string file;  // the file read (a directory given stands for its sso.cfg)
    bool offline = false;
    bool loads = false;   // the library would load the file
    std::string verdict;  // one sentence
    // Problems that belong to the file as a whole (reading, validation, transport start).
    std::vector<LoggedProblem> problems;
    std::vector<ProviderReport> providers;  // in ID order; empty when the file was refused
};

// Runs the library's loading code on `file` (a file, or a directory holding sso.cfg): both
// validation passes, then, unless `offline`, discovery for every provider and the
// authorization URL of each. Statements come from `log`, which must be installed. Never
// throws.
CheckReport checkConfiguration(std::string const &file, bool offline, LogCollector &log);
