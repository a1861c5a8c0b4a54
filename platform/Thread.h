#pragma once

#include <cstdint>

// Prepares the calling thread to be the library's worker: blocks SIGPIPE and the other
// asynchronous signals (so the host's handlers run on its own threads and a closed peer never
// kills the process) and names the thread "qxss-worker". `kind` is accepted as it stands.
void ThreadInit(int kind);

// Starts `body(argument)` on a new joinable thread. Stores an opaque handle for ThreadJoin and
// the kernel thread id (for logs). Returns 1 on success, 0 on failure (outputs untouched).
int ThreadCreate(uint64_t *handle, uint64_t *id, void *(*body)(void *), void *argument);

// Whether the calling thread is the thread of `handle`: 1 if it is, 0 if not. Any thread.
int ThreadIsCurrent(uint64_t handle);

// Waits for the thread of `handle` to end and stores its result when `result` is not null.
// Returns 1 on success, 0 on failure.
int ThreadJoin(uint64_t handle, void **result);
