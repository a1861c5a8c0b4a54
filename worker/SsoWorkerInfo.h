#pragma once

#include <cstdint>

// The one record of the worker thread. All fields are -1 while no worker exists; threadHandle
// alone decides that. The worker reads it and never writes it.
struct SsoWorkerInfo {
    uint64_t threadHandle;  // from ThreadCreate; all ones: no worker
    uint64_t threadId;      // from ThreadCreate; for log lines only
    int32_t ioFd;           // the host's descriptor; the library never closes it
    int32_t internalReadFd;
    int32_t internalWriteFd;
};
