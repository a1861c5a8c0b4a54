#include "platform/Log.h"
#include "platform/Url.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "support/SsoJson.h"
#include "support/SsoValidation.h"

#include <json/value.h>
#include <json/writer.h>

#include <cstring>
#include <exception>
#include <vector>

namespace {

bool hasWebScheme(std::string const &text) {
    return text.compare(0, 7, "http://") == 0 || text.compare(0, 8, "https://") == 0;
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

bool requireStrings(Json::Value const &object, std::vector<char const *> const &keys) {
    for (char const *key : keys) {
        if (!object.isMember(key)) {
            Log() << "SsoServer: ERROR! Field '" << key << "' not set in config.\n";
            return false;
        }
        if (std::strcmp(key, "redirect_uris") == 0) {
            if (!object[key].isArray()) {
                return fail("Field 'redirect_uris' is not an array type");
            }
        } else if (!object[key].isString()) {
            Log() << "SsoServer: ERROR! Field '" << key << "' has not string value in config.\n";
            return false;
        }
    }
    return true;
}

bool optionalUrl(Json::Value const &config, char const *key, char const *notString,
                 char const *wrongValue) {
    if (!config.isMember(key)) {
        return true;
    }
    if (!config[key].isString()) {
        return fail(notString);
    }
    if (!hasWebScheme(config[key].asString())) {
        return fail(wrongValue);
    }
    return true;
}

// The checks of one entry, in the order the log reports them.
bool validEntry(Json::Value const &entry) {
    if (!entry.isObject()) {
        return fail("Config entry is not a JSON object");
    }
    if (!requireStrings(entry, {"name", "desc", "type", "provider"})) {
        return false;
    }
    if (!entry.isMember("config") || !entry["config"].isObject()) {
        return fail("Field 'config' not set in config");
    }
    Json::Value const &config = entry["config"];
    if (!requireStrings(config, {"idp_domain", "client_id", "client_secret", "redirect_uris",
                                 "qx_user_type"})) {
        return false;
    }
    std::string type = entry["type"].asString();
    if (type != "OAuth" && type != "SAML") {
        return fail("Field 'type' has wrong value");
    }
    std::string provider = entry["provider"].asString();
    if (provider != "okta" && provider != "microsoft" && provider != "google" &&
        provider != "keycloak") {
        return fail("Field 'provider' has wrong value");
    }
    if (!hasWebScheme(config["idp_domain"].asString())) {
        return fail(
            "Field 'idp_domain' has wrong value. It has to start with 'http://' or 'https://'");
    }
    Json::Value const &uris = config["redirect_uris"];
    if (uris.empty()) {
        return fail("Field 'redirect_uris' is empty");
    }
    for (auto const &uri : uris) {
        Log() << "SsoServer: 'redirect_uris' element: '" << shown(uri) << "'.\n";
        if (!uri.isString()) {
            return fail("Element type is not a string");
        }
        if (!hasWebScheme(uri.asString())) {
            return fail("Element has wrong value. It has to start with 'http://' or 'https://'");
        }
    }
    std::string userType = config["qx_user_type"].asString();
    if (userType != "local" && userType != "domain") {
        return fail("Field 'qx_user_type' has wrong value. It has to be 'local' or 'domain'");
    }
    if (!optionalUrl(config, "userinfo_uri", "Field 'userinfo_uri' value is not string",
                     "Field 'userinfo_uri' has wrong value. It has to start with 'http://' or "
                     "'https://'")) {
        return false;
    }
    if (config.isMember("qx_user_name") && !config["qx_user_name"].isString()) {
        return fail("Field 'qx_user_name' value is not string");
    }
    if (config.isMember("qx_prompt_type") && !config["qx_prompt_type"].isString()) {
        return fail("Field 'qx_prompt_type' value is not string");
    }
    if (config.isMember("qx_refresh") && !config["qx_refresh"].isBool()) {
        return fail("Field 'qx_refresh' value is not bool");
    }
    if (config.isMember("qx_refresh_lifetime")) {
        // The JSON library's own bound is the only upper one: a number past int64 is "not
        // integer", so the second message is met by negative numbers alone.
        if (!config["qx_refresh_lifetime"].isInt64()) {
            return fail("Field 'qx_refresh_lifetime' type is not integer");
        }
        if (config["qx_refresh_lifetime"].asInt64() < 0) {
            return fail("Field 'qx_refresh_lifetime' value is negative or too big");
        }
    }
    if (config.isMember("qx_proxy")) {
        if (!optionalUrl(config, "qx_proxy", "Field 'qx_proxy' value is not string",
                         "Field 'qx_proxy' has wrong value. It has to start with 'http://' or "
                         "'https://'")) {
            return false;
        }
        std::string proxy = config["qx_proxy"].asString();
        if (validateProxy(proxy.c_str() + proxy.find("://") + 3) != 0) {
            return fail("Proxy validation failed");
        }
        if (proxy.compare(0, 8, "https://") == 0 && validateCaFile() == -1) {
            return fail("Can't detect CA chain file");
        }
    }
    return true;
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
    std::string file = configPath + "/sso.cfg";
    Json::Value root;
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

    // First pass: validate every entry before anything is created, so a file is taken whole
    // or not at all.
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
        entry["id"] = id;
        Log() << "SsoServer: Added config with ID: " << id << "\n";
        ++id;
    }

    // Second pass: records and login options.
    if (configs.capacity() < root.size()) {
        configs.reserve(root.size());
    }
    std::string options;
    for (auto const &entry : root) {
        options += "id=" + entry["id"].asString() + " name=" + entry["name"].asString() +
                   " desc=" + entry["desc"].asString() + " type=" + entry["type"].asString() +
                   " provider=" + entry["provider"].asString() + "|";
        if (entry["type"].asString() == "OAuth") {
            Log() << "SsoServer: Set config for OAuth.\n";
            auto *config = new SsoServerConfigOAuth();
            config->setConfigData(entry);
            configs.push_back(config);
        }
    }
    if (!options.empty() && options.back() == '|') {
        options.pop_back();
    }
    Log() << "SsoServer: Login options buffer: '" << options << "'\n";
    char *encoded = UrlEncode(options.c_str());
    {
        std::lock_guard<std::mutex> lock(loginOptionsMutex);
        loginOptions = encoded;
    }
    delete[] encoded;
    return true;
}
