// "SSO_GET_CONFIG" throughput through the channel, and the memory one pending login costs.
// Prints figures; asserts nothing.
#include "server/SsoServer.h"
#include "server/SsoServerConfigOAuth.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

void discard(char const *, void *) {}

std::string session(int n) {
    char text[40];
    std::snprintf(text, sizeof text, "bench-session-%018d", n);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    int commands = argc > 1 ? std::atoi(argv[1]) : 100000;
    int pending = argc > 2 ? std::atoi(argv[2]) : 100000;
    SsoSetLogCallback(discard, nullptr);

    FailureServer idp;
    idp.on("/.well-known/openid-configuration", 200,
           "{\"authorization_endpoint\":\"" + idp.url("/auth") + "\",\"token_endpoint\":\"" +
               idp.url("/token") + "\",\"userinfo_endpoint\":\"" + idp.url("/me") + "\"}");
    TestMachine::server(
        "[{\"name\":\"Bench\",\"desc\":\"d\",\"type\":\"OAuth\",\"provider\":\"keycloak\","
        "\"config\":{\"idp_domain\":\"" +
        idp.url() +
        "\",\"client_id\":\"cid\",\"client_secret\":\"s\",\"redirect_uris\":["
        "\"https://app.example.com/sso/callback\"],\"qx_user_type\":\"local\"}}]");
    WorkerHost host;
    if (host.start() != 0) {
        return 1;
    }
    host.send("SSO_LOAD_CONFIGS\n");
    if (host.readLine(30000) != "SSO_LOAD_CONFIGS_OK\n") {
        std::fprintf(stderr, "load failed\n");
        return 1;
    }

    auto start = std::chrono::steady_clock::now();
    std::thread writer([&] {
        std::string batch;
        for (int i = 0; i < commands; ++i) {
            batch += "SSO_GET_CONFIG|0|" + session(i) + "\n";
            if (batch.size() > 4000) {
                host.send(batch);
                batch.clear();
            }
        }
        host.send(batch);
    });
    int replies = 0;
    while (replies < commands) {
        std::string line = host.readLine(10000);
        if (line.empty()) {
            break;
        }
        ++replies;
    }
    writer.join();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("SSO_GET_CONFIG through the channel: %d replies in %.2f s: %.0f commands/s\n",
                replies, seconds, replies / seconds);
    host.stop();

    // Memory per pending login, measured on the engine directly.
    SsoServer server;
    auto *config = new SsoServerConfigOAuth();
    config->configId = 0;
    config->provider = "keycloak";
    config->authUri = "https://idp.example.com/realms/corp/protocol/openid-connect/auth";
    config->clientId = "cid";
    config->redirectUris = {"https://app.example.com/sso/callback"};
    server.configs.push_back(config);
    malloc_trim(0);
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < pending; ++i) {
        char *reply = server.getClientConfig(0, session(i).c_str(), nullptr);
        delete[] reply;
    }
    size_t after = mallinfo2().uordblks;
    std::printf("pending logins: %d, heap %.1f MiB, %.0f bytes per pending login\n",
                static_cast<int>(server.authzInfoBySession.size()), (after - before) / 1048576.0,
                static_cast<double>(after - before) / pending);
    TestMachine::reset();
    SsoSetLogCallback(nullptr, nullptr);
    return replies == commands ? 0 : 1;
}
