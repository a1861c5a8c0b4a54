// "SSO_GET_CONFIG" throughput through the channel, and the memory one pending login costs.
// Prints figures. Only the replies that were asked for count: each must be the success line of
// its own command, in order; a failure line or a missing reply is reported and fails the run.
#include "server/SsoServer.h"
#include "tests/harness/FailureServer.h"
#include "tests/harness/ProviderRecord.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

void discard(char const *, void *) {}

std::string session(int n) {
    char text[40];
    std::snprintf(text, sizeof text, "bench-session-%018d", n);
    return text;
}

bool endsWith(std::string const &text, std::string const &end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Bytes the allocator has handed out: the arena's chunks in use and the chunks it mapped apart
// (large blocks such as a store's bucket array).
size_t heapInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// The library's worker on a server with one entry at `idp`, its configuration loaded. False,
// with the reason on standard error, when it did not start or load.
bool startHost(FailureServer &idp, WorkerHost &host) {
    idp.on("/.well-known/openid-configuration", 200,
           "{\"authorization_endpoint\":\"" + idp.url("/auth") + "\",\"token_endpoint\":\"" +
               idp.url("/token") + "\",\"userinfo_endpoint\":\"" + idp.url("/me") + "\"}");
    TestMachine::server(
        "[{\"name\":\"Bench\",\"desc\":\"d\",\"type\":\"OAuth\",\"provider\":\"keycloak\","
        "\"config\":{\"idp_domain\":\"" +
        idp.url() +
        "\",\"client_id\":\"cid\",\"client_secret\":\"s\",\"redirect_uris\":["
        "\"https://app.example.com/sso/callback\"],\"qx_user_type\":\"local\"}}]");
    if (host.start() != 0) {
        std::fprintf(stderr, "worker did not start\n");
        return false;
    }
    host.send("SSO_LOAD_CONFIGS\n");
    std::string loaded = host.readLine(30000);
    if (loaded != "SSO_LOAD_CONFIGS_OK\n") {
        std::fprintf(stderr, "load failed: '%s'\n", loaded.c_str());
        return false;
    }
    return true;
}

// `commands` SSO_GET_CONFIG lines written in batches while their replies are read: prints the
// rate, and what did not count. Returns the number of success lines of their own commands.
int measureThroughput(WorkerHost &host, int commands) {
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
    int succeeded = 0;
    int failed = 0;
    int other = 0;
    int answered = 0;
    std::string firstWrong;
    while (answered < commands) {
        std::string line = host.readLine(10000);
        if (line.empty()) {
            break;
        }
        // The worker answers in order: reply number n belongs to session n.
        std::string const tail = "|" + session(answered) + "\n";
        if (line.rfind("SSO_GET_CONFIG_OK|", 0) == 0 && endsWith(line, tail)) {
            ++succeeded;
        } else {
            if (line == "SSO_GET_CONFIG_FAILURE" + tail) {
                ++failed;
            } else {
                ++other;
            }
            if (firstWrong.empty()) {
                firstWrong = line;
            }
        }
        ++answered;
    }
    writer.join();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int missing = commands - answered;
    std::printf(
        "SSO_GET_CONFIG through the channel: %d asked, %d succeeded in %.2f s: %.0f "
        "commands/s\n",
        commands, succeeded, seconds, succeeded / seconds);
    if (succeeded != commands) {
        std::printf("  NOT COUNTED: %d failure lines, %d other lines, %d missing replies%s%s",
                    failed, other, missing, firstWrong.empty() ? "" : "; first: ",
                    firstWrong.empty() ? "\n" : firstWrong.c_str());
    }
    return succeeded;
}

// Memory per pending login, measured on the engine directly: prints it for `pending` logins
// and returns how many were stored.
size_t measurePending(int pending) {
    SsoServer server;
    ProviderRecord("keycloak")
        .authAt("https://idp.example.com/realms/corp/protocol/openid-connect/auth")
        .client("cid")
        .redirects({"https://app.example.com/sso/callback"})
        .addTo(server);
    malloc_trim(0);
    size_t before = heapInUse();
    for (int i = 0; i < pending; ++i) {
        char *reply = server.getClientConfig(0, session(i).c_str(), nullptr);
        delete[] reply;
    }
    size_t after = heapInUse();
    size_t stored = server.authzInfoBySession.size();
    double grown = static_cast<double>(after) - static_cast<double>(before);
    std::printf(
        "pending logins: %zu stored of %d asked, heap grew %.1f MiB, %.0f bytes per "
        "pending login\n",
        stored, pending, grown / 1048576.0, stored > 0 ? grown / stored : 0.0);
    return stored;
}

}  // namespace

int main(int argc, char **argv) {
    int commands = argc > 1 ? std::atoi(argv[1]) : 100000;
    int pending = argc > 2 ? std::atoi(argv[2]) : 100000;
    SsoSetLogCallback(discard, nullptr);
    FailureServer idp;
    WorkerHost host;
    if (!startHost(idp, host)) {
        return 1;
    }
    int succeeded = measureThroughput(host, commands);
    host.stop();
    size_t stored = measurePending(pending);
    TestMachine::reset();
    SsoSetLogCallback(nullptr, nullptr);
    return succeeded == commands && stored == static_cast<size_t>(pending) ? 0 : 1;
}
