// SsoServer, configuration file: reading "sso.cfg", validating each entry in the order the log
// reports it, and making the provider records and the login options from a file taken whole.

#include "platform/Log.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/ConfigKeys.h"
#include "support/ConfigValues.h"
#include "support/SsoJson.h"
#include "support/SsoValidation.h"

#include <json/value.h>
#include <json/writer.h>

#include <cstring>
#include <exception>
#include <vector>

namespace {

char const kHttp[] = "http://";
char const kHttps[] = "https://";
// What follows a field's name when its value has neither web scheme.
char const kNeedsWebScheme[] = "has wrong value. It has to start with 'http://' or 'https://'";

bool startsWith(std::string const &text, char const *prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

bool hasWebScheme(std::string const &text) {
    return startsWith(text, kHttp) || startsWith(text, kHttps);
}

// How an element is shown in the log whatever its type.
std::string shown(Json::Value const &value) {
    if (value.isArray() || value.isObject()) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        return Json::writeString(builder, value);
    }
    return value.asString();
}

bool fail(char const *message) {
    Log() << "SsoServer: ERROR! " << message << ".\n";
    return false;
}

// "Field '<key>' <complaint>", the form of most refusals below.
bool failField(char const *key, char const *complaint) {
    Log() << "SsoServer: ERROR! Field '" << key << "' " << complaint << ".\n";
    return false;
}

bool requireStrings(Json::Value const &object, std::vector<char const *> const &keys) {
    for (char const *key : keys) {
        if (!object.isMember(key)) {
            return failField(key, "not set in config");
        }
        if (std::strcmp(key, ConfigKeys::redirectUris) == 0) {
            if (!object[key].isArray()) {
                return failField(key, "is not an array type");
            }
        } else if (!object[key].isString()) {
            return failField(key, "has not string value in config");
        }
    }
    return true;
}

bool optionalUrl(Json::Value const &config, char const *key) {
    if (!config.isMember(key)) {
        return true;
    }
    if (!config[key].isString()) {
        return failField(key, "value is not string");
    }
    if (!hasWebScheme(config[key].asString())) {
        return failField(key, kNeedsWebScheme);
    }
    return true;
}

bool optionalOfType(Json::Value const &config, char const *key, bool (Json::Value::*isType)() const,
                    char const *complaint) {
    if (config.isMember(key) && !(config[key].*isType)()) {
        return failField(key, complaint);
    }
    return true;
}

// The entry is an object with its required members, and so is its "config".
bool validShape(Json::Value const &entry) {
    if (!entry.isObject()) {
        return fail("Config entry is not a JSON object");
    }
    if (!requireStrings(
            entry, {ConfigKeys::name, ConfigKeys::desc, ConfigKeys::type, ConfigKeys::provider})) {
        return false;
    }
    if (!entry.isMember(ConfigKeys::config) || !entry[ConfigKeys::config].isObject()) {
        return failField(ConfigKeys::config, "not set in config");
    }
    return requireStrings(entry[ConfigKeys::config],
                          {ConfigKeys::idpDomain, ConfigKeys::clientId, ConfigKeys::clientSecret,
                           ConfigKeys::redirectUris, ConfigKeys::userType});
}

// The login type and the provider keyword are words this system knows.
bool validWords(Json::Value const &entry) {
    std::string type = entry[ConfigKeys::type].asString();
    if (type != ConfigValues::typeOAuth && type != ConfigValues::typeSaml) {
        return failField(ConfigKeys::type, "has wrong value");
    }
    std::string provider = entry[ConfigKeys::provider].asString();
    if (provider != ConfigValues::okta && provider != ConfigValues::microsoft &&
        provider != ConfigValues::google && provider != ConfigValues::keycloak) {
        return failField(ConfigKeys::provider, "has wrong value");
    }
    return true;
}

// The provider's domain and every redirect URI are web addresses.
bool validAddresses(Json::Value const &config) {
    if (!hasWebScheme(config[ConfigKeys::idpDomain].asString())) {
        return failField(ConfigKeys::idpDomain, kNeedsWebScheme);
    }
    Json::Value const &uris = config[ConfigKeys::redirectUris];
    if (uris.empty()) {
        return failField(ConfigKeys::redirectUris, "is empty");
    }
    for (auto const &uri : uris) {
        Log() << "SsoServer: '" << ConfigKeys::redirectUris << "' element: '" << shown(uri)
              << "'.\n";
        if (!uri.isString()) {
            return fail("Element type is not a string");
        }
        if (!hasWebScheme(uri.asString())) {
            return fail("Element has wrong value. It has to start with 'http://' or 'https://'");
        }
    }
    return true;
}

// The user type and the optional members of "config", each of its own type.
bool validOptions(Json::Value const &config) {
    std::string userType = config[ConfigKeys::userType].asString();
    if (userType != ConfigValues::userTypeLocal && userType != ConfigValues::userTypeDomain) {
        return failField(ConfigKeys::userType, "has wrong value. It has to be 'local' or 'domain'");
    }
    if (!optionalUrl(config, ConfigKeys::userinfoUri) ||
        !optionalOfType(config, ConfigKeys::userName, &Json::Value::isString,
                        "value is not string") ||
        !optionalOfType(config, ConfigKeys::promptType, &Json::Value::isString,
                        "value is not string") ||
        !optionalOfType(config, ConfigKeys::refresh, &Json::Value::isBool, "value is not bool")) {
        return false;
    }
    if (config.isMember(ConfigKeys::refreshLifetime)) {
        // The JSON library's own bound is the only upper one: a number past int64 is "not
        // integer", so the second message is met by negative numbers alone.
        if (!config[ConfigKeys::refreshLifetime].isInt64()) {
            return failField(ConfigKeys::refreshLifetime, "type is not integer");
        }
        if (config[ConfigKeys::refreshLifetime].asInt64() < 0) {
            return failField(ConfigKeys::refreshLifetime, "value is negative or too big");
        }
    }
    return true;
}

// An optional proxy is a web address whose host and port resolve, and an HTTPS proxy needs a
// CA file to be trusted by.
bool validProxy(Json::Value const &config) {
    if (!config.isMember(ConfigKeys::proxy)) {
        return true;
    }
    if (!optionalUrl(config, ConfigKeys::proxy)) {
        return false;
    }
    std::string proxy = config[ConfigKeys::proxy].asString();
    char const schemeEnd[] = "://";
    if (validateProxy(proxy.c_str() + proxy.find(schemeEnd) + std::strlen(schemeEnd)) != 0) {
        return fail("Proxy validation failed");
    }
    if (startsWith(proxy, kHttps) && validateCaFile() == -1) {
        return fail("Can't detect CA chain file");
    }
    return true;
}

// The checks of one entry, in the order the log reports them.
bool validEntry(Json::Value const &entry) {
    if (!validShape(entry) || !validWords(entry)) {
        return false;
    }
    Json::Value const &config = entry[ConfigKeys::config];
    return validAddresses(config) && validOptions(config) && validProxy(config);
}

// Validates every entry before anything is created, so a file is taken whole or not at all,
// and numbers the valid ones with their "id".
bool validateEntries(Json::Value &root) {
    int32_t id = 0;
    for (auto &entry : root) {
        Log() << "SsoServer: Validating config with ID: " << id << ".\n";
        print(entry);
        bool valid = false;
        try {
            valid = validEntry(entry);
        } catch (std::exception const &error) {
            Log() << "SsoServer: ERROR! Config has a value of a wrong type: '" << error.what()
                  << "'.\n";
        }
        if (!valid) {
            Log() << "SsoServer: ERROR! Can't load configure. Config with ID: " << id
                  << " is invalid.\n";
            return false;
        }
        entry[ConfigKeys::id] = id;
        Log() << "SsoServer: Added config with ID: " << id << "\n";
        ++id;
    }
    return true;
}

// Reads the file into `root`: a non-empty array or object. False (logged) otherwise.
bool readConfigRoot(std::string const &file, Json::Value &root) {
    if (!readFile(file.c_str(), root)) {
        Log() << "SsoServer: ERROR! Can't load configure. Parsing string to JSON object failed.\n";
        return false;
    }
    if (root.empty()) {
        Log() << "SsoServer: ERROR! Can't load configure. JSON object is empty.\n";
        return false;
    }
    if (!root.isArray() && !root.isObject()) {
        Log() << "SsoServer: ERROR! Can't load configure. JSON object type is. invalid.\n";
        return false;
    }
    return true;
}

// "id=<id> name=<name> desc=<desc> type=<type> provider=<provider>", "|"-joined over all
// entries, SAML ones included.
std::string loginOptionsOf(Json::Value const &root) {
    std::string options;
    for (auto const &entry : root) {
        if (!options.empty()) {
            options += "|";
        }
        options += "id=" + entry[ConfigKeys::id].asString() +
                   " name=" + entry[ConfigKeys::name].asString() +
                   " desc=" + entry[ConfigKeys::desc].asString() +
                   " type=" + entry[ConfigKeys::type].asString() +
                   " provider=" + entry[ConfigKeys::provider].asString();
    }
    return options;
}

}  // namespace

