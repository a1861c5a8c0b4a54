#pragma once

#include <string>

// 1: the file or directory exists; 0: it does not; -1: it exists but cannot be reached for
// lack of access. Any thread.
int FileIsEntity(char const *path);

// access(2) with F_OK semantics as seen through the platform (0 exists, -1 with errno
// otherwise), so that tests can fake which files a machine has.
int FileAccess(char const *path);

// The second directory in which the configuration file is looked for: the build's
// QXSS_SECOND_CONFIG_DIR, empty in production builds (then there is no second candidate).
// Tests may choose another at run time through PlatformFakes::configDir(). Any thread.
std::string FileSecondConfigDir();
