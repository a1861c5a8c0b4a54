// CurlShare: one connection, TLS session and DNS cache for the blocking requests.

#include "transport/CurlShare.h"

#include "transport/CurlHandles.h"

CurlShare &CurlShare::getShare() {
    static CurlShare &share = *new CurlShare;
    return share;
}

void CurlShare::lock(CURL *, curl_lock_data data, curl_lock_access, void *self) {
    static_cast<CurlShare *>(self)->locks[data].lock();
}

void CurlShare::unlock(CURL *, curl_lock_data data, void *self) {
    static_cast<CurlShare *>(self)->locks[data].unlock();
}

CURLcode CurlShare::join(CURL *handle) {
    std::lock_guard<std::mutex> hold(guard);
    if (share == nullptr) {
        ShareHandle made(curl_share_init());
        if (!made) {
            return CURLE_OUT_OF_MEMORY;
        }
        CURLSH *raw = made.get();
        if (curl_share_setopt(raw, CURLSHOPT_LOCKFUNC, &CurlShare::lock) != CURLSHE_OK ||
            curl_share_setopt(raw, CURLSHOPT_UNLOCKFUNC, &CurlShare::unlock) != CURLSHE_OK ||
            curl_share_setopt(raw, CURLSHOPT_USERDATA, this) != CURLSHE_OK ||
            curl_share_setopt(raw, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT) != CURLSHE_OK ||
            curl_share_setopt(raw, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK ||
            curl_share_setopt(raw, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS) != CURLSHE_OK) {
            return CURLE_OUT_OF_MEMORY;
        }
        share = made.release();
    }
    return curl_easy_setopt(handle, CURLOPT_SHARE, share);
}

void CurlShare::close() {
    std::lock_guard<std::mutex> hold(guard);
    if (share != nullptr) {
        curl_share_cleanup(share);
        share = nullptr;
    }
}
