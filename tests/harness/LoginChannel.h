#pragma once

#include "tests/harness/LoginDriver.h"

#include <string>
#include <vector>

class FailureServer;
class LocalProvider;
class WorkerHost;

// What the login tests through the channel share: a server loaded on a host, a whole login as
// a host does it, a provider played by a FailureServer, and the fields of the login replies.
class LoginChannel {
public:
    // "<word><user>|<session value>|<expiry>|<user session>\n" taken apart; `ok` is false when
    // the line has another word or another number of fields.
    struct Token {
        bool ok = false;
        std::string user;
        std::string sessionValue;
        std::string expiry;
        std::string userSession;
    };
    static Token parse(std::string const &line, std::string const &word = "SSO_VERIFY_OK|");

    // The statement that ends a background login's work for `session`: its result was taken
    // from the engine, and the reply written, so the flow holds no transfer any more. The
    // closing statement for WorkerHost::strayReplies.
    static std::string drained(std::string const &session);
    // The statements that answer a verify whose session has no pending login, and a refresh
    // whose session value has no record: the closing statements of commands answered at once.
    static std::string noAuthInfo(std::string const &session);
    static std::string noRefreshInfo(std::string const &value);

    // A readable user session of the 32 characters the server asks for: `name` padded with "-".
    static std::string session(std::string const &name);

    // Makes this process a server with `entries` and loads them on `host`; the reply to
    // "SSO_LOAD_CONFIGS" (empty when the worker did not start).
    static std::string startServer(WorkerHost &host,
                                   std::vector<LoginDriver::Entry> const &entries);

    // Signs `user` in for `session` on configuration `id` and sends "SSO_VERIFY"; the reply
    // line, or the reason the road broke off before the command. `provider` as for
    // LoginDriver::authorize.
    static std::string login(WorkerHost &host, int id, std::string const &session,
                             std::string const &user = "alice",
                             LocalProvider const *provider = nullptr);

    // Serves a discovery document at "/.well-known/openid-configuration" and under "/v2.0"
    // that names "/auth", "/token", "/me" and "/revoke" under `endpoints` ("http://host:port"),
    // the server's own when empty.
    static void serveDiscovery(FailureServer &idp, std::string const &endpoints = "");
    // A token endpoint answer; members whose value is "-" are left out.
    static std::string tokens(std::string const &access, std::string const &id,
                              std::string const &refresh);
    // An entry for a provider that `idp` plays.
    static LoginDriver::Entry entryFor(FailureServer const &idp, std::string const &provider,
                                       bool refresh = true);

    // The node JSON and user session of a "SSO_GET_NODE_CONFIG_OK|" reply; both empty when
    // the line is another.
    static std::pair<std::string, std::string> nodeConfig(std::string const &line);
};