bool SsoServer::loadConfigsJson() {
    if (machineType == kMachineUnset) {
        Log() << "SsoServer: ERROR! Can't load configuration file. Machine type is not set.\n";
        return false;
    }
    if (configPath.empty()) {
        Log() << "SsoServer: ERROR! Can't load configuration file. Configuration path is empty.\n";
        return false;
    }
    Log() << "SsoServer: Loading configuration file.\n";
    Json::Value root;
    if (!readConfigRoot(configFile(), root) || !validateEntries(root)) {
        return false;
    }
    makeRecords(root);
    std::string options = loginOptionsOf(root);
    Log() << "SsoServer: Login options buffer: '" << options << "'\n";
    char *encoded = UrlEncode(options.c_str());
    {
        std::lock_guard<std::mutex> lock(loginOptionsMutex);
        loginOptions = encoded;
    }
    delete[] encoded;
    return true;
}

void SsoServer::makeRecords(Json::Value const &root) {
    if (configs.capacity() < root.size()) {
        configs.reserve(root.size());
    }
    for (auto const &entry : root) {
        if (entry[ConfigKeys::type].asString() == ConfigValues::typeOAuth) {
            Log() << "SsoServer: Set config for OAuth.\n";
            auto *config = new SsoServerConfigOAuth();
            config->setConfigData(entry);
            configs.push_back(config);
        }
    }
}
