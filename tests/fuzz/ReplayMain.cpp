// The main of a fuzz target outside libFuzzer (gcc builds, plain and sanitized): feeds every
// file named on the command line, or found directly in a directory named there, to the target
// once, in name order. A crash ends the program as it would end the fuzzer; otherwise it
// prints how many inputs it ran and exits 0 (1 when an argument could not be read, or when
// there was nothing to replay, which would make the test prove nothing).
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const *data, size_t size);

namespace {

bool isDirectory(std::string const &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool collect(std::string const &path, std::vector<std::string> &files) {
    if (!isDirectory(path)) {
        files.push_back(path);
        return true;
    }
    DIR *directory = opendir(path.c_str());
    if (directory == nullptr) {
        return false;
    }
    std::vector<std::string> found;
    while (dirent const *entry = readdir(directory)) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && !isDirectory(path + "/" + name)) {
            found.push_back(path + "/" + name);
        }
    }
    closedir(directory);
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (!collect(argv[i], files)) {
            std::fprintf(stderr, "replay: cannot read '%s'\n", argv[i]);
            return 1;
        }
    }
    for (auto const &path : files) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "replay: cannot read '%s'\n", path.c_str());
            return 1;
        }
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                   std::istreambuf_iterator<char>());
        // An empty vector's data() may be null; libFuzzer never passes null.
        static uint8_t const none = 0;
        LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
    }
    std::printf("replay: %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
