// The one addition of the test stand-in for the shared library: a host hands it the directory
// that the platform's test hook then gives as the machine's configuration directory.
#include "platform/PlatformFakes.h"

#include <string>

extern "C" __attribute__((visibility("default"))) void QxssTestUseConfigDir(char const *dir) {
    std::string const directory = dir;
    PlatformFakes::configDir() = [directory] { return directory; };
}
