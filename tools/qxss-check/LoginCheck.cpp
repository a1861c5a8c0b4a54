// --login: the checker as a host. Everything that decides the login is the library's own code
// (the load of SSO_LOAD_CONFIGS, the commands SSO_GET_CONFIG and SSO_VERIFY, the flow engine
// turned as the worker turns it, the blocking road); the checker only feeds it and reports.
#include "tools/qxss-check/LoginCheck.h"

#include "actions/SsoActions.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoUtils.h"
#include "tools/qxss-check/CheckOptions.h"
#include "tools/qxss-check/ConfigCheck.h"
#include "tools/qxss-check/ConfigWarnings.h"
#include "tools/qxss-check/LogCollector.h"
#include "tools/qxss-check/ProviderCalls.h"
#include "tools/qxss-check/TextEscape.h"
#include "transport/CurlRequest.h"
#include "transport/SsoRequest.h"
#include "worker/SsoCommands.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

// The printing side of one --login run.
class LoginReport {
public:
    LoginReport(std::FILE *out, bool showSecrets) : out_(out), showSecrets_(showSecrets) {}

    void line(std::string const &text) {
        std::fputs((escapeControls(text) + "\n").c_str(), out_);
        std::fflush(out_);
    }
    void blank() { std::fputs("\n", out_); }

    // The session value of a user token is what SSO_REFRESH and SSO_GET_NODE_CONFIG take: a
    // secret. "000" (no refresh) is none.
    std::string secret(std::string const &value) const {
        if (showSecrets_ || value.size() <= 4 || value == "000") {
            return value;
        }
        return value.substr(0, 4) + std::string(value.size() - 4, '*');
    }

    int fail(std::string const &why) {
        blank();
        line("Result: Not logged in: " + why + ".");
        return 1;
    }

private:
    std::FILE *out_;
    bool showSecrets_;
};

void printProblems(LoginReport &report, std::vector<std::string> const &statements) {
    std::vector<LoggedProblem> problems = problemsIn(statements);
    if (problems.empty()) {
        return;
    }
    report.line("Problems (the library's log):");
    for (LoggedProblem const &problem : problems) {
        report.line("  " + problem.line);
    }
}

bool parseJson(std::string const &text, Json::Value &value) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &value, &errors) &&
           value.isObject();
}

std::string compactJson(Json::Value const &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string textMember(Json::Value const &object, char const *key) {
    return object.isObject() && object.isMember(key) && object[key].isString()
               ? object[key].asString()
               : std::string();
}

// What the browser was sent back with: the parameters of its query (or fragment), or the code
// alone when no address was pasted.
struct Callback {
    bool address = false;  // an address (with parameters), not a bare code
    bool hasCode = false;
    bool hasState = false;
    std::string code;  // as it stood in the address: the library decodes it itself
    std::string state;
    std::string error;
    std::string errorDescription;
};

std::string decoded(std::string const &text) {
    std::unique_ptr<char[]> plain(UrlDecode(text.c_str()));
    return plain ? std::string(plain.get()) : text;
}

Callback readCallback(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' ||
                             text.back() == '\t')) {
        text.pop_back();
    }
    size_t first = text.find_first_not_of(" \t");
    text = first == std::string::npos ? std::string() : text.substr(first);
    Callback callback;
    size_t question = text.find('?');
    size_t hash = text.find('#');
    if (question == std::string::npos && hash == std::string::npos &&
        text.find('=') == std::string::npos) {
        callback.hasCode = !text.empty();
        callback.code = text;
        return callback;
    }
    callback.address = true;
    size_t start = question != std::string::npos ? question + 1 : hash + 1;
    size_t end = question != std::string::npos && hash != std::string::npos && hash > question
                     ? hash
                     : text.size();
    std::string query = text.substr(start, end - start);
    if (question != std::string::npos && query.find("code=") == std::string::npos &&
        hash != std::string::npos && hash > question) {
        query = text.substr(hash + 1);
    }
    size_t at = 0;
    while (at <= query.size()) {
        size_t amp = query.find('&', at);
        std::string pair =
            query.substr(at, amp == std::string::npos ? std::string::npos : amp - at);
        size_t equals = pair.find('=');
        std::string key = decoded(pair.substr(0, equals));
        std::string value = equals == std::string::npos ? "" : pair.substr(equals + 1);
        if (key == "code") {
            callback.hasCode = true;
            callback.code = value;
        } else if (key == "state") {
            callback.hasState = true;
            callback.state = decoded(value);
        } else if (key == "error") {
            callback.error = decoded(value);
        } else if (key == "error_description") {
            callback.errorDescription = decoded(value);
        }
        if (amp == std::string::npos) {
            break;
        }
        at = amp + 1;
    }
    return callback;
}

