#include "tests/harness/TestMachine.h"

#include "platform/PlatformFakes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

namespace {

void hideFirstCandidate() {
    PlatformFakes::fileExists() = [](char const *path) {
        return std::strncmp(path, "/usr/QX/etc", 11) == 0 ? 0 : 2;
    };
}

}  // namespace

std::string TestMachine::configDir() {
    std::string directory = QXSS_SECOND_CONFIG_DIR;
    if (!directory.empty()) {
        mkdir(directory.c_str(), 0755);
    }
    return directory;
}

std::string TestMachine::configFile() {
    return configDir() + "/sso.cfg";
}

void TestMachine::node() {
    hideFirstCandidate();
    unlink(configFile().c_str());
}

void TestMachine::server(std::string const &text) {
    hideFirstCandidate();
    std::ofstream file(configFile(), std::ios::trunc);
    file << text;
}

void TestMachine::noConfigDir() {
    hideFirstCandidate();
    unlink(configFile().c_str());
    rmdir(configDir().c_str());
}

void TestMachine::reset() {
    PlatformFakes::reset();
}
