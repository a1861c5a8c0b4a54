#pragma once

#include "platform/IoDescriptor.h"

// Pipes, waiting and closing for the worker channel. All static; any thread.
class Io {
public:
    // Creates a pipe, close-on-exec on both ends, fds[0] the read end and fds[1] the write end.
    // `flags` 0 means no further flags (others are passed to pipe2). `size` is the wanted
    // capacity; failing to resize is not an error. Returns 0, or -1 with errno.
    static int pipe(int fds[2], int flags, int size);

    // Waits up to `ms` milliseconds for `first` or `second` to become readable. Returns 0 on
    // time-out, -1 on failure, else bit 1 for `first` and bit 2 for `second`. Hang-up or an
    // error on a descriptor counts as readable, so that the next read reports it.
    static int wait(int first, int second, int ms);
    // The bits of wait's result.
    static constexpr int kFirstReady = 1;
    static constexpr int kSecondReady = 2;

    // Closes a descriptor and remembers that the platform closed it. A number closed this way
    // before is left alone (-1, errno EBADF).
    static int close(int fd);

    // Tells the platform that `fd` now names a descriptor handed in from outside, so an old
    // closed mark on the same number no longer applies.
    static void adopt(int fd);

    // True when the platform closed `fd` itself and has not seen the number reused since.
    static bool closedByUs(int fd);

    static IoDescriptorTable fds_;
};