std::string roleOf(ProviderCall const &call, SsoServerConfigOAuth const &record) {
    std::string url = call.url;
    if (url == record.tokenUri) {
        return "token";
    }
    if (url == record.userinfoUri) {
        return "userinfo";
    }
    if (!record.revokeUri.empty() && url == record.revokeUri) {
        return "revocation";
    }
    if (url.find("/.well-known/openid-configuration") != std::string::npos) {
        return "discovery";
    }
    return "other";
}

void printCalls(LoginReport &report, std::vector<ProviderCall> const &calls,
                SsoServerConfigOAuth const *record) {
    for (ProviderCall const &call : calls) {
        char ms[32];
        std::snprintf(ms, sizeof ms, "%.1f ms", call.ms);
        std::string role = record ? roleOf(call, *record) : "discovery";
        std::string outcome = call.error.empty() ? std::to_string(call.status) + " in " + ms
                                                 : "no answer (" + call.error + ") after " + ms;
        report.line("  " + role + ": " + call.method + " " + call.url + " -> " + outcome);
        // A refused call's answer says why; a good one may hold tokens and is not shown.
        if (call.error.empty() && (call.status < 200 || call.status > 299)) {
            std::string body =
                call.body.size() > 300 ? call.body.substr(0, 300) + "..." : call.body;
            report.line("    answer: " + (body.empty() ? std::string("(empty)") : body));
        }
    }
}

ProviderCall const *lastCall(std::vector<ProviderCall> const &calls, std::string const &role,
                             SsoServerConfigOAuth const &record) {
    ProviderCall const *found = nullptr;
    for (ProviderCall const &call : calls) {
        if (roleOf(call, record) == role) {
            found = &call;
        }
    }
    return found;
}

// How the library's rules chose the user from the userinfo claims, in words.
void explainUserName(LoginReport &report, SsoServerConfigOAuth const &record,
                     Json::Value const &claims) {
    std::string claim;
    if (!record.userName.empty()) {
        claim = record.userName;
        report.line("  qx_user_name is '" + claim + "': that claim alone counts");
    } else if (record.provider == "okta" && claims.isMember("preferred_username")) {
        claim = "preferred_username";
        report.line(
            "  no qx_user_name, and the provider keyword is 'okta': the claim "
            "'preferred_username' counts");
    } else {
        claim = "email";
        report.line(std::string("  no qx_user_name: the claim 'email' counts") +
                    (record.provider == "okta" ? " (the answer has no 'preferred_username')"
                                               : " (the default of every provider)"));
    }
    if (!claims.isMember(claim)) {
        report.line("  the userinfo answer has no claim '" + claim + "'");
        return;
    }
    std::string value =
        claims[claim].isString() ? claims[claim].asString() : compactJson(claims[claim]);
    report.line("  " + claim + " is '" + value + "'");
    if (record.userType == "local") {
        report.line("  qx_user_type 'local': the name is cut before its first '@'");
    } else {
        report.line("  qx_user_type '" + record.userType + "': the name stays whole");
    }
}

// The reply to SSO_VERIFY on the background road: the worker's turn (wait, transfers, drain),
// repeated until the reply line is written or `seconds` have passed. "" on time-out.
std::string awaitReply(int seconds) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return "";
    }
    CurlRequest &network = CurlRequest::getNetwork();
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        network.waitForEvents(fds[0], fds[0], 50);
        network.perform();
        SsoCommands::drainCompletedFlows(fds[1]);
        char buffer[4096];
        ssize_t got;
        while ((got = ::read(fds[0], buffer, sizeof buffer)) > 0) {
            line.append(buffer, static_cast<size_t>(got));
        }
        if (!line.empty() && line.back() == '\n') {
            break;
        }
    }
    ::close(fds[0]);
    ::close(fds[1]);
    return line;
}

