// The smallest host in C++: takes a user session, builds a provider's authorization URL from
// login data, and starts and stops the worker when this machine has a configuration
// directory. Prints what it got; exits 0 when the library answered as it should.
#include <libqxss.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string lastError;

// The library's log goes here instead of syslog; only errors are kept.
void onLog(char const *text, void *) {
    if (std::strstr(text, "ERROR! ") != nullptr) {
        lastError = text;
    }
}

// Every byte but A-Z a-z 0-9 - . _ ~ as %XX, as login data travel.
std::string percentEncoded(std::string const &text) {
    static char const hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

}  // namespace

int main() {
    SsoSetLogCallback(onLog, nullptr);

    char *session = SsoGetUserSession();
    std::printf("user session: %s\n", session ? session : "(none)");
    bool sessionOk = session != nullptr && std::strlen(session) == 32;
    SsoFreeString(session);

    // What an SSO_GET_CONFIG reply carries, with the host's own state and nonce.
    std::string clientJson =
        R"({"auth_uri":"https://idp.example/auth","client_id":"consumer",)"
        R"("provider":"keycloak","qx_prompt_type":"login","redirect_uri":"https://host.example/cb"})";
    std::string data = "OAuth|" + clientJson + "|consumer-state|consumer-nonce|" +
                       "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM";
    char *url = SsoLoginUrl(percentEncoded(data).c_str());
    std::printf("authorization URL: %s\n", url ? url : "(none)");
    bool urlOk = url != nullptr && std::strncmp(url, "https://idp.example/auth?", 25) == 0 &&
                 std::strstr(url, "state=consumer-state") != nullptr;
    SsoFreeString(url);

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0) {
        if (SsoInitialize(fds[1]) == 0) {
            std::printf("worker: started and stopped\n");
            SsoDestroy();
        } else {
            std::printf("worker: not started (no configuration directory on this machine)\n");
        }
        close(fds[0]);
        close(fds[1]);
    }

    if (!sessionOk || !urlOk) {
        std::printf("qxss consumer: FAILED %s", lastError.c_str());
        return 1;
    }
    std::printf("qxss consumer: ok\n");
    return 0;
}
