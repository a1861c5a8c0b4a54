#include "tests/harness/TempDir.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <vector>

namespace {

int removeEntry(char const *path, struct stat const *, int, struct FTW *) {
    return ::remove(path) == 0 ? 0 : -1;
}

}  // namespace

TempDir::TempDir(std::string const &name) {
    char const *tmp = getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qxss-" + name + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) != nullptr) {
        path = buffer.data();
    }
}

TempDir::~TempDir() {
    if (!path.empty()) {
        removeTree(path);
    }
}

std::string TempDir::file(std::string const &name, std::string const &content) const {
    std::string full = path + "/" + name;
    std::ofstream(full, std::ios::binary | std::ios::trunc) << content;
    return full;
}

bool removeTree(std::string const &path) {
    if (path.empty() || path == "/") {
        return false;
    }
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) {
        return true;
    }
    // Depth first, so that every directory is empty when its turn comes.
    return nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) == 0;
}
