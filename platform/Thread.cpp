#include "platform/Thread.h"

#include <pthread.h>
#include <signal.h>

#include <initializer_list>
#include <new>

namespace {

struct ThreadStart {
    void *(*body)(void *);
    void *argument;
};

void *startThread(void *raw) {
    ThreadStart start = *static_cast<ThreadStart *>(raw);
    delete static_cast<ThreadStart *>(raw);
    return start.body(start.argument);
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
    ThreadStart *start = new (std::nothrow) ThreadStart{body, argument};
    if (start == nullptr) {
        return 0;
    }
    // The id only appears in log lines; the handle's numeric form serves and needs no
    // handshake with the new thread.
    pthread_t thread;
    if (pthread_create(&thread, nullptr, startThread, start) != 0) {
        delete start;
        return 0;
    }
    *handle = static_cast<uint64_t>(thread);
    *id = static_cast<uint64_t>(thread);
    return 1;
}

int ThreadJoin(uint64_t handle, void **result) {
    void *ignored = nullptr;
    if (pthread_join(static_cast<pthread_t>(handle), result ? result : &ignored) != 0) {
        return 0;
    }
    return 1;
}
