#pragma once

#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "worker/SsoChannel.h"

// Runs the body of an exported function so that no exception reaches the host, whose frames
// may be C: a throw is logged as "Sso: ERROR! Function '<name>' failed: '<what>'" and the
// function's failure value returned instead. Any thread.
class ExportGuard {
public:
    template <typename Result, typename Body>
    static Result run(char const *name, Result failure, Body body) {
        try {
            enter(name);
            return body();
        } catch (...) {
            logFailure(name);
            return failure;
        }
    }

    template <typename Body>
    static void run(char const *name, Body body) {
        try {
            enter(name);
            body();
        } catch (...) {
            logFailure(name);
        }
    }

private:
    static void enter(char const *name) {
        auto const &hook = PlatformFakes::allocation();
        if (hook) {
            hook(name);
        }
    }

    // Call inside a catch block only. The log itself may fail as well; then nothing is said.
    static void logFailure(char const *name) {
        try {
            Log() << "Sso: ERROR! Function '" << name << "' failed: '" << SsoChannel::currentError()
                  << "'.\n";
        } catch (...) {
        }
    }
};
