#include "tests/fuzz/FuzzSupport.h"

#include "platform/PlatformFakes.h"
#include "server/SsoServer.h"
#include "server/SsoServerConfig.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/TestMachine.h"
#include "worker/libqxss.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void discard(char const *, void *) {}

void show(char const *text, void *) {
    std::fputs(text, stderr);
}

// A fixed sequence: a crash must repeat with the same input.
int sequence(char *buffer, int length) {
    static uint32_t state = 2463534242u;
    for (int i = 0; i < length; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        buffer[i] = static_cast<char>(state);
    }
    return 1;
}

bool endsWith(std::string const &text, std::string const &tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

int lookup(char const *host, int) {
    std::string name(host);
    return name == "localhost" || endsWith(name, ".example") ? 0 : -1;
}

}  // namespace

void FuzzSupport::quiet() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    SsoSetLogCallback(std::getenv("QXSS_FUZZ_LOG") != nullptr ? show : discard, nullptr);
    TestMachine::node();
    PlatformFakes::random() = sequence;
    PlatformFakes::lookup() = lookup;
}

std::string const &FuzzSupport::configuration() {
    static std::string const text =
        "[{\"name\":\"n\",\"desc\":\"d\",\"type\":\"OAuth\",\"provider\":\"okta\",\"config\":{"
        "\"idp_domain\":\"http://127.0.0.1:1\",\"client_id\":\"c\",\"client_secret\":\"s\","
        "\"redirect_uris\":[\"https://r.example/cb\",\"https://10.0.0.1/cb\"],"
        "\"qx_user_type\":\"local\",\"qx_refresh\":true,\"qx_refresh_lifetime\":600}}]";
    return text;
}

std::string const &FuzzSupport::discovery() {
    static std::string const text =
        "{\"issuer\":\"http://127.0.0.1:1\","
        "\"authorization_endpoint\":\"http://127.0.0.1:1/auth\","
        "\"token_endpoint\":\"http://127.0.0.1:1/token\","
        "\"userinfo_endpoint\":\"http://127.0.0.1:1/me\","
        "\"revocation_endpoint\":\"http://127.0.0.1:1/revoke\"}";
    return text;
}

bool FuzzSupport::loadServer(std::string const &configuration, std::string const &discovery) {
    quiet();
    TestMachine::server(configuration);
    SsoServer &server = SsoServer::getServer();
    server.clearConfigs();
    if (!server.setConfigPath() || !server.setMachineType() || !server.loadConfigsJson()) {
        return false;
    }
    // Discovery is fed to its parsing step directly, not fetched: no input waits for a socket.
    for (SsoServerConfig *config : server.configs) {
        if (config != nullptr && config->getLoginType() == 0 &&
            static_cast<SsoServerConfigOAuth *>(config)->setMetadata(discovery) != 0) {
            return false;
        }
    }
    return true;
}

bool FuzzSupport::defaultServer() {
    static bool const loaded = loadServer(configuration(), discovery());
    return loaded;
}

std::string FuzzSupport::text(uint8_t const *data, size_t size) {
    auto const *bytes = reinterpret_cast<char const *>(data);
    auto const *end = static_cast<char const *>(std::memchr(bytes, '\0', size));
    return std::string(bytes, end == nullptr ? size : static_cast<size_t>(end - bytes));
}
