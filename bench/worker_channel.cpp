// Throughput of the command channel and the worker's pace, idle and loaded.
// Prints figures; asserts nothing. Runs on a node (no configuration file).
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

namespace {

void discard(char const *, void *) {}

double cpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char **argv) {
    int lines = argc > 1 ? std::atoi(argv[1]) : 200000;
    SsoSetLogCallback(discard, nullptr);
    TestMachine::node();
    WorkerHost host;
    if (host.start() != 0) {
        std::fprintf(stderr, "worker did not start\n");
        return 1;
    }

    // Idle: nothing on the channel.
    int32_t ticksBefore = ticks;
    double cpuBefore = cpuSeconds();
    auto idleStart = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    double idleSeconds = since(idleStart);
    double idleCpu = cpuSeconds() - cpuBefore;
    std::printf("idle:   %.1f turns/s, worker CPU %.2f%% of one core\n",
                (ticks - ticksBefore) / idleSeconds, 100.0 * idleCpu / idleSeconds);

    // Loaded: a writer thread pushes command lines while this thread reads every reply.
    std::string line = "SSO_GET_NODE_CONFIG|bench\n";
    std::string reply = "SSO_GET_NODE_CONFIG_FAILURE|bench\n";
    ticksBefore = ticks;
    auto start = std::chrono::steady_clock::now();
    std::thread writer([&] {
        std::string batch;
        for (int i = 0; i < 100; ++i) {
            batch += line;
        }
        for (int sent = 0; sent < lines; sent += 100) {
            host.send(batch);
        }
    });
    size_t expected = reply.size() * static_cast<size_t>((lines + 99) / 100 * 100);
    size_t received = 0;
    char buffer[65536];
    while (received < expected) {
        ssize_t got = read(host.hostFd, buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        received += static_cast<size_t>(got);
    }
    writer.join();
    double seconds = since(start);
    std::printf("loaded: %d command lines in %.2f s: %.0f lines/s, %.1f turns/s\n",
                (lines + 99) / 100 * 100, seconds, ((lines + 99) / 100 * 100) / seconds,
                (ticks - ticksBefore) / seconds);
    host.stop();
    TestMachine::reset();
    SsoSetLogCallback(nullptr, nullptr);
    return received == expected ? 0 : 1;
}
