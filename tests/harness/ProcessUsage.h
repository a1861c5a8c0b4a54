#pragma once

#include <cstddef>

// What this process holds at one moment: open descriptors, threads and live heap bytes. Tests
// take one before and one after a stretch of work and compare them.
class ProcessUsage {
public:
    // A snapshot of now.
    static ProcessUsage now();

    size_t descriptors = 0;  // entries of /proc/self/fd
    size_t threads = 0;      // entries of /proc/self/task
    // Bytes allocated and not yet freed: the sanitizer allocator's count in sanitizer builds
    // (freed memory in its quarantine is not live), malloc's (mallinfo2) otherwise.
    size_t heapBytes = 0;
};
