#pragma once

#include <sys/types.h>

#include <cstddef>

// A descriptor number seen through the platform. Numbers that the platform closed itself are
// refused (-1, errno EBADF) so that a number the host has since reused is never touched.
class IoDescriptor {
public:
    explicit IoDescriptor(int number) : fd(number) {}

    // Up to `size` bytes; 0 at end of file; -1 with errno on failure.
    ssize_t read(void *buffer, size_t size) const;

    // One write of `size` bytes. Never raises SIGPIPE: a peer that went away yields -1/EPIPE.
    ssize_t write(void const *data, size_t size) const;

    int fd;
};

// Indexable view of descriptor objects: Io::fds_[fd].read(...).
class IoDescriptorTable {
public:
    IoDescriptor operator[](int fd) const { return IoDescriptor(fd); }
};
