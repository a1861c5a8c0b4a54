// Files: whether a path exists or is out of reach, and the second configuration directory.

#include "platform/Files.h"

#include "platform/PlatformFakes.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef QXSS_SECOND_CONFIG_DIR
#define QXSS_SECOND_CONFIG_DIR ""
#endif

namespace {

// 1, 0 or -1 from the fake; 2 when no fake answers.
int fakeAnswer(char const *path) {
    auto &fake = PlatformFakes::fileExists();
    if (!fake) {
        return 2;
    }
    int answer = fake(path);
    return (answer == 1 || answer == 0 || answer == -1) ? answer : 2;
}

}  // namespace

int FileIsEntity(char const *path) {
    if (path == nullptr || *path == '\0') {
        return 0;
    }
    int fake = fakeAnswer(path);
    if (fake != 2) {
        return fake;
    }
    struct stat info;
    if (::stat(path, &info) == 0) {
        return 1;
    }
    return errno == EACCES ? -1 : 0;
}

int FileAccess(char const *path) {
    if (path == nullptr || *path == '\0') {
        errno = ENOENT;
        return -1;
    }
    int fake = fakeAnswer(path);
    if (fake == 1) {
        return 0;
    }
    if (fake == 0 || fake == -1) {
        errno = fake == 0 ? ENOENT : EACCES;
        return -1;
    }
    return ::access(path, F_OK);
}

std::string FileSecondConfigDir() {
    auto const &fake = PlatformFakes::configDir();
    if (fake) {
        return fake();
    }
    return QXSS_SECOND_CONFIG_DIR;
}
