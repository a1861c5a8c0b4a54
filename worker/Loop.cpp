// The worker thread's body: each turn waits, runs the housekeeping, the transfers and the
// drain of finished flows, and then reads and runs the host's commands.
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "transport/CurlRequest.h"
#include "worker/ExportGuard.h"
#include "worker/SsoChannel.h"
#include "worker/SsoCommands.h"
#include "worker/SsoWorkerInfo.h"
#include "worker/libqxss.h"

#include <errno.h>

#include <string>

namespace {

constexpr size_t kReadSize = 5680;
constexpr int kWaitMilliseconds = 50;
// The kind of thread ThreadInit prepares: the library's worker.
constexpr int kWorkerThreadKind = 104;
// The wait's result when neither descriptor became ready.
constexpr int kNothingReady = 0;

// Runs one step of the turn; a throw is logged and the turn goes on.
template <typename Step>
void guarded(char const *what, Step step) {
    try {
        SsoChannel::enterStep(what);
        step();
    } catch (...) {
        Log() << "Sso: ERROR! " << what << " failed: '" << SsoChannel::currentError() << "'.\n";
    }
}

int waitForTurn(int internalReadFd, int ioFd) {
    try {
        return CurlRequest::getNetwork().waitForEvents(internalReadFd, ioFd, kWaitMilliseconds);
    } catch (...) {
        Log() << "Sso: ERROR! Wait failed: '" << SsoChannel::currentError() << "'.\n";
        return Io::wait(internalReadFd, ioFd, kWaitMilliseconds);
    }
}

void runWorker(void *argument) {
    SsoWorkerInfo const &info = *static_cast<SsoWorkerInfo *>(argument);
    Log() << "Sso: Worker thread " << info.threadId << " started job with I/O FD: " << info.ioFd
          << " internal FD#" << info.internalReadFd << " and FD#" << info.internalWriteFd << ".\n";
    ThreadInit(kWorkerThreadKind);

    std::string lineCarry;
    char buffer[kReadSize];

    for (;;) {
        // The wait also wakes for the background transfers, so a flow's next step is not held
        // back by an idle turn; its result for the two descriptors is Io::wait's.
        int ready = waitForTurn(info.internalReadFd, info.ioFd);
        guarded("Housekeeping", [] { TimedOperations(); });
        guarded("Transfers", [] { CurlRequest::getNetwork().perform(); });
        guarded("Drain of finished flows",
                [&info] { SsoCommands::drainCompletedFlows(info.ioFd); });

        if (ready == kNothingReady) {
            continue;
        }
        if (ready < 0) {
            break;
        }
        Log() << "Sso: Worker thread " << info.threadId << " received event from waiter.\n";
        if (ready == Io::kFirstReady || ready == (Io::kFirstReady | Io::kSecondReady)) {
            // A stop request wins over pending input.
            Log() << "Sso: Worker thread " << info.threadId << " received exit message.\n";
            break;
        }
        if (ready != Io::kSecondReady) {
            continue;
        }

        Log() << "Sso: Worker thread " << info.threadId << " reading from FD#" << info.ioFd
              << ".\n";
        ssize_t count = Io::fds_[info.ioFd].read(buffer, kReadSize);
        int readError = errno;
        Log() << "Sso: Worker thread " << info.threadId << " readed " << count << " bytes from FD#"
              << info.ioFd << ".\n";
        if (count == 0) {
            Log() << "Sso: WARNING! Worker thread " << info.threadId << " reaches EOF.\n";
            break;
        }
        if (count < 0) {
            if (readError == EINTR) {
                Log() << "Sso: ERROR! Worker thread " << info.threadId
                      << " got signal interrupt. Waiting for other event.\n";
                continue;
            }
            Log() << "Sso: ERROR! Worker thread " << info.threadId
                  << " got internal error. Closing FD: " << info.internalReadFd << " and FD#"
                  << info.internalWriteFd << ".\n";
            Io::close(info.internalReadFd);
            Io::close(info.internalWriteFd);
            break;
        }

        SsoChannel::receive(buffer, static_cast<size_t>(count), lineCarry, info);
    }
}

}  // namespace

void *loop(void *argument) {
    ExportGuard::run("loop", [argument] { runWorker(argument); });
    return nullptr;
}
