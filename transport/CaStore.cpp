// CaStore: trust parsed once per process and handed to every new TLS connection.

#include "transport/CaStore.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

namespace {

bool sameFile(CaTrust const &trust, struct stat const &now) {
    return trust.device == now.st_dev && trust.inode == now.st_ino && trust.size == now.st_size &&
           trust.modified.tv_sec == now.st_mtim.tv_sec &&
           trust.modified.tv_nsec == now.st_mtim.tv_nsec;
}

// A new store holding what libcurl itself would load for `file` and `directory`, or null.
X509_STORE *parse(std::string const &file, std::string const &directory) {
    X509_STORE *store = X509_STORE_new();
    if (store == nullptr) {
        return nullptr;
    }
    bool loaded = true;
    if (!file.empty() && X509_STORE_load_file(store, file.c_str()) != 1) {
        loaded = false;
    }
    if (loaded && !directory.empty() && X509_STORE_load_path(store, directory.c_str()) != 1) {
        loaded = false;
    }
    if (!loaded) {
        X509_STORE_free(store);
        return nullptr;
    }
    // As libcurl sets it: a certificate in the store ends the chain. No partial chains: the
    // roads all refuse them, so the flag that would allow them is never set.
    X509_STORE_set_flags(store, X509_V_FLAG_TRUSTED_FIRST);
    return store;
}

}  // namespace

CaStore &CaStore::getStore() {
    static CaStore &store = *new CaStore;
    return store;
}

CaTrust &CaStore::trustFor(std::string const &file, std::string const &directory) {
    std::lock_guard<std::mutex> lock(mutex);
    for (CaTrust &trust : trusts) {
        if (trust.file == file && trust.directory == directory) {
            return trust;
        }
    }
    trusts.emplace_back();
    trusts.back().file = file;
    trusts.back().directory = directory;
    return trusts.back();
}

X509_STORE *CaStore::storeFor(CaTrust &trust) {
    std::lock_guard<std::mutex> lock(mutex);
    struct stat now {};
    bool exists = !trust.file.empty() && stat(trust.file.c_str(), &now) == 0;
    bool current =
        trust.store != nullptr && (trust.file.empty() || (exists && sameFile(trust, now)));
    if (!current) {
        X509_STORE *fresh = parse(trust.file, trust.directory);
        if (fresh == nullptr) {
            return nullptr;
        }
        ++parses;
        if (trust.store != nullptr) {
            // Connections that took the old store hold their own reference.
            X509_STORE_free(trust.store);
        }
        trust.store = fresh;
        if (exists) {
            trust.device = now.st_dev;
            trust.inode = now.st_ino;
            trust.size = now.st_size;
            trust.modified = now.st_mtim;
        }
    }
    X509_STORE_up_ref(trust.store);
    return trust.store;
}

CURLcode CaStore::onContext(CURL *, void *context, void *trust) {
    X509_STORE *store = getStore().storeFor(*static_cast<CaTrust *>(trust));
    if (store == nullptr) {
        return CURLE_SSL_CACERT_BADFILE;
    }
    // The context takes over the reference storeFor gave.
    SSL_CTX_set_cert_store(static_cast<SSL_CTX *>(context), store);
    return CURLE_OK;
}

CURLcode CaStore::trustOn(CURL *handle, char const *file) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!builtInKnown) {
            // What a handle with no CA options of its own would load.
            CURL *fresh = curl_easy_init();
            if (fresh == nullptr) {
                return CURLE_OUT_OF_MEMORY;
            }
            char *path = nullptr;
            if (curl_easy_getinfo(fresh, CURLINFO_CAINFO, &path) == CURLE_OK && path != nullptr) {
                builtInFile = path;
            }
            path = nullptr;
            if (curl_easy_getinfo(fresh, CURLINFO_CAPATH, &path) == CURLE_OK && path != nullptr) {
                builtInDirectory = path;
            }
            curl_easy_cleanup(fresh);
            builtInKnown = true;
        }
    }
    CaTrust &trust = trustFor(file != nullptr ? std::string(file) : builtInFile, builtInDirectory);
    CURLcode result = CURLE_OK;
    for (CURLoption option :
         {CURLOPT_CAINFO, CURLOPT_CAPATH, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAPATH}) {
        result = curl_easy_setopt(handle, option, static_cast<char const *>(nullptr));
        if (result != CURLE_OK) {
            return result;
        }
    }
    // libcurl's own cache would keep a store past a change of the file.
    result = curl_easy_setopt(handle, CURLOPT_CA_CACHE_TIMEOUT, 0L);
    if (result == CURLE_OK) {
        result = curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &CaStore::onContext);
    }
    if (result == CURLE_OK) {
        result = curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &trust);
    }
    return result;
}
