// Io: the internal pipe, waiting on two descriptors, and descriptor reads and writes that
// never touch a number the library closed itself.

#include "platform/Io.h"

#include "platform/PlatformFakes.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <unordered_set>

IoDescriptorTable Io::fds_;

namespace {

std::mutex &closedMutex() {
    // Both never destroyed: a worker still running at the process's exit may still write.
    static std::mutex &mutex = *new std::mutex;
    return mutex;
}

std::unordered_set<int> &closedNumbers() {
    static std::unordered_set<int> &numbers = *new std::unordered_set<int>;
    return numbers;
}

void forget(int fd) {
    std::lock_guard<std::mutex> lock(closedMutex());
    closedNumbers().erase(fd);
}

int readinessBit(short revents, int bit) {
    return (revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) ? bit : 0;
}

}  // namespace

bool Io::closedByUs(int fd) {
    std::lock_guard<std::mutex> lock(closedMutex());
    return closedNumbers().count(fd) != 0;
}

void Io::adopt(int fd) {
    forget(fd);
}

int Io::pipe(int fds[2], int flags, int size) {
    if (fds == nullptr) {
        errno = EINVAL;
        return -1;
    }
    int made[2];
    if (::pipe2(made, O_CLOEXEC | flags) != 0) {
        return -1;
    }
    if (size > 0) {
        ::fcntl(made[1], F_SETPIPE_SZ, size);
    }
    forget(made[0]);
    forget(made[1]);
    fds[0] = made[0];
    fds[1] = made[1];
    return 0;
}

int Io::wait(int first, int second, int ms) {
    auto const &fake = PlatformFakes::waitFailure();
    if (fake && fake()) {
        errno = EIO;
        return -1;
    }
    struct pollfd polled[2] = {{first, POLLIN, 0}, {second, POLLIN, 0}};
    int ready = ::poll(polled, 2, ms);
    if (ready < 0) {
        // A signal is no failure of the channel: report it as a time-out.
        return errno == EINTR ? 0 : -1;
    }
    if (ready == 0) {
        return 0;
    }
    return readinessBit(polled[0].revents, 1) | readinessBit(polled[1].revents, 2);
}

int Io::close(int fd) {
    {
        std::lock_guard<std::mutex> lock(closedMutex());
        if (fd < 0 || closedNumbers().count(fd) != 0) {
            errno = EBADF;
            return -1;
        }
        closedNumbers().insert(fd);
    }
    return ::close(fd);
}

ssize_t IoDescriptor::read(void *buffer, size_t size) const {
    if (Io::closedByUs(fd)) {
        errno = EBADF;
        return -1;
    }
    return ::read(fd, buffer, size);
}

ssize_t IoDescriptor::write(void const *data, size_t size) const {
    if (Io::closedByUs(fd)) {
        errno = EBADF;
        return -1;
    }
    ssize_t written = ::send(fd, data, size, MSG_NOSIGNAL);
    if (written < 0 && errno == ENOTSOCK) {
        // Pipes and files: the calling thread blocks SIGPIPE (ThreadInit) where that matters.
        written = ::write(fd, data, size);
    }
    return written;
}
