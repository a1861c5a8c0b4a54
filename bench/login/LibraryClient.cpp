// The library's side of the login benchmark.

#include "bench/login/LibraryClient.h"

#include "tests/harness/WorkerHost.h"

#include <dirent.h>

#include <fstream>
#include <map>

namespace {

// The user session, the last field of a SSO_VERIFY reply.
std::string replySession(std::string const &line) {
    size_t bar = line.rfind('|');
    return bar == std::string::npos ? std::string() : line.substr(bar + 1, line.size() - bar - 2);
}

bool replyOk(std::string const &line) {
    return line.compare(0, 14, "SSO_VERIFY_OK|") == 0;
}

}  // namespace

double workerCpuMs() {
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return 0;
    }
    double ms = 0;
    while (dirent *entry = readdir(tasks)) {
        std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::string name;
        std::getline(std::ifstream(task + "/comm"), name);
        if (name == "qxss-worker") {
            // First field: nanoseconds on the CPU.
            unsigned long long ns = 0;
            std::ifstream(task + "/schedstat") >> ns;
            ms = static_cast<double>(ns) / 1e6;
        }
    }
    closedir(tasks);
    return ms;
}

// The library: all jobs' "SSO_VERIFY" lines at once when `together`, else one at a time.
void runLibrary(WorkerHost &host, std::vector<Job> const &jobs, bool together, Series &series) {
    double cpuBefore = workerCpuMs();
    auto start = Clock::now();
    if (!together) {
        for (auto const &job : jobs) {
            auto sent = Clock::now();
            host.send("SSO_VERIFY|" + job.code + "|" + job.session + "\n");
            std::string line = host.readLine(60000);
            series.ms.push_back(millisecondsSince(sent));
            series.failed += replyOk(line) && replySession(line) == job.session ? 0 : 1;
        }
    } else {
        std::string lines;
        std::map<std::string, bool> waiting;
        for (auto const &job : jobs) {
            lines += "SSO_VERIFY|" + job.code + "|" + job.session + "\n";
            waiting[job.session] = true;
        }
        start = Clock::now();
        host.send(lines);
        for (size_t i = 0; i < jobs.size(); ++i) {
            std::string line = host.readLine(120000);
            if (line.empty()) {
                series.failed += static_cast<int>(jobs.size() - i);
                break;
            }
            series.ms.push_back(millisecondsSince(start));
            series.failed += replyOk(line) && waiting.erase(replySession(line)) == 1 ? 0 : 1;
        }
    }
    series.seconds = millisecondsSince(start) / 1000;
    series.cpuMs = workerCpuMs() - cpuBefore;
}
