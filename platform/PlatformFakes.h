#pragma once

#include <cstdint>
#include <functional>
#include <string>

// Test-only seams at the platform boundary. Production code never sets them; when a hook is
// empty the real system answers. Set them before the code under test runs and clear them after.
class PlatformFakes {
public:
    // Replaces the kernel's random source: fill `buffer` with `length` bytes, return 1 on
    // success (any other value is a failure).
    static std::function<int(char *buffer, int length)> &random();

    // Answers file-existence questions for FileIsEntity and FileAccess: return 1 (exists),
    // 0 (does not exist), -1 (no access), or any other value to let the system answer.
    static std::function<int(char const *path)> &fileExists();

    // Replaces the clock of ClockSeconds and ClockTimeOfDaySeconds: seconds since the epoch.
    static std::function<int64_t()> &clock();

    // Answers the name lookups of SocketLookupAddress4/6 (`family` AF_INET or AF_INET6): return
    // 0 (found, no address stored) or -1 (not found), or any other value to let the system
    // answer. Keeps fuzzing and tests of host names off the resolver.
    static std::function<int(char const *host, int family)> &lookup();

    // Replaces the build's second configuration directory (see FileSecondConfigDir), so that
    // each test can give the library a directory of its own, chosen at run time.
    static std::function<std::string()> &configDir();

    // Called by the worker with the name of each step it is about to run: "Housekeeping",
    // "Transfers" and "Drain of finished flows" of every turn, and a command's name before its
    // handling. A test throws from it to prove that the worker survives a throw at that step.
    static std::function<void(char const *step)> &workerStep();

    // Called where the library takes in outside data of any size: "CurlRequest write" before
    // the write callback appends an answer's bytes, and each exported function's name on entry.
    // A test throws from it (std::bad_alloc, say), since a real allocation failure cannot be
    // brought about reliably: the process must survive it and answer with a failure value.
    static std::function<void(char const *where)> &allocation();

    // Asked by Io::wait before it polls: true makes the wait fail (-1, errno EIO) as a broken
    // descriptor would.
    static std::function<bool()> &waitFailure();

    // Clears every hook.
    static void reset();
};
