#include "tools/qxss-check/CheckReportOutput.h"

#include "tools/qxss-check/TextEscape.h"

#include "support/ConfigKeys.h"

#include <json/value.h>
#include <json/writer.h>

#include <sstream>

namespace {

char const *discoveryWord(ProviderReport::Discovery discovery) {
    switch (discovery) {
        case ProviderReport::Discovery::Skipped:
            return "skipped";
        case ProviderReport::Discovery::Succeeded:
            return "succeeded";
        case ProviderReport::Discovery::Failed:
            return "failed";
        case ProviderReport::Discovery::NotTried:
            break;
    }
    return "not tried";
}

std::string orNone(std::string const &text, char const *none = "(none)") {
    return text.empty() ? none : text;
}

void field(std::ostringstream &out, char const *label, std::string const &value) {
    std::string padded = std::string("  ") + label + ":";
    padded.resize(22, ' ');
    out << padded << escapeControls(value) << "\n";
}

void problemLines(std::ostringstream &out, std::vector<LoggedProblem> const &problems,
                  char const *indent) {
    for (LoggedProblem const &problem : problems) {
        // A statement may span lines (a parser's message); keep its lines under one another.
        out << indent;
        size_t start = 0;
        for (size_t end = problem.line.find('\n'); end != std::string::npos;
             end = problem.line.find('\n', start)) {
            out << escapeControls(problem.line.substr(start, end - start)) << "\n"
                << indent << "  ";
            start = end + 1;
        }
        out << escapeControls(problem.line.substr(start)) << "\n";
    }
}

void remarks(std::ostringstream &out, char const *word, std::vector<std::string> const &lines,
             char const *indent) {
    for (std::string const &line : lines) {
        out << indent << word << ": " << escapeControls(line) << "\n";
    }
}

void providerText(std::ostringstream &out, ProviderReport const &provider) {
    out << "ID " << provider.id << ": " << escapeControls(provider.name) << "\n";
    field(out, "description", provider.desc);
    field(out, "kind", provider.type + ", " + provider.provider);
    remarks(out, "note", provider.notes, "  ");
    if (provider.served) {
        field(out, ConfigKeys::idpDomain, provider.idpDomain);
        field(out, ConfigKeys::clientId, provider.clientId);
        std::string uris;
        for (std::string const &uri : provider.redirectUris) {
            uris += (uris.empty() ? "" : " ") + uri;
        }
        field(out, ConfigKeys::redirectUris, uris);
        field(out, "user type",
              provider.userType + (provider.userName.empty()
                                       ? ""
                                       : ", user name from claim '" + provider.userName + "'"));
        field(out, "prompt", orNone(provider.promptType, "(provider's default)"));
        field(out, "refresh",
              provider.refresh
                  ? "on, a login can be refreshed for " +
                        std::to_string(provider.refreshLifetime == 0 ? 3600
                                                                     : provider.refreshLifetime) +
                        " s"
                  : "off");
        field(out, "proxy", orNone(provider.proxy, "(none: direct)"));
        std::string discovery = discoveryWord(provider.discovery);
        if (!provider.discoveryUrl.empty()) {
            discovery = provider.discoveryUrl + " (" + discovery + ")";
        }
        field(out, "discovery", discovery);
        if (provider.discovery == ProviderReport::Discovery::Succeeded ||
            provider.discovery == ProviderReport::Discovery::Failed) {
            field(out, "issuer", orNone(provider.issuer));
            field(out, "authorization", orNone(provider.authorizationEndpoint));
            field(out, "token", orNone(provider.tokenEndpoint));
            field(out, "userinfo",
                  orNone(provider.userinfoEndpoint) +
                      (provider.userinfoFromFile ? " (userinfo_uri of the file)" : ""));
            field(out, "revocation", orNone(provider.revocationEndpoint));
        } else if (provider.userinfoFromFile) {
            field(out, "userinfo",
                  provider.userinfoEndpoint.empty() ? "(userinfo_uri of the file)"
                                                    : provider.userinfoEndpoint);
        }
        if (!provider.authorizationUrl.empty()) {
            field(out, "authorization URL", provider.authorizationUrl);
        }
    }
    remarks(out, "warning", provider.warnings, "  ");
    if (!provider.problems.empty()) {
        out << "  problems:\n";
        problemLines(out, provider.problems, "    ");
    }
    out << "\n";
}

Json::Value problemsJson(std::vector<LoggedProblem> const &problems) {
    Json::Value list(Json::arrayValue);
    for (LoggedProblem const &problem : problems) {
        Json::Value item;
        item["level"] = problem.error ? "error" : "warning";
        item["line"] = problem.line;
        list.append(item);
    }
    return list;
}

Json::Value textList(std::vector<std::string> const &lines) {
    Json::Value list(Json::arrayValue);
    for (std::string const &line : lines) {
        list.append(line);
    }
    return list;
}

Json::Value providerJson(ProviderReport const &provider) {
    Json::Value item;
    item["id"] = provider.id;
    item["name"] = provider.name;
    item["desc"] = provider.desc;
    item["type"] = provider.type;
    item["provider"] = provider.provider;
    item["served"] = provider.served;
    if (provider.served) {
        item[ConfigKeys::idpDomain] = provider.idpDomain;
        item[ConfigKeys::clientId] = provider.clientId;
        item[ConfigKeys::redirectUris] = Json::Value(Json::arrayValue);
        for (std::string const &uri : provider.redirectUris) {
            item[ConfigKeys::redirectUris].append(uri);
        }
        item["user_type"] = provider.userType;
        item["user_name"] = provider.userName;
        item["prompt_type"] = provider.promptType;
        item["refresh"] = provider.refresh;
        item["refresh_lifetime"] = Json::Int64(provider.refreshLifetime);
        item["proxy"] = provider.proxy;
        Json::Value &discovery = item["discovery"];
        discovery["result"] = discoveryWord(provider.discovery);
        discovery["url"] = provider.discoveryUrl;
        Json::Value &endpoints = item["endpoints"];
        endpoints["issuer"] = provider.issuer;
        endpoints["authorization"] = provider.authorizationEndpoint;
        endpoints["token"] = provider.tokenEndpoint;
        endpoints["userinfo"] = provider.userinfoEndpoint;
        endpoints["revocation"] = provider.revocationEndpoint;
        endpoints["userinfo_from_file"] = provider.userinfoFromFile;
        item["authorization_url"] = provider.authorizationUrl;
    }
    item["problems"] = problemsJson(provider.problems);
    item["notes"] = textList(provider.notes);
    item["warnings"] = textList(provider.warnings);
    return item;
}

}  // namespace

std::string reportAsText(CheckReport const &report) {
    std::ostringstream out;
    out << "Configuration file: " << escapeControls(report.file) << "\n";
    remarks(out, "warning", report.warnings, "");
    out << "\n";
    for (ProviderReport const &provider : report.providers) {
        providerText(out, provider);
    }
    if (!report.problems.empty()) {
        out << "Problems:\n";
        problemLines(out, report.problems, "  ");
        out << "\n";
    }
    out << "Result: " << escapeControls(report.verdict) << "\n";
    return out.str();
}

std::string reportAsJson(CheckReport const &report) {
    Json::Value root;
    root["file"] = report.file;
    root["loads"] = report.loads;
    root["offline"] = report.offline;
    root["verdict"] = report.verdict;
    root["problems"] = problemsJson(report.problems);
    root["warnings"] = textList(report.warnings);
    root["providers"] = Json::Value(Json::arrayValue);
    for (ProviderReport const &provider : report.providers) {
        root["providers"].append(providerJson(provider));
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, root) + "\n";
}
