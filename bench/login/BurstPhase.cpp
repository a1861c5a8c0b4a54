// The burst phase of the login benchmark: past the descriptor limit.

#include "bench/login/BurstPhase.h"

#include "bench/login/Minting.h"
#include "bench/login/Timing.h"
#include "tests/harness/WorkerHost.h"

#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>
#include <string>
#include <thread>

size_t openDescriptors() {
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return 0;
    }
    size_t count = 0;
    while (dirent *entry = readdir(directory)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(directory);
    // The directory's own descriptor.
    return count > 0 ? count - 1 : 0;
}

Burst runBurst(LocalProvider const &provider, WorkerHost &host, int configId, int count) {
    Burst burst;
    burst.logins = count;
    std::vector<Job> jobs = mintLibrary(provider, host, configId, count);
    if (jobs.empty()) {
        return burst;
    }
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit limited = saved;
    limited.rlim_cur = std::min<rlim_t>(1024, saved.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limited);
    std::string lines;
    for (auto const &job : jobs) {
        lines += "SSO_VERIFY|" + job.code + "|" + job.session + "\n";
    }
    burst.before = openDescriptors();
    burst.peak = burst.before;
    auto start = Clock::now();
    // Written beside the reading: replies start coming before the last line is written.
    std::thread sender([&host, &lines] { host.send(lines); });
    for (int i = 0; i < count; ++i) {
        std::string line = host.readLine(120000);
        if (line.empty()) {
            break;
        }
        burst.ok += line.compare(0, 14, "SSO_VERIFY_OK|") == 0 ? 1 : 0;
        if (i % 25 == 0) {
            burst.peak = std::max(burst.peak, openDescriptors());
        }
    }
    sender.join();
    burst.seconds = millisecondsSince(start) / 1000;
    burst.after = openDescriptors();
    setrlimit(RLIMIT_NOFILE, &saved);
    return burst;
}
