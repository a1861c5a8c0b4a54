// CurlRequest's transfer setters: what the flow engine sets on a pooled handle before a
// transfer (options and the CA search, URL, headers, body, proxy), and the write callback that
// every road uses.

#include "transport/CurlRequest.h"

#include "platform/Files.h"
#include "platform/Log.h"
#include "transport/CaStore.h"
#include "transport/TlsOptions.h"

#include <cstring>
#include <exception>

namespace {

// Candidate CA bundles of the common distributions, most common first.
char const *const kCaBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
};

}  // namespace

bool CurlRequest::setOptions(void *handle, httpMethod method) {
    // Without a buffer libcurl would write its messages through a null pointer.
    if (handle == nullptr || errorBuffer == nullptr) {
        return false;
    }
    if (curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer) != CURLE_OK ||
        curl_easy_setopt(handle, CURLOPT_DEFAULT_PROTOCOL, "https") != CURLE_OK ||
        curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https") != CURLE_OK ||
        curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") != CURLE_OK ||
        curl_easy_setopt(handle, method == HttpGet ? CURLOPT_HTTPGET : CURLOPT_POST, 1L) !=
            CURLE_OK ||
        // The engine sets its trust after the other options, with its own search below.
        TlsOptions::set(handle, nullptr) != TlsOptions::Done ||
        // Without it libcurl swaps the process's SIGPIPE handler in and out for every transfer
        // on every turn (a tenth of the worker's time with hundreds in flight). It sends with
        // MSG_NOSIGNAL, and the worker thread blocks SIGPIPE besides.
        curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) != CURLE_OK) {
        return false;
    }
    if (setupCAFile(handle, CaTargetServer) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Faile to setup CA file. \n";
        return false;
    }
    return true;
}

CURLcode CurlRequest::setupCAFile(void *handle, int32_t target) {
    if (target != CaTargetServer && target != CaTargetProxy) {
        return CURLE_FAILED_INIT;
    }
    bool server = target == CaTargetServer;
    CURLcode result =
        curl_easy_setopt(handle, server ? CURLOPT_SSL_OPTIONS : CURLOPT_PROXY_SSL_OPTIONS,
                         static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN));
    if (result != CURLE_OK) {
        return result;
    }
    for (char const *path : kCaBundles) {
        if (FileAccess(path) == 0) {
            return CaStore::getStore().trustOn(handle, path);
        }
    }
    // No bundle found: libcurl's built-in default applies.
    return CaStore::getStore().trustOn(handle, nullptr);
}

bool CurlRequest::setUrl(void *handle, char const *url) {
    if (handle == nullptr || url == nullptr || *url == '\0') {
        return false;
    }
    return curl_easy_setopt(handle, CURLOPT_URL, url) == CURLE_OK;
}

bool CurlRequest::setHeaders(void *handle, std::vector<std::string> const *headers,
                             curl_slist *&list) {
    if (handle == nullptr || headers == nullptr || headers->empty()) {
        return false;
    }
    for (auto const &line : *headers) {
        curl_slist *grown = curl_slist_append(list, line.c_str());
        if (grown == nullptr) {
            // A failed append leaves the old list untouched; free it so nothing leaks.
            curl_slist_free_all(list);
            list = nullptr;
            return false;
        }
        list = grown;
    }
    return curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list) == CURLE_OK;
}

bool CurlRequest::setData(void *handle, char const *data) {
    if (handle == nullptr || data == nullptr) {
        return false;
    }
    return curl_easy_setopt(handle, CURLOPT_POSTFIELDS, data) == CURLE_OK;
}

bool CurlRequest::setProxy(void *handle, char const *proxy) {
    if (handle == nullptr || proxy == nullptr || *proxy == '\0') {
        Log() << "CurlRequest: ERROR! Invalid arguments.\n";
        return false;
    }
    Log() << "CurlRequest: Setting proxy: '" << proxy << "'.\n";
    if (curl_easy_setopt(handle, CURLOPT_PROXY, proxy) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Failed to set proxy.\n";
        return false;
    }
    // The scheme is searched anywhere in the text, "http://" first.
    if (std::strstr(proxy, "http://") != nullptr) {
        if (curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP)) !=
            CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set proxy type to HTTP.\n";
            return false;
        }
        Log() << "CurlRequest: Proxy type set to HTTP.\n";
    } else if (std::strstr(proxy, "https://") != nullptr) {
        if (curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTPS)) !=
            CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set proxy type to HTTPS.\n";
            return false;
        }
        Log() << "CurlRequest: Proxy type set to HTTPS.\n";
        if (setupCAFile(handle, CaTargetProxy) != CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set CA certificate.\n";
            return false;
        }
        Log() << "CurlRequest: CA file set for HTTPS proxy.\n";
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYPEER, 1L) != CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set ssl verification.\n";
            return false;
        }
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYHOST, TlsOptions::kVerifyHostStrict) !=
            CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set ssl host verification.\n";
            return false;
        }
    } else {
        Log() << "CurlRequest: ERROR! Invalid proxy scheme! "
              << "Only http:// and https:// are supported.\n";
        return false;
    }
    if (curl_easy_setopt(handle, CURLOPT_HTTPPROXYTUNNEL, 1L) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Failed to set proxy tunnel.\n";
        return false;
    }
    Log() << "CurlRequest: Proxy configured successfully.\n";
    return true;
}

size_t CurlRequest::writeToString(void *bytes, size_t size, size_t count, void *user) {
    if (bytes == nullptr || user == nullptr) {
        return 0;
    }
    size_t length = size * count;
    // Called from inside libcurl's C frames, which no exception may cross: a failed append (a
    // huge answer) fails this transfer with libcurl's write error instead of ending the host.
    try {
        callbackHook("CurlRequest write");
        static_cast<std::string *>(user)->append(static_cast<char const *>(bytes), length);
    } catch (std::exception const &error) {
        Log() << "CurlRequest: ERROR! Failed to store response: '" << error.what() << "'.\n";
        return 0;
    } catch (...) {
        Log() << "CurlRequest: ERROR! Failed to store response: 'unknown exception'.\n";
        return 0;
    }
    return length;
}
