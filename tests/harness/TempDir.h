#pragma once

#include <string>

// A directory of its own under the system's temporary directory ($TMPDIR or /tmp), removed with
// everything in it when the object goes. `path` is empty when the directory could not be made.
class TempDir {
public:
    // "<tmp>/qxss-<name>-XXXXXX".
    explicit TempDir(std::string const &name);
    ~TempDir();
    TempDir(TempDir const &) = delete;
    TempDir &operator=(TempDir const &) = delete;

    // Writes `content` to the file `name` in the directory and returns its full path.
    std::string file(std::string const &name, std::string const &content) const;

    std::string path;
};

// Removes `path` and everything below it, without following symbolic links. True when nothing
// is left.
bool removeTree(std::string const &path);
