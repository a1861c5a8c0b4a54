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
#include "bench/login/BareClient.h"
#include "bench/login/BurstPhase.h"
#include "bench/login/LibraryClient.h"
#include "bench/login/MemoryPhase.h"
#include "bench/login/Minting.h"
#include "bench/login/Options.h"
#include "bench/login/PeerClient.h"
#include "bench/login/Report.h"
#include "bench/login/Timing.h"
#include "bench/login/TlsWorld.h"
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
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

void discard(char const *, void *) {}

// One transport: its provider and the library's two configuration entries on it.
struct World {
    std::string transport;  // "http", "h1", "h2"
    LocalProvider const *provider = nullptr;
    int refreshOn = 0;   // configuration ID with qx_refresh on
    int refreshOff = 0;  // and off
    std::unique_ptr<PeerClient> peer;
};

}  // namespace

int main(int argc, char **argv) {
    Options options = parse(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    // Every login in flight may hold a socket here and one at the provider.
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    // Hundreds of codes minted ahead of their use outgrow the provider's default store.
    setenv("QXSS_PROVIDER_STORE", "map", 1);
    std::vector<World> worlds;
    auto &plain = LocalProvider::shared();
    if (!plain.ready()) {
        std::fprintf(stderr, "%s\n", plain.error.c_str());
        return 1;
    }
    if (listed(options.transports, "http")) {
        worlds.push_back({"http", &plain, 0, 0, nullptr});
    }
    TlsWorld tls;
    if (listed(options.transports, "h1") || listed(options.transports, "h2")) {
        if (tls.start()) {
            for (char const *name : {"h1", "h2"}) {
                if (listed(options.transports, name)) {
                    worlds.push_back({name, tls.provider(name), 0, 0, nullptr});
                }
            }
        } else {
            std::printf("no HTTPS phases: %s\n", tls.error.c_str());
        }
    }
    // With qx_refresh off a login revokes its refresh token and counts an empty answer as a
    // failure; the providers answer with a body, as many do.
    std::vector<LoginDriver::Entry> entries;
    for (auto &world : worlds) {
        if (!world.provider->setRevocationBody(true)) {
            std::fprintf(stderr, "the %s provider did not switch its revocation answers\n",
                         world.transport.c_str());
            return 1;
        }
        LoginDriver::Entry refreshOn;
        refreshOn.idp = world.provider->baseUrl();
        refreshOn.lifetime = 600;
        LoginDriver::Entry refreshOff = refreshOn;
        refreshOff.name = "Revoking";
        refreshOff.refresh = false;
        world.refreshOn = static_cast<int>(entries.size());
        entries.push_back(refreshOn);
        world.refreshOff = static_cast<int>(entries.size());
        entries.push_back(refreshOff);
    }
    // The statements are built as always but go nowhere: the figures leave out the host's
    // syslog, which is not the library's to speed up.
    SsoSetLogCallback(discard, nullptr);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    TestMachine::server(LoginDriver::file(entries));
    WorkerHost host;
    if (host.start() != 0) {
        std::fprintf(stderr, "the worker did not start\n");
        return 1;
    }
    host.send("SSO_LOAD_CONFIGS\n");
    if (host.readLine(60000) != "SSO_LOAD_CONFIGS_OK\n") {
        std::fprintf(stderr, "the configuration did not load\n");
        return 1;
    }

    std::printf(
        "login benchmark: %d logins one at a time, %d in flight, burst of %d, memory at %d in "
        "flight\n",
        options.logins, options.inflight, options.burst, options.memory);
    std::vector<Series> all;
    bool minted = true;
    for (auto &world : worlds) {
        LocalProvider const &provider = *world.provider;
        std::printf("%s: provider %s\n", world.transport.c_str(), provider.baseUrl().c_str());
        for (int delay : {0, 20}) {
            // The short mode keeps the HTTPS phases to the provider answering at once.
            if (!listed(options.delays, std::to_string(delay)) ||
                (options.brief && delay > 0 && world.transport != "http")) {
                continue;
            }
            for (bool together : {false, true}) {
                int count = together ? options.inflight : options.logins;
                for (char const *client : {"library", "library-revoke", "bare", "peer"}) {
                    if (count <= 0 || !listed(options.clients, client)) {
                        continue;
                    }
                    std::string name = client;
                    if (name == "peer" && !world.peer) {
                        world.peer = std::make_unique<PeerClient>();
                        if (!world.peer->start(provider.baseUrl())) {
                            std::fprintf(stderr, "the peer did not start (tests/servers/peer.js)\n");
                            return 1;
                        }
                    }
                    Series series;
                    series.phase = together ? "inflight" : "sequential";
                    series.transport = world.transport;
                    series.client = client;
                    series.delay = delay;
                    // Minted just before the clock starts, with the provider answering at once.
                    std::vector<Job> jobs =
                        name == "library" ? mintLibrary(provider, host, world.refreshOn, count)
                        : name == "library-revoke"
                            ? mintLibrary(provider, host, world.refreshOff, count)
                            : mintOwn(provider, count, client);
                    if (jobs.empty()) {
                        minted = false;
                        break;
                    }
                    provider.setDelay(delay);
                    size_t parallel = together ? jobs.size() : 1;
                    if (name == "bare") {
                        // A new client a phase: its kept connections go with it.
                        BareClient bare;
                        bare.run(provider.baseUrl(), jobs, parallel, series);
                    } else if (name == "peer") {
                        world.peer->run(jobs, parallel, series);
                    } else {
                        runLibrary(host, jobs, together, series);
                    }
                    provider.setDelay(0);
                    std::printf(
                        "%-10s %-4s %-15s delay %2d ms: %zu logins, %d failed, p50 %.2f ms, "
                        "p99 %.2f ms, %.3f s, CPU %.0f us/login\n",
                        series.phase.c_str(), world.transport.c_str(), client, delay,
                        series.ms.size(), series.failed, percentile(series.ms, 0.5),
                        percentile(series.ms, 0.99), series.seconds,
                        series.ms.empty() ? 0.0 : series.cpuMs * 1000 / series.ms.size());
                    std::fflush(stdout);
                    all.push_back(std::move(series));
                }
            }
        }
        world.peer.reset();
    }

    // The burst over the dearest transport there is: each connection costs a TLS handshake.
    Burst burst;
    if (options.burst > 0) {
        World const *target = nullptr;
        for (auto const &world : worlds) {
            target = target == nullptr || world.transport == "h1" ? &world : target;
        }
        burst = target == nullptr ? Burst{}
                                  : runBurst(*target->provider, host, target->refreshOn,
                                             options.burst);
        std::printf(
            "burst over %s: %d of %d logins at once under 1,024 descriptors succeeded in %.2f s; "
            "descriptors %zu before, at most %zu during, %zu after\n",
            target != nullptr ? target->transport.c_str() : "nothing", burst.ok, burst.logins, burst.seconds, burst.before,
            burst.peak, burst.after);
    }
    std::vector<std::pair<std::string, Memory>> memories;
    if (options.memory > 0) {
        for (auto const &world : worlds) {
            if (world.transport != "h2") {
                memories.push_back({world.transport, measureMemory(*world.provider, host,
                                                                    world.refreshOn, options.memory,
                                                                    options.brief ? 3000 : 30000)});
            }
        }
    }
    host.stop();

    printTable(all);
    bool answered = true;
    for (auto const &[transport, memory] : memories) {
        std::printf(
            "\nlibrary heap at %d logins in flight over %s: %.0f bytes per pending login "
            "(SSO_GET_CONFIG), %.0f more per login in flight (SSO_VERIFY), resident %.0f "
            "bytes per login; %d code exchanges at the provider %.1f s after the "
            "first SSO_VERIFY, %d of %d answered afterwards\n",
            memory.logins, transport.c_str(), memory.pendingBytes, memory.inFlightBytes,
            memory.residentBytes, memory.reached, memory.reachedSeconds, memory.answered,
            memory.logins);
        answered = answered && memory.answered == memory.logins;
    }

    auto find = [&all](char const *phase, char const *transport,
                       char const *client) -> Series const * {
        for (auto const &s : all) {
            if (s.phase == phase && s.transport == transport && s.client == client &&
                s.delay == 0) {
                return &s;
            }
        }
        return nullptr;
    };
    auto p50 = [&](char const *client, char const *transport) {
        Series const *s = find("sequential", transport, client);
        return s ? percentile(s->ms, 0.5) : 0.0;
    };
    auto rate = [&](char const *client, char const *transport) {
        Series const *s = find("inflight", transport, client);
        return s && s->seconds > 0 ? static_cast<double>(s->ms.size()) / s->seconds : 0.0;
    };
    auto cpu = [&](char const *client, char const *transport) {
        Series const *s = find("inflight", transport, client);
        return s && !s->ms.empty() ? s->cpuMs * 1000 / static_cast<double>(s->ms.size()) : 0.0;
    };
    bool csv = writeCsv(options.out + "/login.csv", all);
    bool png = plot(options.out, all);
    std::printf("raw timings: %s/login.csv%s\n", options.out.c_str(),
                png ? (", latency distributions: " + options.out + "/login.png").c_str() : "");
    int failed = 0;
    for (auto const &s : all) {
        failed += s.failed;
    }
    std::printf(
        "RESULT p50_library_ms=%.2f p50_bare_ms=%.2f p50_peer_ms=%.2f "
        "rate_library=%.1f rate_bare=%.1f rate_peer=%.1f "
        "p50_library_tls_ms=%.2f p50_library_revoke_tls_ms=%.2f rate_library_tls=%.1f "
        "rate_bare_tls=%.1f cpu_us_library_tls=%.0f cpu_us_bare_tls=%.0f burst_1500_ok=%d\n",
        p50("library", "http"), p50("bare", "http"), p50("peer", "http"), rate("library", "http"),
        rate("bare", "http"), rate("peer", "http"), p50("library", "h2"),
        p50("library-revoke", "h2"), rate("library", "h2"), rate("bare", "h2"),
        cpu("library", "h2"), cpu("bare", "h2"), burst.ok);
    SsoSetLogCallback(nullptr, nullptr);
    bool ok = minted && failed == 0 && csv && png && answered && burst.ok == burst.logins;
    if (!ok) {
        std::fprintf(stderr, "bench_login: %s\n",
                     !minted               ? "minting failed"
                     : failed              ? "logins failed"
                     : !csv                ? "cannot write the CSV"
                     : !png                ? "gnuplot failed"
                     : !answered           ? "not every held login was answered"
                                           : "logins of the burst failed");
    }
    return ok ? 0 : 1;
}
