#pragma once

#include "bench/login/PeerClient.h"
#include "tests/harness/LoginDriver.h"

#include <memory>
#include <string>
#include <vector>

class LocalProvider;
class TlsWorld;
struct Options;

// One transport: its provider and the library's two configuration entries on it.
struct World {
    std::string transport;  // "http", "h1", "h2"
    LocalProvider const *provider = nullptr;
    int refreshOn = 0;   // configuration ID with qx_refresh on
    int refreshOff = 0;  // and off
    std::unique_ptr<PeerClient> peer;
};

// The transports that `options` choose: the shared plain provider, and the HTTPS ones of `tls`
// when it can start them (saying so on standard output when it cannot). False, with the reason
// on standard error, when the plain provider is not ready.
bool makeWorlds(Options const &options, TlsWorld &tls, std::vector<World> &worlds);

// Two configuration entries a world, qx_refresh on and off, with their IDs set in the world.
// False, with the reason on standard error, when a provider cannot be prepared for them.
bool addEntries(std::vector<World> &worlds, std::vector<LoginDriver::Entry> &entries);
