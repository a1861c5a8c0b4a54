// The transports the login benchmark runs over: their providers and the library's entries on
// them.
#include "bench/login/World.h"

#include "bench/login/Options.h"
#include "bench/login/TlsWorld.h"
#include "tests/harness/LocalProvider.h"

#include <cstdio>

bool makeWorlds(Options const &options, TlsWorld &tls, std::vector<World> &worlds) {
    auto &plain = LocalProvider::shared();
    if (!plain.ready()) {
        std::fprintf(stderr, "%s\n", plain.error.c_str());
        return false;
    }
    if (listed(options.transports, "http")) {
        worlds.push_back({"http", &plain, 0, 0, nullptr});
    }
    if (!listed(options.transports, "h1") && !listed(options.transports, "h2")) {
        return true;
    }
    if (!tls.start()) {
        std::printf("no HTTPS phases: %s\n", tls.error.c_str());
        return true;
    }
    for (char const *name : {"h1", "h2"}) {
        if (listed(options.transports, name)) {
            worlds.push_back({name, tls.provider(name), 0, 0, nullptr});
        }
    }
    return true;
}

bool addEntries(std::vector<World> &worlds, std::vector<LoginDriver::Entry> &entries) {
    // With qx_refresh off a login revokes its refresh token and counts an empty answer as a
    // failure; the providers answer with a body, as many do.
    for (auto &world : worlds) {
        if (!world.provider->setRevocationBody(true)) {
            std::fprintf(stderr, "the %s provider did not switch its revocation answers\n",
                         world.transport.c_str());
            return false;
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
    return true;
}