std::string withoutLineEnd(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// The start of SsoInitialize and then SSO_LOAD_CONFIGS, with the admin's file; false (the
// failure reported) when the library would not load it.
bool loadConfiguration(std::string const &directory, LogCollector &log, LoginReport &report) {
    SsoServer &server = SsoServer::getServer();
    server.configPath = directory;
    size_t mark = log.mark();
    server.setMachineType();
    CurlRequest::getNetwork().init(CURL_GLOBAL_ALL);
    SsoRequest::getNetwork().init(CURL_GLOBAL_ALL);
    size_t calls = ProviderCalls::all().size();
    int loaded = SsoActions::loadConfigs();
    std::vector<ProviderCall> discovery = ProviderCalls::since(calls);
    if (!discovery.empty()) {
        report.blank();
        report.line("Discovery (SSO_LOAD_CONFIGS):");
        printCalls(report, discovery, nullptr);
    }
    if (loaded != SsoActions::kConfigsLoaded) {
        report.blank();
        printProblems(report, log.since(mark));
        report.fail(loaded == SsoActions::kMetadataFailed
                        ? "discovery failed (SSO_LOAD_METADATA_FAILURE)"
                        : "the library would not load this file "
                          "(SSO_LOAD_CONFIGS_FAILURE)");
        return false;
    }
    return true;
}

char const kConfigOk[] = "SSO_GET_CONFIG_OK|";

// SSO_GET_CONFIG for the entry, as a host asks for it: the record that answered, with the
// reply's client configuration in `clientConfig`; null (the failure reported) when none did.
SsoServerConfigOAuth const *askClientConfig(std::string const &loginId, std::string const &session,
                                            LogCollector &log, LoginReport &report,
                                            std::string &clientConfig) {
    size_t mark = log.mark();
    std::unique_ptr<char[]> configReply(SsoCommands::execute({"SSO_GET_CONFIG", loginId, session}));
    std::string reply = configReply ? withoutLineEnd(configReply.get()) : "";
    std::string const configOk = kConfigOk;
    if (reply.compare(0, configOk.size(), configOk) != 0) {
        report.blank();
        printProblems(report, log.since(mark));
        report.fail("no OAuth record answers to the login option ID " + loginId + " (" +
                    (reply.empty() ? "no reply" : reply.substr(0, reply.find('|'))) + ")");
        return nullptr;
    }
    clientConfig = reply.substr(configOk.size());
    size_t index = std::strtoul(loginId.c_str(), nullptr, 10);
    auto const *record =
        static_cast<SsoServerConfigOAuth const *>(SsoServer::getServer().configs[index]);
    ProviderReport entry;
    describeRecord(*record, entry);
    entry.discovery = ProviderReport::Discovery::Succeeded;
    report.blank();
    report.line("Login option ID " + loginId + ": provider '" + record->provider +
                "', record of ID " + std::to_string(record->configId) + ", qx_refresh " +
                (record->refresh ? "on" : "off"));
    for (std::string const &warning : entryWarnings(entry)) {
        report.line("warning: " + warning);
    }
    return record;
}

// The authorization URL for a fresh `state`, shown to the admin; false (the failure reported)
// when the client side could not build it. `mark` is where the statements of this login began.
bool showAuthorizationUrl(std::string const &clientConfig, std::string const &session,
                          std::string &state, size_t mark, LogCollector &log, LoginReport &report) {
    state = getRandomAsciiString(SsoActions::kUserSessionLength);
    std::string nonce = getRandomAsciiString(SsoActions::kUserSessionLength);
    std::string url = authorizationUrlFrom(clientConfig, session, state, nonce);
    if (url.empty()) {
        printProblems(report, log.since(mark));
        report.fail("the client side could not build the authorization URL");
        return false;
    }
    report.blank();
    report.line("Open this address in a browser and sign in:");
    report.blank();
    report.line("  " + url);
    report.blank();
    report.line("Then paste the address the browser was sent back to (or the code alone):");
    return true;
}

// The code the admin pasted, its state checked against the one this login sent; empty (the
// failure reported) when there is none to verify.
std::string readCode(std::FILE *in, std::string const &state, LoginReport &report) {
    std::string pasted;
    char buffer[8192];
    bool gotLine = false;
    while (std::fgets(buffer, sizeof buffer, in) != nullptr) {
        gotLine = true;
        pasted += buffer;
        if (!pasted.empty() && pasted.back() == '\n') {
            break;
        }
    }
    if (!gotLine) {
        report.fail("nothing was pasted (end of input)");
        return "";
    }
    Callback callback = readCallback(pasted);
    if (!callback.error.empty()) {
        report.fail("the provider sent the error '" + callback.error + "'" +
                    (callback.errorDescription.empty() ? std::string()
                                                       : " ('" + callback.errorDescription + "')"));
        return "";
    }
    if (!callback.hasCode || callback.code.empty()) {
        report.fail(callback.address ? "the pasted address has no code"
                                     : "nothing was pasted (end of input)");
        return "";
    }
    if (callback.address) {
        if (!callback.hasState) {
            report.fail("the pasted address has no state");
            return "";
        }
        if (callback.state != state) {
            report.fail("the state of the pasted address is not the one this login sent");
            return "";
        }
        report.line("state: the one this login sent");
    } else {
        report.line("state: not checked (the code was given alone)");
    }
    return callback.code;
}

// What SSO_VERIFY came to: its reply line (without its end; empty when none came), the
// library's statements and the provider calls made meanwhile.
struct Verification {
    std::string reply;
    std::vector<std::string> statements;
    std::vector<ProviderCall> made;
};

// SSO_VERIFY with the code, on the road asked for, and the provider calls it made.
Verification verify(CheckOptions const &options, std::string const &code,
                    std::string const &session, SsoServerConfigOAuth const &record,
                    LogCollector &log, LoginReport &report) {
    Verification verification;
    size_t mark = log.mark();
    size_t calls = ProviderCalls::all().size();
    bool fellBack = false;
    if (options.blockingRoad) {
        std::unique_ptr<char[]> token(SsoActions::verifyLogin(code.c_str(), session.c_str()));
        verification.reply = token ? "SSO_VERIFY_OK|" + std::string(token.get()) + "|" + session
                                   : "SSO_VERIFY_FAILURE|" + session;
    } else {
        std::unique_ptr<char[]> at(SsoCommands::execute({"SSO_VERIFY", code, session}));
        fellBack = at != nullptr;
        verification.reply =
            withoutLineEnd(at ? std::string(at.get()) : awaitReply(options.timeoutSeconds));
    }
    verification.statements = log.since(mark);
    verification.made = ProviderCalls::since(calls);
    report.blank();
    report.line(std::string("SSO_VERIFY on the ") +
                (options.blockingRoad ? "blocking road"
                 : fellBack           ? "blocking road (the flow could not start)"
                                      : "background flow") +
                ":");
    printCalls(report, verification.made, &record);
    return verification;
}

// The claims of the last userinfo answer and how the user name was chosen from them.
void printClaims(std::vector<ProviderCall> const &made, SsoServerConfigOAuth const &record,
                 LoginReport &report) {
    ProviderCall const *userinfo = lastCall(made, "userinfo", record);
    Json::Value claims;
    if (!userinfo || !parseJson(userinfo->body, claims)) {
        return;
    }
    report.blank();
    report.line("Userinfo claims:");
    for (std::string const &name : claims.getMemberNames()) {
        report.line(
            "  " + name + ": " +
            (claims[name].isString() ? claims[name].asString() : compactJson(claims[name])));
    }
    report.blank();
    report.line("User name:");
    explainUserName(report, record, claims);
}

// A failed SSO_VERIFY: how far the library got, what it logged, and a hint where the provider's
// answers show a known cause. Returns the exit status.
int reportFailure(Verification const &verification, SsoServerConfigOAuth const &record,
                  int timeoutSeconds, LoginReport &report) {
    // The library had the user's name before the step that failed, when it got that far.
    static std::string const finalUser = "SsoServer: Final user is: '";
    for (std::string const &statement : verification.statements) {
        if (statement.compare(0, finalUser.size(), finalUser) == 0) {
            std::string name = statement.substr(finalUser.size());
            report.line("  local user name: '" + name.substr(0, name.rfind("'.")) +
                        "' (the login failed after it)");
        }
    }
    report.blank();
    printProblems(report, verification.statements);
    ProviderCall const *token = lastCall(verification.made, "token", record);
    ProviderCall const *revocation = lastCall(verification.made, "revocation", record);
    Json::Value tokens;
    if (revocation && revocation->error.empty() && revocation->status >= 200 &&
        revocation->status <= 299 && revocation->body.empty()) {
        report.line("hint: the provider answered the revocation with an empty " +
                    std::to_string(revocation->status) +
                    ", which the library counts as a failed revocation; set \"qx_refresh\": "
                    "true for this entry");
    } else if (token && token->status >= 200 && token->status <= 299 &&
               parseJson(token->body, tokens) && textMember(tokens, "access_token") != "" &&
               textMember(tokens, "refresh_token").empty()) {
        report.line(record.provider == "google"
                        ? "hint: the token answer has no refresh token: google sends one only "
                          "when the user consents; set \"qx_prompt_type\": \"consent\" for "
                          "this entry"
                        : "hint: the token answer has no refresh token, and the library fails "
                          "a login without one: the provider must issue one to this client");
    }
    std::string const &reply = verification.reply;
    if (reply.empty()) {
        return report.fail("SSO_VERIFY got no reply within " + std::to_string(timeoutSeconds) +
                           " s");
    }
    return report.fail("SSO_VERIFY was answered " + reply.substr(0, reply.find('|')));
}

// A successful SSO_VERIFY: the user token `token` ("<user>|<session value>|<expiry>"), what
// became of the refresh token, and the reply. Returns the exit status.
int reportSuccess(std::string const &token, std::string const &session,
                  Verification const &verification, SsoServerConfigOAuth const &record,
                  LoginReport &report) {
    // The user name may hold "|", so from the right.
    size_t expiryBar = token.rfind('|');
    size_t valueBar = expiryBar == std::string::npos || expiryBar == 0
                          ? std::string::npos
                          : token.rfind('|', expiryBar - 1);
    std::string user = valueBar == std::string::npos ? token : token.substr(0, valueBar);
    std::string value = valueBar == std::string::npos
                            ? std::string()
                            : token.substr(valueBar + 1, expiryBar - valueBar - 1);
    std::string expiry =
        expiryBar == std::string::npos ? std::string() : token.substr(expiryBar + 1);
    report.line("  local user name: '" + user + "'");

    report.blank();
    if (record.refresh) {
        bool kept = SsoServer::getServer().refreshInfoBySession.count(value) != 0;
        int64_t lifetime = record.refreshLifetime == 0 ? 3600 : record.refreshLifetime;
        report.line(kept ? "Refresh: the library keeps a refresh record under the session value; "
                           "SSO_REFRESH with it works for " +
                               std::to_string(lifetime) + " s"
                         : "Refresh: no refresh record was kept");
    } else if (record.provider == "microsoft") {
        report.line(
            "Revocation: none: the library does not revoke at microsoft; the refresh "
            "token stays valid at the provider until it expires there");
    } else {
        ProviderCall const *revocation = lastCall(verification.made, "revocation", record);
        report.line(revocation ? "Revocation: the refresh token was revoked at the provider (" +
                                     std::to_string(revocation->status) + ")"
                               : "Revocation: no revocation request was seen");
    }
    report.line("User token: " + user + "|" + report.secret(value) + "|" + expiry);
    report.line("Reply: SSO_VERIFY_OK|" + user + "|" + report.secret(value) + "|" + expiry + "|" +
                session);
    report.blank();
    report.line("Result: Logged in: a host's SSO_VERIFY gets the user '" + user + "'.");
    return 0;
}

}  // namespace

