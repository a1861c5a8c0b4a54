#pragma once

#include <curl/curl.h>

#include <memory>
#include <new>

// Frees one libcurl object with the libcurl function made for it, so that every early return
// of a request gives back what it made.
template <auto Free>
struct CurlFree {
    template <typename Object>
    void operator()(Object *object) const {
        Free(object);
    }
};

// Owners of the libcurl objects that live for one request or one check.
using EasyHandle = std::unique_ptr<CURL, CurlFree<&curl_easy_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, CurlFree<&curl_slist_free_all>>;
using ShareHandle = std::unique_ptr<CURLSH, CurlFree<&curl_share_cleanup>>;
using UrlHandle = std::unique_ptr<CURLU, CurlFree<&curl_url_cleanup>>;
using UrlPart = std::unique_ptr<char, CurlFree<&curl_free>>;

// A new, empty CURLOPT_ERRORBUFFER of libcurl's size, or null when memory is short.
inline char *newCurlErrorBuffer() {
    char *buffer = new (std::nothrow) char[CURL_ERROR_SIZE];
    if (buffer != nullptr) {
        buffer[0] = '\0';
    }
    return buffer;
}
