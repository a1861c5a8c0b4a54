// Thread: the worker thread's start, its signal mask and name, and joining it.

#include "platform/Thread.h"

#include <pthread.h>
#include <signal.h>

#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <new>

namespace {

// The new thread waits at this latch until its creator has written the handle and the id,
// so that the body never reads them half-written.
struct ThreadStart {
    void *(*body)(void *) = nullptr;
    void *argument = nullptr;
    std::mutex mutex;
    std::condition_variable released;
    bool ready = false;
};

void *startThread(void *raw) {
    auto *start = static_cast<ThreadStart *>(raw);
    {
        std::unique_lock<std::mutex> lock(start->mutex);
        start->released.wait(lock, [start] { return start->ready; });
    }
    void *(*body)(void *) = start->body;
    void *argument = start->argument;
    delete start;
    return body(argument);
}

}  // namespace

void ThreadInit(int /*kind*/) {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int signal : {SIGPIPE, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM,
                       SIGCHLD, SIGWINCH, SIGURG, SIGIO, SIGPROF, SIGVTALRM}) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    pthread_setname_np(pthread_self(), "qxss-worker");
}

int ThreadCreate(uint64_t *handle, uint64_t *id, void *(*body)(void *), void *argument) {
    if (handle == nullptr || id == nullptr || body == nullptr) {
        return 0;
    }
    ThreadStart *start = new (std::nothrow) ThreadStart;
    if (start == nullptr) {
        return 0;
    }
    start->body = body;
    start->argument = argument;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, startThread, start) != 0) {
        delete start;
        return 0;
    }
    // The id is the handle's number; it only appears in log lines.
    *handle = static_cast<uint64_t>(thread);
    *id = static_cast<uint64_t>(thread);
    // Notified under the lock: once it is released the new thread owns (and frees) `start`.
    std::lock_guard<std::mutex> lock(start->mutex);
    start->ready = true;
    start->released.notify_one();
    return 1;
}

int ThreadIsCurrent(uint64_t handle) {
    return pthread_equal(pthread_self(), static_cast<pthread_t>(handle)) != 0 ? 1 : 0;
}

int ThreadJoin(uint64_t handle, void **result) {
    void *ignored = nullptr;
    if (pthread_join(static_cast<pthread_t>(handle), result ? result : &ignored) != 0) {
        return 0;
    }
    return 1;
}
