// Linked into the browser test's build of the web application only: while the file named in
// QXSS_WEBAPP_STALL_FILE exists, the library's worker stands still at the start of each turn,
// as a worker stuck in a long blocking request would, so that the test can see /healthz tell
// a worker that no longer answers from one that does.
#include "platform/PlatformFakes.h"

#include <unistd.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

struct StallFromEnvironment {
    StallFromEnvironment() {
        char const *file = std::getenv("QXSS_WEBAPP_STALL_FILE");
        if (file == nullptr || *file == '\0') {
            return;
        }
        std::string const path = file;
        PlatformFakes::workerStep() = [path](char const *step) {
            if (std::strcmp(step, "Housekeeping") != 0) {
                return;
            }
            while (access(path.c_str(), F_OK) == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        };
    }
};

StallFromEnvironment const hook;

}  // namespace
