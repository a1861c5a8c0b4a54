#include "platform/PlatformFakes.h"

std::function<int(char *, int)> &PlatformFakes::random() {
    static std::function<int(char *, int)> hook;
    return hook;
}

std::function<int(char const *)> &PlatformFakes::fileExists() {
    static std::function<int(char const *)> hook;
    return hook;
}

std::function<int64_t()> &PlatformFakes::clock() {
    static std::function<int64_t()> hook;
    return hook;
}

std::function<int(char const *, int)> &PlatformFakes::lookup() {
    static std::function<int(char const *, int)> hook;
    return hook;
}

std::function<std::string()> &PlatformFakes::configDir() {
    static std::function<std::string()> hook;
    return hook;
}

void PlatformFakes::reset() {
    configDir() = nullptr;
    clock() = nullptr;
    random() = nullptr;
    fileExists() = nullptr;
    lookup() = nullptr;
}
