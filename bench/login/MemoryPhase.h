#pragma once

class LocalProvider;
class WorkerHost;

// The library's heap per login in flight.
struct Memory {
    int logins = 0;
    int answered = 0;
    int reached = 0;  // code exchanges at the provider when the heap was read
    double reachedSeconds = 0;
    double pendingBytes = 0;   // per login after "SSO_GET_CONFIG", before "SSO_VERIFY"
    double inFlightBytes = 0;  // per login in flight, on top of that
    double residentBytes = 0;  // resident size per login in flight (pending and in flight)
};

// `count` logins of the library on configuration `configId` in flight at once: the provider
// holds every code exchange for `holdMs`, so they are all in flight together (those past the
// library's connection bound wait in libcurl's queue). The codes are not signed for (minting
// thousands would take minutes) and fail when the provider answers; up to then a login holds
// what any login holds.
Memory measureMemory(LocalProvider const &provider, WorkerHost &host, int configId, int count,
                     int holdMs);
