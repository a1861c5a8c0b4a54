// Login speed side by side, on local providers in one run:
//   library  "SSO_VERIFY" written on a host's channel to its reply read (qx_refresh on, and off,
//            which adds the revocation);
//   bare     a libcurl multi loop doing only the code exchange and the userinfo call, its
//            connections kept alive: the floor that any client pays;
//   peer     openid-client (tests/servers/peer.js): its authorization-code grant and userinfo
//            call, timed by its own clock.
// Over plain HTTP, and over HTTPS with HTTP/1.1 ("h1") and HTTP/2 ("h2") when the HTTPS test
// world can be made (bench/login/TlsWorld.h). Each client gets codes of its own, minted by a
// scripted user just before its clock starts. Phases: one login at a time, then many in flight
// at once; each with the provider answering at once and 20 ms late per call; the CPU per login
// (the library's worker thread, the bare client's process). Then a burst of many logins at once
// under a soft limit of 1,024 descriptors, and the library's heap per login in flight.
//   bench_login [--short] [--out DIR] [--logins N] [--inflight N] [--memory N] [--burst N]
//               [--clients library,library-revoke,bare,peer] [--delays 0,20]
//               [--transports http,h1,h2]
// (--memory 0 and --burst 0 leave those phases out; --clients, --delays and --transports
// choose phases, for profiling.) Prints a table and a last line "RESULT ..." (its "_tls"
// figures are over h2); writes DIR/login.csv (every timing) and, when gnuplot is installed,
// DIR/login.png (the latency distributions side by side). Asserts no speed; exits non-zero
// only when a login failed or a file could not be written.
#include "bench/login/BurstPhase.h"
#include "bench/login/LatencyPhases.h"
#include "bench/login/MemoryPhase.h"
#include "bench/login/Options.h"
#include "bench/login/Report.h"
#include "bench/login/Timing.h"
#include "bench/login/TlsWorld.h"
#include "bench/login/World.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <curl/curl.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

void discard(char const *, void *) {}

// Every login in flight may hold a socket here and one at the provider.
void raiseDescriptorLimit() {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

// The library's worker on a server holding `entries`, its configuration loaded. False, with the
// reason on standard error, when it did not start or load.
bool startHost(WorkerHost &host, std::vector<LoginDriver::Entry> const &entries) {
    TestMachine::server(LoginDriver::file(entries));
    if (host.start() != 0) {
        std::fprintf(stderr, "the worker did not start\n");
        return false;
    }
    host.send("SSO_LOAD_CONFIGS\n");
    if (host.readLine(60000) != "SSO_LOAD_CONFIGS_OK\n") {
        std::fprintf(stderr, "the configuration did not load\n");
        return false;
    }
    return true;
}

// The burst over the dearest transport there is: each connection costs a TLS handshake.
Burst burstPhase(int count, std::vector<World> const &worlds, WorkerHost &host) {
    World const *target = nullptr;
    for (auto const &world : worlds) {
        target = target == nullptr || world.transport == "h1" ? &world : target;
    }
    Burst burst =
        target == nullptr ? Burst{} : runBurst(*target->provider, host, target->refreshOn, count);
    std::printf(
        "burst over %s: %d of %d logins at once under 1,024 descriptors succeeded in %.2f s; "
        "descriptors %zu before, at most %zu during, %zu after\n",
        target != nullptr ? target->transport.c_str() : "nothing", burst.ok, burst.logins,
        burst.seconds, burst.before, burst.peak, burst.after);
    return burst;
}

// The library's heap per login in flight, over each transport but h2.
std::vector<std::pair<std::string, Memory>> memoryPhases(Options const &options,
                                                         std::vector<World> const &worlds,
                                                         WorkerHost &host) {
    std::vector<std::pair<std::string, Memory>> memories;
    for (auto const &world : worlds) {
        if (world.transport != "h2") {
            memories.push_back(
                {world.transport, measureMemory(*world.provider, host, world.refreshOn,
                                                options.memory, options.brief ? 3000 : 30000)});
        }
    }
    return memories;
}

int failedLogins(std::vector<Series> const &all) {
    int failed = 0;
    for (auto const &s : all) {
        failed += s.failed;
    }
    return failed;
}

}  // namespace

int main(int argc, char **argv) {
    Options options = parse(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    // Hundreds of codes minted ahead of their use outgrow the provider's default store.
    setenv("QXSS_PROVIDER_STORE", "map", 1);
    std::vector<World> worlds;
    TlsWorld tls;
    std::vector<LoginDriver::Entry> entries;
    if (!makeWorlds(options, tls, worlds) || !addEntries(worlds, entries)) {
        return 1;
    }
    // The statements are built as always but go nowhere: the figures leave out the host's
    // syslog, which is not the library's to speed up.
    SsoSetLogCallback(discard, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    WorkerHost host;
    if (!startHost(host, entries)) {
        return 1;
    }

    std::printf(
        "login benchmark: %d logins one at a time, %d in flight, burst of %d, memory at %d in "
        "flight\n",
        options.logins, options.inflight, options.burst, options.memory);
    std::vector<Series> all;
    bool minted = true;
    if (!runLatencyPhases(options, worlds, host, all, minted)) {
        return 1;
    }
    Burst burst = options.burst > 0 ? burstPhase(options.burst, worlds, host) : Burst{};
    std::vector<std::pair<std::string, Memory>> memories;
    if (options.memory > 0) {
        memories = memoryPhases(options, worlds, host);
    }
    host.stop();

    printTable(all);
    bool answered = true;
    for (auto const &[transport, memory] : memories) {
        printMemory(transport, memory);
        answered = answered && memory.answered == memory.logins;
    }
    bool csv = writeCsv(options.out + "/login.csv", all);
    bool png = plot(options.out, all);
    std::printf("raw timings: %s/login.csv%s\n", options.out.c_str(),
                png ? (", latency distributions: " + options.out + "/login.png").c_str() : "");
    int failed = failedLogins(all);
    printResult(all, burst.ok);
    SsoSetLogCallback(nullptr, nullptr);
    bool ok = minted && failed == 0 && csv && png && answered && burst.ok == burst.logins;
    if (!ok) {
        std::fprintf(stderr, "bench_login: %s\n",
                     !minted     ? "minting failed"
                     : failed    ? "logins failed"
                     : !csv      ? "cannot write the CSV"
                     : !png      ? "gnuplot failed"
                     : !answered ? "not every held login was answered"
                                 : "logins of the burst failed");
    }
    return ok ? 0 : 1;
}
