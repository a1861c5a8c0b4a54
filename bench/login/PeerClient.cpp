// The openid-client peer of the login benchmark.

#include "bench/login/PeerClient.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

bool PeerClient::start(std::string const &base) {
    return node_.start({"node", "peer.js", base},
                       std::string(QXSS_SOURCE_DIR) + "/tests/servers") &&
           node_.waitForLine("READ", 20000) == "Y";
}

void PeerClient::run(std::vector<Job> const &jobs, size_t parallel, Series &series) {
    std::string input = "RUN " + std::to_string(parallel) + "\n";
    for (auto const &job : jobs) {
        input += job.location + " " + job.verifier + " " + job.state + "\n";
    }
    node_.send(input + "END\n");
    for (size_t i = 0; i < jobs.size(); ++i) {
        std::string line = node_.waitForLine("T ", 120000);
        double ms = 0;
        char ok[8] = "";
        unsigned index = 0;
        if (std::sscanf(line.c_str(), "%u %7s %lf", &index, ok, &ms) != 3) {
            series.failed += static_cast<int>(jobs.size() - i);
            return;
        }
        series.ms.push_back(ms);
        series.failed += std::strcmp(ok, "ok") == 0 ? 0 : 1;
    }
    series.seconds = std::atof(node_.waitForLine("DONE ", 120000).c_str());
}
