// SsoActions, client side: reading the login data and building the authorization URL for
// SsoLogin and SsoLoginUrl.

#include "actions/SsoActions.h"
#include "client/SsoClient.h"
#include "platform/Log.h"
#include "platform/Url.h"
#include "support/ConfigValues.h"

#include <string>
#include <vector>

namespace {

// The fields of the login data, in their order.
enum LoginField : size_t { kType, kClientConfig, kState, kNonce, kChallenge, kLoginFieldCount };

// Each text before a "|" is a field, and the text after the last "|" always is one too.
bool splitLoginData(std::string const &source, std::vector<std::string> &fields) {
    Log() << "SsoActions: Read arguments source: " << source << ".\n";
    if (source.empty()) {
        Log() << "SsoActions: ERROR! Read arguments source is empty.\n";
        return false;
    }
    size_t start = 0;
    for (size_t bar; (bar = source.find('|', start)) != std::string::npos; start = bar + 1) {
        fields.emplace_back(source, start, bar - start);
    }
    fields.emplace_back(source, start, std::string::npos);
    return true;
}

bool validateLoginData(std::vector<std::string> const &fields) {
    if (fields.empty()) {
        Log() << "SsoActions: ERROR! Login arguments list is empty.\n";
        return false;
    }
    if (fields.size() != kLoginFieldCount) {
        Log() << "SsoActions: ERROR! Number of login arguments " << fields.size()
              << " is invalid.\n";
        return false;
    }
    Log() << "SsoActions: First login argument: " << fields[kType] << ".\n";
    // "Saml" passes here on purpose; it is refused as a login type later.
    if (fields[kType] != ConfigValues::typeOAuth && fields[kType] != ConfigValues::loginDataSaml) {
        Log() << "SsoActions: ERROR! First login argument is invalid.\n";
        return false;
    }
    for (size_t position = 2; position <= kLoginFieldCount; ++position) {
        std::string const &field = fields[position - 1];
        Log() << "SsoActions: " << position << " login argument: " << field << ".\n";
        if (field.empty()) {
            Log() << "SsoActions: ERROR! " << position << " login argument is empty.\n";
            return false;
        }
    }
    return true;
}

// Decodes, splits and checks the login data; false after the failure was logged.
bool readLoginData(char const *data, std::vector<std::string> &fields) {
    Log() << "SsoActions: Received user login data: " << data << ".\n";
    char *decodedRaw = UrlDecode(data);
    std::string decoded(decodedRaw);
    delete[] decodedRaw;
    Log() << "SsoActions: URL decoded user login data: " << decoded << ".\n";
    if (!splitLoginData(decoded, fields)) {
        Log() << "SsoActions: ERROR! Read user login data failed.\n";
        return false;
    }
    if (!validateLoginData(fields)) {
        Log() << "SsoActions: ERROR! Validate user login data failed.\n";
        return false;
    }
    return true;
}

// Gives the client its configuration; false after the failure was logged.
bool configureClient(SsoClient &client, std::vector<std::string> const &fields) {
    if (fields[kType] == ConfigValues::typeOAuth) {
        client.loginType = SsoClient::kLoginTypeOAuth;
    }
    if (client.loginType != SsoClient::kLoginTypeOAuth) {
        Log() << "SsoActions: ERROR! Unsupported login type.\n";
        return false;
    }
    if (!client.setConfig(fields[kClientConfig], fields[kState], fields[kNonce])) {
        Log() << "SsoActions: ERROR! Config and session data set failed.\n";
        client.removeConfig();
        return false;
    }
    return true;
}

}  // namespace

char *SsoActions::loginUrl(char const *data) {
    Log() << "SsoActions: Start login url.\n";
    if (data == nullptr || *data == '\0') {
        Log() << "SsoActions: ERROR! User login data are empty.\n";
        return nullptr;
    }
    std::vector<std::string> fields;
    if (!readLoginData(data, fields)) {
        return nullptr;
    }
    SsoClient client;
    if (!configureClient(client, fields)) {
        return nullptr;
    }
    return client.authUrl(fields[kChallenge].c_str());
}

int SsoActions::login(char const *data, void (*callback)(char const *)) {
    Log() << "SsoActions: Start login.\n";
    if (data == nullptr || *data == '\0') {
        Log() << "SsoActions: ERROR! User login data are empty.\n";
        return -1;
    }
    if (callback == nullptr) {
        Log() << "SsoActions: ERROR! Browser callback is not provided.\n";
        return -1;
    }
    std::vector<std::string> fields;
    if (!readLoginData(data, fields)) {
        return -1;
    }
    SsoClient client;
    if (!configureClient(client, fields)) {
        return -1;
    }
    int result = client.authRequest(fields[kChallenge].c_str(), callback);
    client.removeConfig();
    return result;
}
