#include "tests/harness/TestMachine.h"

#include "platform/PlatformFakes.h"
#include "tests/harness/TempDir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace {

// Everything this process writes for its roles lives below one temporary directory, removed
// when the program ends.
TempDir &root() {
    static TempDir directory("machine");
    if (directory.path.empty()) {
        std::fprintf(stderr, "TestMachine: cannot make a temporary directory\n");
        std::abort();
    }
    return directory;
}

std::string current;
int made = 0;

// The current directory's name, whether or not it exists.
std::string const &currentPath() {
    if (current.empty()) {
        current = root().path + "/etc-" + std::to_string(++made);
    }
    return current;
}

void installRole() {
    PlatformFakes::fileExists() = [](char const *path) {
        return std::strncmp(path, "/usr/QX/etc", 11) == 0 ? 0 : 2;
    };
    // The name only: the library must find the directory missing after noConfigDir().
    PlatformFakes::configDir() = [] { return currentPath(); };
}

}  // namespace

std::string TestMachine::configDir() {
    mkdir(currentPath().c_str(), 0755);
    return current;
}

std::string TestMachine::configFile() {
    return configDir() + "/sso.cfg";
}

void TestMachine::node() {
    installRole();
    unlink(configFile().c_str());
}

void TestMachine::server(std::string const &text) {
    installRole();
    std::ofstream file(configFile(), std::ios::trunc);
    file << text;
}

void TestMachine::noConfigDir() {
    installRole();
    removeTree(currentPath());
}

void TestMachine::reset() {
    PlatformFakes::reset();
    node();
}

void TestMachine::beginTest() {
    endTest();
    reset();
}

void TestMachine::endTest() {
    PlatformFakes::reset();
    if (!current.empty()) {
        removeTree(current);
        current.clear();
    }
}
