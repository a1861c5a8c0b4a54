#include "tests/harness/TestCa.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

std::string environment(char const *name) {
    char const *value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

std::string TestCa::directory() {
    return environment("QXSS_TEST_CA_DIR");
}

std::string TestCa::file(std::string const &name) {
    return directory() + "/" + name;
}

std::string TestCa::bundle() {
    return environment("QXSS_TEST_CA_BUNDLE");
}

std::string TestCa::why() {
    if (directory().empty() || bundle().empty()) {
        return "not run under scripts/with-test-ca.sh (QXSS_TEST_CA_DIR and QXSS_TEST_CA_BUNDLE "
               "are not set), so no test CA is trusted";
    }
    for (auto const &name : {"ca.pem", "server.pem", "server.key", "other-host.pem",
                             "other-host.key", "untrusted.pem", "untrusted.key"}) {
        if (access(file(name).c_str(), R_OK) != 0) {
            return file(name) + " is missing: make the CA with tests/servers/make-test-ca.sh";
        }
    }
    if (access(bundle().c_str(), R_OK | W_OK) != 0) {
        return "the bundle " + bundle() + " cannot be read and written";
    }
    return std::string();
}

bool TestCa::available() {
    return why().empty();
}

std::string TestCa::readBundle() {
    std::ifstream in(bundle(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool TestCa::writeBundle(std::string const &content) {
    // Truncate and write the same file: a new file renamed over it would not be the one mounted.
    std::ofstream out(bundle(), std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return !out.fail();
}

bool TestCa::makeWorld(std::string const &target) {
    std::string command = "'" + std::string(QXSS_SOURCE_DIR) + "/tests/servers/make-test-ca.sh' '" +
                          target + "' >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}