int runLogin(CheckOptions const &options, LogCollector &log, std::FILE *in, std::FILE *out) {
    LoginReport report(out, options.showSecrets);
    ConfigPlace place;
    std::string error;
    bool opened = place.open(options.file, error);
    report.line("Configuration file: " + place.path);
    for (std::string const &warning : fileWarnings(place.path)) {
        report.line("warning: " + warning);
    }
    if (!opened) {
        return report.fail(error);
    }
    if (!loadConfiguration(place.directory, log, report)) {
        return 1;
    }

    std::unique_ptr<char[]> sessionText(SsoActions::getUserSession());
    std::string session = sessionText ? sessionText.get() : "";
    size_t mark = log.mark();
    std::string clientConfig;
    SsoServerConfigOAuth const *record =
        askClientConfig(options.loginId, session, log, report, clientConfig);
    std::string state;
    if (record == nullptr ||
        !showAuthorizationUrl(clientConfig, session, state, mark, log, report)) {
        return 1;
    }
    std::string code = readCode(in, state, report);
    if (code.empty()) {
        return 1;
    }

    Verification verification = verify(options, code, session, *record, log, report);
    printClaims(verification.made, *record, report);
    std::string const &reply = verification.reply;
    std::string okWord = "SSO_VERIFY_OK|";
    std::string sessionEnd = "|" + session;
    bool ok = reply.compare(0, okWord.size(), okWord) == 0 &&
              reply.size() > okWord.size() + sessionEnd.size() &&
              reply.compare(reply.size() - sessionEnd.size(), sessionEnd.size(), sessionEnd) == 0;
    if (!ok) {
        return reportFailure(verification, *record, options.timeoutSeconds, report);
    }
    std::string token =
        reply.substr(okWord.size(), reply.size() - okWord.size() - sessionEnd.size());
    return reportSuccess(token, session, verification, *record, report);
}
