#pragma once

#include <curl/curl.h>

#include <mutex>

// The kept-alive connections, TLS sessions and name lookups of the blocking requests
// (SsoRequest's and syncRequest's easy handles), shared through one libcurl share object, so
// that a blocking request to a provider reuses a connection that an earlier one left open.
// Each easy handle is still made new per request. Any thread: libcurl takes the locks below.
class CurlShare {
public:
    // The singleton, built on first use, never destroyed.
    static CurlShare &getShare();

    // Puts `handle` on the share, made on first use. The code of the failing option, or
    // CURLE_OK; CURLE_OUT_OF_MEMORY when no share could be made.
    CURLcode join(CURL *handle);
    // Closes the kept connections and frees the share; the next join makes a new one. Only
    // while no handle on it runs (SsoDestroy, after the worker has ended).
    void close();

    static void lock(CURL *handle, curl_lock_data data, curl_lock_access access, void *self);
    static void unlock(CURL *handle, curl_lock_data data, void *self);

    CURLSH *share = nullptr;
    std::mutex guard;                       // for `share` itself
    std::mutex locks[CURL_LOCK_DATA_LAST];  // libcurl's, one per kind of data
};
