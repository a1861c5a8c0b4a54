// The memory phase of the login benchmark.

#include "bench/login/MemoryPhase.h"

#include "bench/login/Timing.h"
#include "tests/harness/LocalProvider.h"
#include "tests/harness/LoginDriver.h"
#include "tests/harness/WorkerHost.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

size_t heapInUse() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return 0;
}

}  // namespace

Memory measureMemory(LocalProvider const &provider, WorkerHost &host, int configId, int count,
                     int holdMs) {
    Memory memory;
    memory.logins = count;
    std::vector<std::string> sessions;
    for (int i = 0; i < count; ++i) {
        sessions.push_back(LoginDriver::newSession());
    }
    malloc_trim(0);
    size_t before = heapInUse();
    long residentBefore = residentKilobytes();
    for (int i = 0; i < count; i += 200) {
        std::string lines;
        int chunk = std::min(200, count - i);
        for (int j = i; j < i + chunk; ++j) {
            lines += "SSO_GET_CONFIG|" + std::to_string(configId) + "|" +
                     sessions[static_cast<size_t>(j)] + "\n";
        }
        host.send(lines);
        for (int j = 0; j < chunk; ++j) {
            host.readLine(30000);
        }
    }
    size_t pending = heapInUse();
    int tokenCalls = provider.requestCount("/token");
    provider.setDelay(holdMs);
    auto start = Clock::now();
    for (int i = 0; i < count; i += 200) {
        std::string lines;
        for (int j = i; j < std::min(count, i + 200); ++j) {
            lines += "SSO_VERIFY|unsigned-code-" + std::to_string(j) + "|" +
                     sessions[static_cast<size_t>(j)] + "\n";
        }
        host.send(lines);
    }
    // In flight once every code exchange reached the provider, which holds them all, or once
    // no more arrive for a second: those past the library's connection bound wait in its queue,
    // holding what a login in flight holds.
    int seen = 0;
    auto lastArrival = Clock::now();
    while (millisecondsSince(start) < holdMs) {
        int now = provider.requestCount("/token") - tokenCalls;
        if (now >= count || (now > 0 && now == seen && millisecondsSince(lastArrival) > 1000)) {
            break;
        }
        if (now != seen) {
            seen = now;
            lastArrival = Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    memory.reachedSeconds = millisecondsSince(start) / 1000;
    memory.reached = provider.requestCount("/token") - tokenCalls;
    size_t inFlight = heapInUse();
    long residentInFlight = residentKilobytes();
    provider.setDelay(0);
    for (int i = 0; i < count; ++i) {
        if (host.readLine(holdMs + 60000).compare(0, 19, "SSO_VERIFY_FAILURE|") == 0) {
            ++memory.answered;
        }
    }
    memory.pendingBytes = (static_cast<double>(pending) - static_cast<double>(before)) / count;
    memory.inFlightBytes = (static_cast<double>(inFlight) - static_cast<double>(pending)) / count;
    memory.residentBytes = static_cast<double>(residentInFlight - residentBefore) * 1024 / count;
    return memory;
}
