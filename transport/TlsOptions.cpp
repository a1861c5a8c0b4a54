// TlsOptions: the TLS version and certificate checks shared by every road's easy handles.

#include "transport/TlsOptions.h"

TlsOptions::Step TlsOptions::set(CURL *handle, Trust trust) {
    if (curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) !=
        CURLE_OK) {
        return VersionFailed;
    }
    if (trust != nullptr && !trust(handle)) {
        return TrustFailed;
    }
    if (curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, kVerifyHostStrict) != CURLE_OK) {
        return VerifyHostFailed;
    }
    if (curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L) != CURLE_OK) {
        return VerifyPeerFailed;
    }
    return Done;
}

void TlsOptions::setLenient(CURL *handle) {
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, kVerifyHostStrict);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
}
