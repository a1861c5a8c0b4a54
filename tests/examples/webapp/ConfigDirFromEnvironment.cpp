// Linked into the browser test's build of the web application only: the library then takes its
// configuration from the directory in QXSS_WEBAPP_CONFIG_DIR, and "/usr/QX/etc" counts as
// missing, so that the test brings a configuration of its own without writing to /usr and
// without depending on what that machine has there.
#include "platform/PlatformFakes.h"

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct ConfigDirFromEnvironment {
    ConfigDirFromEnvironment() {
        char const *dir = std::getenv("QXSS_WEBAPP_CONFIG_DIR");
        if (dir == nullptr || *dir == '\0') {
            return;
        }
        std::string const chosen = dir;
        PlatformFakes::configDir() = [chosen] { return chosen; };
        PlatformFakes::fileExists() = [](char const *path) {
            return std::strncmp(path, "/usr/QX/etc", 11) == 0 ? 0 : 2;
        };
    }
};

ConfigDirFromEnvironment const hook;

}  // namespace
