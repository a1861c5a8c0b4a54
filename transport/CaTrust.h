#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>

struct x509_store_st;

// One source of trust as a road gives it to libcurl: a bundle file and a hashed certificate
// directory (either may be empty), the store parsed from them, and what the file looked like
// when it was parsed, so that a changed file is parsed again. Owned by CaStore.
struct CaTrust {
    std::string file;
    std::string directory;
    x509_store_st *store = nullptr;  // one reference owned here; null until first parsed
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec modified{};
};
