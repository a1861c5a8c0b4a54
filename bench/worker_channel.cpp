// Throughput of the command channel and the worker's pace, idle and loaded.
// Prints figures; fails (exit 1) when a reply is missing or wrong. Runs on a node (no
// configuration file).
//
// Turns: each phase runs a worker of its own, from a count of 0, and reads the worker's turn
// counter (ticks) only after the worker was joined; the counter's wraps (one every 30001 turns,
// at the token cleanup) are counted by this program from the log. CPU: the worker thread's own
// CPU clock, so that this program's reading and writing are not counted.
#include "tests/harness/TestMachine.h"
#include "tests/harness/WorkerHost.h"
#include "worker/libqxss.h"

#include <poll.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

std::atomic<pthread_t> workerThread{0};
std::atomic<int> wraps{0};

// Runs on the logging thread: learns the worker thread from its first statement, and counts
// the turn counter's wraps.
void watch(char const *text, void *) {
    if (std::strstr(text, " started job with I/O FD: ") != nullptr) {
        workerThread = pthread_self();
    } else if (std::strcmp(text, "SsoServer: Clearing up old tokens.\n") == 0) {
        ++wraps;
    }
}

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A worker of its own for one phase of the measurement.
class Phase {
public:
    bool start() {
        ticks = 0;
        wraps = 0;
        workerThread = 0;
        if (host.start() != 0) {
            std::fprintf(stderr, "worker did not start\n");
            return false;
        }
        started = std::chrono::steady_clock::now();
        for (int i = 0; i < 5000 && workerThread == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (workerThread == 0 || pthread_getcpuclockid(workerThread, &cpuClock) != 0) {
            std::fprintf(stderr, "no CPU clock for the worker thread\n");
            return false;
        }
        cpuStart = cpuSeconds();
        return true;
    }

    // Stops the worker; then the turns can be read.
    void stop() {
        cpu = cpuSeconds() - cpuStart;
        host.stop();
        seconds = since(started);
        turns = static_cast<long>(wraps) * 30001 + ticks;
    }

    double cpuSeconds() const {
        timespec now{};
        clock_gettime(cpuClock, &now);
        return static_cast<double>(now.tv_sec) + now.tv_nsec / 1e9;
    }

    WorkerHost host;
    clockid_t cpuClock{};
    double cpuStart = 0;
    std::chrono::steady_clock::time_point started;
    double cpu = 0;
    double seconds = 0;
    long turns = 0;
};

}  // namespace

int main(int argc, char **argv) {
    int lines = argc > 1 ? std::atoi(argv[1]) : 200000;
    lines = (lines + 99) / 100 * 100;
    SsoSetLogCallback(watch, nullptr);
    TestMachine::node();

    // Idle: nothing on the channel.
    {
        Phase idle;
        if (!idle.start()) {
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::seconds(3));
        idle.stop();
        std::printf("idle:   %.1f turns/s, worker CPU %.2f%% of one core\n",
                    idle.turns / idle.seconds, 100.0 * idle.cpu / idle.seconds);
    }

    // Loaded: a writer thread pushes command lines while this thread reads every reply.
    std::string const line = "SSO_GET_NODE_CONFIG|bench\n";
    std::string const reply = "SSO_GET_NODE_CONFIG_FAILURE|bench\n";
    Phase loaded;
    if (!loaded.start()) {
        return 1;
    }
    auto start = std::chrono::steady_clock::now();
    std::thread writer([&] {
        std::string batch;
        for (int i = 0; i < 100; ++i) {
            batch += line;
        }
        for (int sent = 0; sent < lines; sent += 100) {
            loaded.host.send(batch);
        }
    });
    size_t const expected = reply.size() * static_cast<size_t>(lines);
    size_t received = 0;
    size_t wrong = 0;
    char buffer[65536];
    while (received < expected) {
        // Never a read that could wait forever: ten seconds without a byte ends the phase.
        pollfd polled = {loaded.host.hostFd, POLLIN, 0};
        if (poll(&polled, 1, 10000) <= 0) {
            break;
        }
        ssize_t got = read(loaded.host.hostFd, buffer, sizeof buffer);
        if (got <= 0) {
            break;
        }
        for (ssize_t i = 0; i < got; ++i) {
            wrong += buffer[i] != reply[(received + static_cast<size_t>(i)) % reply.size()];
        }
        received += static_cast<size_t>(got);
    }
    double seconds = since(start);
    writer.join();
    loaded.stop();
    size_t answered = received / reply.size();
    std::printf(
        "loaded: %d command lines, %zu answered in %.2f s: %.0f lines/s, %.1f turns/s, "
        "worker CPU %.2f%% of one core\n",
        lines, answered, seconds, answered / seconds, loaded.turns / loaded.seconds,
        100.0 * loaded.cpu / loaded.seconds);
    bool ok = received == expected && wrong == 0;
    if (!ok) {
        std::printf("  FAILED: %zu of %zu bytes received, %zu bytes not the expected reply\n",
                    received, expected, wrong);
    }
    TestMachine::reset();
    SsoSetLogCallback(nullptr, nullptr);
    return ok ? 0 : 1;
}
