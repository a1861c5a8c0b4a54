// The worker's lifecycle exports: SsoInitialize starts the one worker thread, SsoDestroy stops
// it, and TimedOperations is the housekeeping that the worker runs once a turn.
#include "actions/SsoActions.h"
#include "platform/Io.h"
#include "platform/Log.h"
#include "platform/Thread.h"
#include "server/SsoServer.h"
#include "transport/CurlRequest.h"
#include "worker/ExportGuard.h"
#include "worker/SsoWorkerInfo.h"
#include "worker/libqxss.h"

#include <cstdint>

int32_t ticks = 0;

namespace {

constexpr uint64_t kNoThread = UINT64_MAX;
constexpr int32_t kNoFd = -1;
// What SsoInitialize returns.
constexpr int kInitialized = 0;
constexpr int kNotInitialized = -1;
// The platform's thread calls answer 1 for success (ThreadCreate) and for yes
// (ThreadIsCurrent).
constexpr int kThreadYes = 1;
// The size asked for the internal pipe's buffer.
constexpr int kPipeCapacity = 65536;
// The worker wakes on the pipe's readability and never reads these bytes.
constexpr int32_t kStopMessage = 1;
// TimedOperations runs once a worker turn, so these count turns: every 6,000th drops the idle
// dynamic handles, and the 30,000th forgets aged refresh records and starts the count anew.
constexpr int32_t kHandlerCleanupTicks = 6000;
constexpr int32_t kTokenCleanupTicks = 30000;

SsoWorkerInfo workerInfo = {kNoThread, kNoThread, kNoFd, kNoFd, kNoFd};

void clearWorkerInfo() {
    workerInfo = SsoWorkerInfo{kNoThread, kNoThread, kNoFd, kNoFd, kNoFd};
}

void closePipe(int readFd, int writeFd) {
    Log() << "Sso: Closing FD#" << readFd << " and FD#" << writeFd << ".\n";
    Io::close(readFd);
    Io::close(writeFd);
}

}  // namespace

namespace {

int initialize(int fd) {
    Log() << "Sso: Initialization received FD#" << fd << ".\n";
    if (workerInfo.threadHandle != kNoThread) {
        Log() << "Sso: ERROR! Worker thread was created.\n";
        return kNotInitialized;
    }
    Log() << "Sso: Creating internal pipe.\n";
    int fds[2] = {kNoFd, kNoFd};
    if (Io::pipe(fds, 0, kPipeCapacity) == -1) {
        Log() << "Sso: ERROR! Can't create internal pipe.\n";
        return kNotInitialized;
    }
    Log() << "Sso: Internal pipe read FD#" << fds[0] << " write FD#" << fds[1] << ".\n";
    Log() << "Sso: Initializing sso environment.\n";
    if (SsoActions::initialize() != 0) {
        Log() << "Sso: ERROR! Can't initialize sso environment.\n";
        closePipe(fds[0], fds[1]);
        return kNotInitialized;
    }
    Io::adopt(fd);
    workerInfo.internalReadFd = fds[0];
    workerInfo.internalWriteFd = fds[1];
    workerInfo.ioFd = fd;
    Log() << "Sso: Creating worker thread.\n";
    if (ThreadCreate(&workerInfo.threadHandle, &workerInfo.threadId, loop, &workerInfo) ==
        kThreadYes) {
        Log() << "Sso: Thread " << workerInfo.threadId << " created with I/O FD#" << workerInfo.ioFd
              << " internal FD#" << workerInfo.internalReadFd << " and FD#"
              << workerInfo.internalWriteFd << ".\n";
        return kInitialized;
    }
    Log() << "Sso: ERROR! Can't create worker thread.\n";
    closePipe(fds[0], fds[1]);
    clearWorkerInfo();
    Log() << "Sso: Destroying sso environment.\n";
    SsoActions::destroy();
    return kNotInitialized;
}

void destroy() {
    // From the worker's own thread (a log callback, say) a join would wait for itself and the
    // engines would be freed under the running worker. No log line either: this may be
    // running inside one.
    if (workerInfo.threadHandle != kNoThread &&
        ThreadIsCurrent(workerInfo.threadHandle) == kThreadYes) {
        return;
    }
    if (workerInfo.threadHandle == kNoThread) {
        Log() << "Sso: WARNING! Worker thread was not created.\n";
        return;
    }
    Log() << "Sso: Worker thread ID is " << workerInfo.threadId << ".\n";
    int32_t const stop = kStopMessage;
    Log() << "Sso: Writing " << static_cast<int>(sizeof stop) << " bytes on FD#"
          << workerInfo.internalWriteFd << " to stop thread.\n";
    Io::fds_[workerInfo.internalWriteFd].write(&stop, sizeof stop);
    Log() << "Sso: Waiting for thread  " << workerInfo.threadId << " to end.\n";
    void *result = nullptr;
    ThreadJoin(workerInfo.threadHandle, &result);
    Log() << "Sso: Closing thread  " << workerInfo.threadId << " FD#" << workerInfo.internalReadFd
          << ".\n";
    Log() << "Sso: Closing thread  " << workerInfo.threadId << " FD#" << workerInfo.internalWriteFd
          << ".\n";
    Io::close(workerInfo.internalReadFd);
    Io::close(workerInfo.internalWriteFd);
    clearWorkerInfo();
    Log() << "Sso: Destroying sso environment.\n";
    SsoActions::destroy();
}

void timedOperations() {
    int32_t next = ticks + 1;
    ticks = next;
    if (next % kHandlerCleanupTicks == 0) {
        CurlRequest::getNetwork().cleanupDynamicHandlers();
        return;
    }
    if (next >= kTokenCleanupTicks) {
        SsoServer::getServer().cleanTokens();
        ticks = 0;
    }
}

}  // namespace

int SsoInitialize(int fd) {
    return ExportGuard::run("SsoInitialize", kNotInitialized, [fd] { return initialize(fd); });
}

void SsoDestroy() {
    ExportGuard::run("SsoDestroy", [] { destroy(); });
}

void TimedOperations() {
    ExportGuard::run("TimedOperations", [] { timedOperations(); });
}
