#include "tests/harness/ProcessUsage.h"

#include <dirent.h>
#include <malloc.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtime's count of live heap bytes (gcc ships no header that declares it).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

// Entries of a /proc directory, without "." and "..", and without the descriptor that reading
// the directory itself holds.
size_t entries(char const *path, bool ownDescriptor) {
    DIR *directory = opendir(path);
    if (directory == nullptr) {
        return 0;
    }
    size_t count = 0;
    while (dirent *entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    closedir(directory);
    return ownDescriptor && count > 0 ? count - 1 : count;
}

}  // namespace

ProcessUsage ProcessUsage::now() {
    ProcessUsage usage;
    usage.descriptors = entries("/proc/self/fd", true);
    usage.threads = entries("/proc/self/task", false);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    usage.heapBytes = __sanitizer_get_current_allocated_bytes();
#else
    usage.heapBytes = mallinfo2().uordblks;
#endif
    return usage;
}
