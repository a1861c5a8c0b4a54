#pragma once

#include "transport/CaTrust.h"

#include <curl/curl.h>

#include <list>
#include <mutex>
#include <string>

// The process's parsed trust. Parsing a CA bundle of the system (about 140 certificates) costs
// far more CPU than a TLS handshake, and libcurl would parse it again for every new connection.
// So each trust source (bundle file plus directory) is parsed once into a store that every new
// connection of every road shares; the store is parsed again when the file has changed since
// (device, inode, size or modification time), for the next new connection. Any thread; the
// stores are never freed, since the worker may outlive the process's exit.
class CaStore {
public:
    // The singleton, built on first use, never destroyed.
    static CaStore &getStore();

    // Makes the new connections of `handle` (to the server and to an HTTPS proxy) trust `file`
    // together with libcurl's built-in directory, or libcurl's built-in bundle and directory
    // when `file` is null: libcurl parses nothing itself (CURLOPT_CAINFO and CURLOPT_CAPATH
    // null, its own cache off), and each new connection is handed the shared store. The
    // handle's other TLS options are left as they are. The code of the first failing option.
    CURLcode trustOn(CURL *handle, char const *file);

    // The store of `trust`, parsed (again) if its file changed since it was parsed; one
    // reference for the caller, or null when nothing could be read.
    struct x509_store_st *storeFor(CaTrust &trust);

    // The entry for `file` and `directory`, made on first use; stable for the process's life.
    CaTrust &trustFor(std::string const &file, std::string const &directory);

    // CURLOPT_SSL_CTX_FUNCTION: sets the store of the CaTrust behind `trust` on the new
    // connection's OpenSSL context. CURLE_SSL_CACERT_BADFILE when nothing could be read, which
    // fails that connection as a missing bundle file does.
    static CURLcode onContext(CURL *handle, void *context, void *trust);

    // How many times a bundle has been parsed (for tests and the benchmark).
    unsigned long parses = 0;

    std::mutex mutex;
    std::list<CaTrust> trusts;
    // libcurl's built-in bundle and directory, read once from a fresh handle.
    bool builtInKnown = false;
    std::string builtInFile;
    std::string builtInDirectory;
};
