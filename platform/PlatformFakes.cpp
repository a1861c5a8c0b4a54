// PlatformFakes: the test seams of the platform layer (random source, files, clock, lookups,
// worker steps, allocation, wait failures) and their reset.

#include "platform/PlatformFakes.h"

// The hooks are never destroyed: the worker reads them and may outlive the process's exit.

std::function<int(char *, int)> &PlatformFakes::random() {
    static std::function<int(char *, int)> &hook = *new std::function<int(char *, int)>;
    return hook;
}

std::function<int(char const *)> &PlatformFakes::fileExists() {
    static std::function<int(char const *)> &hook = *new std::function<int(char const *)>;
    return hook;
}

std::function<int64_t()> &PlatformFakes::clock() {
    static std::function<int64_t()> &hook = *new std::function<int64_t()>;
    return hook;
}

std::function<int(char const *, int)> &PlatformFakes::lookup() {
    static std::function<int(char const *, int)> hook;
    return hook;
}

std::function<std::string()> &PlatformFakes::configDir() {
    static std::function<std::string()> &hook = *new std::function<std::string()>;
    return hook;
}

std::function<void(char const *)> &PlatformFakes::workerStep() {
    static std::function<void(char const *)> &hook = *new std::function<void(char const *)>;
    return hook;
}

std::function<void(char const *)> &PlatformFakes::allocation() {
    static std::function<void(char const *)> &hook = *new std::function<void(char const *)>;
    return hook;
}

std::function<bool()> &PlatformFakes::waitFailure() {
    static std::function<bool()> &hook = *new std::function<bool()>;
    return hook;
}

void PlatformFakes::reset() {
    waitFailure() = nullptr;
    allocation() = nullptr;
    workerStep() = nullptr;
    configDir() = nullptr;
    clock() = nullptr;
    random() = nullptr;
    fileExists() = nullptr;
    lookup() = nullptr;
}
