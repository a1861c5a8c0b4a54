// The login benchmark's latency phases: each client timed on codes minted for it, one login at
// a time and many in flight.
#include "bench/login/LatencyPhases.h"

#include "bench/login/BareClient.h"
#include "bench/login/LibraryClient.h"
#include "bench/login/Minting.h"
#include "bench/login/Options.h"
#include "bench/login/World.h"
#include "tests/harness/LocalProvider.h"

#include <cstdio>
#include <memory>
#include <string>

namespace {

char const *const kClients[] = {"library", "library-revoke", "bare", "peer"};

// Codes for `count` logins of `client`, minted just before its clock starts, with the provider
// answering at once.
std::vector<Job> mintFor(std::string const &client, World const &world, WorkerHost &host,
                         int count) {
    LocalProvider const &provider = *world.provider;
    return client == "library"          ? mintLibrary(provider, host, world.refreshOn, count)
           : client == "library-revoke" ? mintLibrary(provider, host, world.refreshOff, count)
                                        : mintOwn(provider, count, client.c_str());
}

// Runs the jobs through `client`, with the provider `delay` ms late per call meanwhile.
void time(std::string const &client, World &world, WorkerHost &host, std::vector<Job> const &jobs,
          bool together, int delay, Series &series) {
    LocalProvider const &provider = *world.provider;
    provider.setDelay(delay);
    size_t parallel = together ? jobs.size() : 1;
    if (client == "bare") {
        // A new client a phase: its kept connections go with it.
        BareClient bare;
        bare.run(provider.baseUrl(), jobs, parallel, series);
    } else if (client == "peer") {
        world.peer->run(jobs, parallel, series);
    } else {
        runLibrary(host, jobs, together, series);
    }
    provider.setDelay(0);
}

void printSeries(Series const &series) {
    std::printf(
        "%-10s %-4s %-15s delay %2d ms: %zu logins, %d failed, p50 %.2f ms, "
        "p99 %.2f ms, %.3f s, CPU %.0f us/login\n",
        series.phase.c_str(), series.transport.c_str(), series.client.c_str(), series.delay,
        series.ms.size(), series.failed, percentile(series.ms, 0.5), percentile(series.ms, 0.99),
        series.seconds, series.ms.empty() ? 0.0 : series.cpuMs * 1000 / series.ms.size());
    std::fflush(stdout);
}

// Whether the phase with the provider `delay` ms late runs over `world`. The short mode keeps
// the HTTPS phases to the provider answering at once.
bool delayChosen(Options const &options, World const &world, int delay) {
    return listed(options.delays, std::to_string(delay)) &&
           !(options.brief && delay > 0 && world.transport != "http");
}

}  // namespace

bool runLatencyPhases(Options const &options, std::vector<World> &worlds, WorkerHost &host,
                      std::vector<Series> &all, bool &minted) {
    for (auto &world : worlds) {
        std::printf("%s: provider %s\n", world.transport.c_str(),
                    world.provider->baseUrl().c_str());
        for (int delay : {0, 20}) {
            if (!delayChosen(options, world, delay)) {
                continue;
            }
            for (bool together : {false, true}) {
                int count = together ? options.inflight : options.logins;
                for (char const *client : kClients) {
                    if (count <= 0 || !listed(options.clients, client)) {
                        continue;
                    }
                    std::string name = client;
                    if (name == "peer" && !world.peer) {
                        world.peer = std::make_unique<PeerClient>();
                        if (!world.peer->start(world.provider->baseUrl())) {
                            std::fprintf(stderr,
                                         "the peer did not start (tests/servers/peer.js)\n");
                            return false;
                        }
                    }
                    Series series;
                    series.phase = together ? "inflight" : "sequential";
                    series.transport = world.transport;
                    series.client = client;
                    series.delay = delay;
                    std::vector<Job> jobs = mintFor(name, world, host, count);
                    if (jobs.empty()) {
                        minted = false;
                        break;
                    }
                    time(name, world, host, jobs, together, delay, series);
                    printSeries(series);
                    all.push_back(std::move(series));
                }
            }
        }
        world.peer.reset();
    }
    return true;
}
