#pragma once

#include <cstddef>

class LocalProvider;
class WorkerHost;

// Many logins at once with the process's soft descriptor limit at 1,024, as services get it by
// default: how many succeed, and how many descriptors the process holds meanwhile.
struct Burst {
    int logins = 0;
    int ok = 0;
    double seconds = 0;
    size_t before = 0;  // descriptors open before the first SSO_VERIFY
    size_t peak = 0;    // most seen while the replies came in
    size_t after = 0;   // right after the last reply
};

// `count` logins of the library's configuration `configId` at `provider`, all sent at once.
Burst runBurst(LocalProvider const &provider, WorkerHost &host, int configId, int count);

// Entries of /proc/self/fd.
size_t openDescriptors();
