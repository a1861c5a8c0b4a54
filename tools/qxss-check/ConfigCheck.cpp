// The check itself: the library's own loading steps, run one by one on a file the admin names,
// with what each step logged kept beside the entry it belongs to.
#include "tools/qxss-check/ConfigCheck.h"

#include "tools/qxss-check/ConfigWarnings.h"

#include "actions/SsoActions.h"
#include "platform/PlatformFakes.h"
#include "platform/Sockets.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/ConfigKeys.h"
#include "support/SsoJson.h"
#include "support/SsoUtils.h"
#include "transport/CurlRequest.h"

#include <json/value.h>

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

namespace {

std::string baseName(std::string const &path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void addProblems(std::vector<LoggedProblem> &to, std::vector<std::string> const &statements) {
    for (LoggedProblem &problem : problemsIn(statements)) {
        to.push_back(std::move(problem));
    }
}

std::string textOf(Json::Value const &object, char const *key) {
    if (!object.isObject() || !object.isMember(key) || !object[key].isString()) {
        return "";
    }
    return object[key].asString();
}

// The entries as the loader numbers them: the file's order for an array, the sorted member
// names for an object. Read with the library's reader, outside the collected log.
std::vector<ProviderReport> entriesOf(std::string const &path, LogCollector &log) {
    std::vector<ProviderReport> entries;
    Json::Value root;
    log.mute(true);
    bool read = readFile(path.c_str(), root);
    log.mute(false);
    if (!read || (!root.isArray() && !root.isObject())) {
        return entries;
    }
    int32_t id = 0;
    for (auto const &entry : root) {
        ProviderReport report;
        report.id = id++;
        report.name = textOf(entry, ConfigKeys::name);
        report.desc = textOf(entry, ConfigKeys::desc);
        report.type = textOf(entry, ConfigKeys::type);
        report.provider = textOf(entry, ConfigKeys::provider);
        Json::Value const &config =
            entry.isObject() ? entry[ConfigKeys::config] : Json::Value::nullSingleton();
        report.userinfoFromFile = config.isObject() && config.isMember(ConfigKeys::userinfoUri);
        entries.push_back(report);
    }
    return entries;
}

void copyRecord(SsoServerConfigOAuth const &record, ProviderReport &report) {
    report.served = true;
    report.idpDomain = record.idpDomain;
    report.clientId = record.clientId;
    report.redirectUris = record.redirectUris;
    report.userType = record.userType;
    report.userName = record.userName;
    report.promptType = record.promptType;
    report.refresh = record.refresh;
    report.refreshLifetime = record.refreshLifetime;
    report.proxy = record.proxy;
}

void copyEndpoints(SsoServerConfigOAuth const &record, ProviderReport &report) {
    report.authorizationEndpoint = record.authUri;
    report.tokenEndpoint = record.tokenUri;
    report.userinfoEndpoint = record.userinfoUri;
    report.revocationEndpoint = record.revokeUri;
    report.issuer = record.issuer;
}

// The discovery URL from the library's own statement about it.
std::string discoveryUrlIn(std::vector<std::string> const &statements) {
    static std::string const head = "SsoServer: Metadata URL is: '";
    static std::string const tail = "'.\n";
    for (std::string const &statement : statements) {
        if (statement.compare(0, head.size(), head) == 0 &&
            statement.size() >= head.size() + tail.size() &&
            statement.compare(statement.size() - tail.size(), tail.size(), tail) == 0) {
            return statement.substr(head.size(), statement.size() - head.size() - tail.size());
        }
    }
    return "";
}

// What a client gets for the login option `id`: the server's client configuration (as the
// reply to SSO_GET_CONFIG carries it), turned into login data and then into the provider's
// URL by the client side. Empty on failure; the log says why.
std::string authorizationUrlFor(SsoServer &server, int32_t id) {
    std::string session = getRandomAsciiString(SsoActions::kUserSessionLength);
    std::string state = getRandomAsciiString(SsoActions::kUserSessionLength);
    std::string nonce = getRandomAsciiString(SsoActions::kUserSessionLength);
    if (session.empty() || state.empty() || nonce.empty()) {
        return "";
    }
    std::unique_ptr<char[]> reply(
        server.getClientConfig(static_cast<uint32_t>(id), session.c_str(), nullptr));
    return reply ? authorizationUrlFrom(reply.get(), session, state, nonce) : std::string();
}

// The form of a DNS name: labels of letters, digits and hyphens, none empty or longer than 63
// bytes or with a hyphen at either end, 253 bytes at most in all.
bool looksLikeHostName(char const *host) {
    std::string name = host ? host : "";
    if (name.empty() || name.size() > 253) {
        return false;
    }
    size_t start = 0;
    while (start <= name.size()) {
        size_t dot = name.find('.', start);
        size_t end = dot == std::string::npos ? name.size() : dot;
        size_t length = end - start;
        if (length == 0 || length > 63 || name[start] == '-' || name[end - 1] == '-') {
            return false;
        }
        for (size_t i = start; i < end; ++i) {
            char c = name[i];
            bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
            if (!letter && !(c >= '0' && c <= '9') && c != '-') {
                return false;
            }
        }
        if (dot == std::string::npos) {
            break;
        }
        start = dot + 1;
    }
    return true;
}

// While it lives, the library's name lookups (the proxy check of the file) ask no resolver and
// pass every name of the right form: --offline sends nothing to the network, DNS included.
class NoResolver {
public:
    NoResolver() {
        PlatformFakes::lookup() = [](char const *host, int) {
            return looksLikeHostName(host) ? 0 : -1;
        };
    }
    ~NoResolver() { PlatformFakes::lookup() = nullptr; }
    NoResolver(NoResolver const &) = delete;
    NoResolver &operator=(NoResolver const &) = delete;
};

// The host of a proxy value "<scheme>://<host>:<port>".
std::string proxyHost(std::string const &proxy) {
    size_t start = proxy.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    size_t colon = proxy.rfind(':');
    return colon == std::string::npos || colon < start ? proxy.substr(start)
                                                       : proxy.substr(start, colon - start);
}

// The file found and linked where the library can read it; false with the report's verdict
// set when it cannot be.
bool openPlace(ConfigPlace &place, std::string const &given, CheckReport &report) {
    std::string error;
    bool found = place.open(given, error);
    report.file = place.path;
    report.warnings = fileWarnings(place.path);
    if (!found) {
        report.problems.push_back({true, "qxss-check: " + error});
        report.verdict = place.found
                             ? "The file could not be prepared for the check."
                             : "The file cannot be read: the library would load nothing from it.";
    }
    return found;
}

// The machine type and both validation passes, as SSO_LOAD_CONFIGS runs them; false with the
// verdict set when the library would go no further.
bool validateFile(SsoServer &server, bool offline, LogCollector &log, CheckReport &report) {
    size_t mark = log.mark();
    bool typed = server.setMachineType();
    if (!typed || server.machineType != SsoServer::kMachineServer) {
        addProblems(report.problems, log.since(mark));
        report.verdict = "The library would not take this machine for a server with this file.";
        return false;
    }
    mark = log.mark();
    std::unique_ptr<NoResolver> noResolver(offline ? new NoResolver : nullptr);
    bool loaded = server.loadConfigsJson();
    noResolver.reset();
    addProblems(report.problems, log.since(mark));
    if (!loaded) {
        report.verdict = "The library would refuse this file: nothing of it would be loaded.";
    }
    return loaded;
}

// The file's entries with what the library made of each; the records in ID order, null where
// the library made none.
std::vector<SsoServerConfigOAuth *> collectEntries(SsoServer &server, LogCollector &log,
                                                   CheckReport &report) {
    report.providers = entriesOf(server.configPath + "/" + ConfigKeys::fileName, log);
    std::vector<SsoServerConfigOAuth *> records(report.providers.size(), nullptr);
    for (SsoServerConfig *config : server.configs) {
        if (config == nullptr || config->getLoginType() != SsoServerConfig::kLoginTypeOAuth ||
            config->configId < 0 || static_cast<size_t>(config->configId) >= records.size()) {
            continue;
        }
        auto *record = static_cast<SsoServerConfigOAuth *>(config);
        records[static_cast<size_t>(record->configId)] = record;
        copyRecord(*record, report.providers[static_cast<size_t>(record->configId)]);
    }
    for (ProviderReport &provider : report.providers) {
        if (!provider.served) {
            provider.notes.push_back(
                "listed in the login options, but the library serves OAuth entries only");
        }
    }
    return records;
}

size_t servedCount(CheckReport const &report) {
    size_t served = 0;
    for (ProviderReport const &provider : report.providers) {
        served += provider.served ? 1 : 0;
    }
    return served;
}

// --offline ends after validation: no entry is discovered, and a proxy named by host was
// judged by its form alone.
void finishOffline(CheckReport &report) {
    for (ProviderReport &provider : report.providers) {
        if (provider.served) {
            provider.discovery = ProviderReport::Discovery::Skipped;
        }
        if (!provider.proxy.empty() && SocketValidateIp(proxyHost(provider.proxy).c_str()) != 1) {
            provider.notes.push_back("proxy host '" + proxyHost(provider.proxy) +
                                     "' was checked for form only: --offline looks up no "
                                     "name");
        }
    }
    report.loads = true;
    report.verdict = "The file passes validation (" + std::to_string(servedCount(report)) +
                     " OAuth provider(s)); discovery was not tried (--offline).";
}

// Discovery for every record; the number that succeeded. Every provider is tried, also after a
// failure: the library stops at the first one, but the admin wants to hear about all of them at
// once.
size_t discoverAll(SsoServer &server, std::vector<SsoServerConfigOAuth *> const &records,
                   LogCollector &log, CheckReport &report) {
    size_t discovered = 0;
    for (size_t id = 0; id < records.size(); ++id) {
        if (records[id] == nullptr) {
            continue;
        }
        ProviderReport &provider = report.providers[id];
        size_t mark = log.mark();
        bool ok = server.loadMetadata(records[id]);
        std::vector<std::string> statements = log.since(mark);
        provider.discoveryUrl = discoveryUrlIn(statements);
        addProblems(provider.problems, statements);
        provider.discovery =
            ok ? ProviderReport::Discovery::Succeeded : ProviderReport::Discovery::Failed;
        discovered += ok ? 1 : 0;
        copyEndpoints(*records[id], provider);
    }
    return discovered;
}

// The URL for each login option, through the same road as SSO_GET_CONFIG with that ID.
void buildAuthorizationUrls(SsoServer &server, std::vector<SsoServerConfigOAuth *> const &records,
                            LogCollector &log, CheckReport &report) {
    for (ProviderReport &provider : report.providers) {
        if (!provider.served || provider.discovery != ProviderReport::Discovery::Succeeded) {
            continue;
        }
        size_t id = static_cast<size_t>(provider.id);
        if (id >= server.configs.size()) {
            provider.notes.push_back(
                "the login option ID " + std::to_string(id) +
                " selects no record: an entry of type SAML stands before this one, so users "
                "cannot log in with it (put SAML entries after all OAuth entries)");
            continue;
        }
        if (server.configs[id] != records[id]) {
            int32_t other = server.configs[id] ? server.configs[id]->configId : -1;
            provider.notes.push_back(
                "the login option ID " + std::to_string(id) + " selects the record of ID " +
                std::to_string(other) +
                ": an entry of type SAML stands before this one, so users who choose this "
                "entry are sent to that record's provider (put SAML entries after all OAuth "
                "entries)");
        }
        size_t mark = log.mark();
        provider.authorizationUrl = authorizationUrlFor(server, provider.id);
        addProblems(provider.problems, log.since(mark));
    }
}

void judgeDiscovery(size_t discovered, CheckReport &report) {
    size_t served = servedCount(report);
    report.loads = discovered == served;
    if (report.loads) {
        report.verdict = "The library would load this file: " + std::to_string(served) +
                         " OAuth provider(s), discovery succeeded for all.";
    } else {
        report.verdict = "The library would refuse this file: discovery failed for " +
                         std::to_string(served - discovered) + " of " + std::to_string(served) +
                         " provider(s).";
    }
}

void check(std::string const &given, bool offline, LogCollector &log, CheckReport &report) {
    ConfigPlace place;
    if (!openPlace(place, given, report)) {
        return;
    }
    SsoServer server;
    server.configPath = place.directory;
    if (!validateFile(server, offline, log, report)) {
        return;
    }
    std::vector<SsoServerConfigOAuth *> records = collectEntries(server, log, report);
    if (offline) {
        finishOffline(report);
        return;
    }
    CurlRequest &network = CurlRequest::getNetwork();
    size_t mark = log.mark();
    if (!network.init(CURL_GLOBAL_ALL)) {
        addProblems(report.problems, log.since(mark));
        report.verdict = "The transport could not start, so discovery could not be tried.";
        return;
    }
    size_t discovered = discoverAll(server, records, log, report);
    buildAuthorizationUrls(server, records, log, report);
    network.cleanUp();
    judgeDiscovery(discovered, report);
}

}  // namespace

std::string authorizationUrlFrom(std::string const &clientConfig, std::string const &session,
                                 std::string const &state, std::string const &nonce) {
    // "<client JSON>|<code challenge>|<session>": the challenge is Base64url and the session
    // ours, so the JSON is everything before the last two separators, whatever it holds.
    std::string text = clientConfig;
    std::string suffix = "|" + session;
    if (text.size() <= suffix.size() ||
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return "";
    }
    text.resize(text.size() - suffix.size());
    size_t separator = text.find_last_of('|');
    if (separator == std::string::npos) {
        return "";
    }
    std::string clientJson = text.substr(0, separator);
    std::string challenge = text.substr(separator + 1);
    std::string data = "OAuth|" + clientJson + "|" + state + "|" + nonce + "|" + challenge;
    std::unique_ptr<char[]> encoded(UrlEncode(data.c_str()));
    std::unique_ptr<char[]> url(SsoActions::loginUrl(encoded.get()));
    return url ? std::string(url.get()) : std::string();
}

void describeRecord(SsoServerConfigOAuth const &record, ProviderReport &report) {
    report.id = record.configId;
    report.provider = record.provider;
    copyRecord(record, report);
    copyEndpoints(record, report);
}

std::string directoryOf(std::string const &path) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

ConfigPlace::~ConfigPlace() {
    if (!link_.empty()) {
        ::unlink(link_.c_str());
    }
    if (!linkDirectory_.empty()) {
        ::rmdir(linkDirectory_.c_str());
    }
}

bool ConfigPlace::open(std::string const &given, std::string &error) {
    path = given;
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (S_ISDIR(info.st_mode)) {
        path = (path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path) +
               "/" + ConfigKeys::fileName;
        if (::stat(path.c_str(), &info) != 0) {
            error = path + ": " + std::strerror(errno);
            return false;
        }
    }
    if (!S_ISREG(info.st_mode)) {
        error = path + ": not a regular file";
        return false;
    }
    found = true;
    if (baseName(path) == ConfigKeys::fileName) {
        directory = directoryOf(path);
        return true;
    }
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    char const *base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qxss-check.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr) {
        error = "cannot make a temporary directory: " + std::string(std::strerror(errno));
        return false;
    }
    linkDirectory_ = name.data();
    std::string link = linkDirectory_ + "/" + ConfigKeys::fileName;
    if (::symlink(resolved, link.c_str()) != 0) {
        error = "cannot link the file into " + linkDirectory_ + ": " + std::strerror(errno);
        return false;
    }
    link_ = link;
    directory = linkDirectory_;
    return true;
}

CheckReport checkConfiguration(std::string const &file, bool offline, LogCollector &log) {
    CheckReport report;
    report.file = file;
    report.offline = offline;
    // The one boundary of the checker: nothing thrown below may end it without a report.
    try {
        check(file, offline, log, report);
        for (ProviderReport &provider : report.providers) {
            provider.warnings = entryWarnings(provider);
        }
    } catch (std::exception const &error) {
        report.loads = false;
        report.problems.push_back(
            {true, std::string("qxss-check: unexpected failure: ") + error.what()});
        report.verdict = "The check could not be completed.";
    }
    return report;
}
