// SsoRequest's setters: each prepares one side of the blocking request's easy handle (options,
// URL, headers, form body, proxy) and logs the step that fails.

#include "transport/SsoRequest.h"

#include "platform/Log.h"
#include "platform/Strings.h"
#include "support/SsoValidation.h"
#include "transport/CaStore.h"
#include "transport/TlsOptions.h"

#include <cstring>
#include <string>

namespace {

bool setFailed(char const *what) {
    Log() << "SsoRequest: ERROR! " << what << " sso request handler failed.\n";
    return false;
}

// This road's trust: the platform's own store first, a bundle file only where libcurl refuses
// that. Either way the trust is parsed once for the process, not by libcurl per connection.
bool trustNativeFirst(CURL *handle) {
    if (curl_easy_setopt(handle, CURLOPT_SSL_OPTIONS,
                         static_cast<long>(CURLSSLOPT_NATIVE_CA | CURLSSLOPT_NO_PARTIALCHAIN)) !=
        CURLE_OK) {
        Log() << "SsoRequest: WARNING! Set CA certificates chain path for"
              << " sso request handler failed.\n";
        std::string path = getCaFile();
        if (path.empty()) {
            Log() << "SsoRequest: ERROR! Can not locate CA certificates chain file for"
                  << " sso request handler.\n";
            return false;
        }
        CaStore::getStore().trustOn(handle, path.c_str());
    } else {
        // With no file of its own, this libcurl build trusts its built-in bundle and directory.
        CaStore::getStore().trustOn(handle, nullptr);
    }
    return true;
}

}  // namespace

bool SsoRequest::setOptions(void *handle, httpMethod method) {
    if (handle == nullptr) {
        Log() << "SsoRequest: Sso request handler is nullptr.\n";
        return false;
    }
    // Without a buffer libcurl would write its messages through a null pointer.
    if (errorBuffer == nullptr ||
        curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer) != CURLE_OK) {
        return setFailed("Set error message buffer for");
    }
    if (curl_easy_setopt(handle, CURLOPT_DEFAULT_PROTOCOL, "https") != CURLE_OK) {
        return setFailed("Set default protocol (HTTPS) for");
    }
    if (curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https") != CURLE_OK) {
        return setFailed("Set allowed protocols (HTTP/HTTPS) for");
    }
    if (curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") != CURLE_OK) {
        return setFailed("Set allowed redirection protocols (HTTP/HTTPS) for");
    }
    if (curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method == HttpGet ? "GET" : "POST") !=
        CURLE_OK) {
        return setFailed("Set HTTP method for");
    }
    switch (TlsOptions::set(handle, &trustNativeFirst)) {
        case TlsOptions::VersionFailed:
            return setFailed("Set preferred TLS/SSL version for");
        case TlsOptions::TrustFailed:
            return false;
        case TlsOptions::VerifyHostFailed:
            return setFailed("Set TLS/SSL strict host name verification for");
        case TlsOptions::VerifyPeerFailed:
            return setFailed("Set TLS/SSL strict certificate check for");
        case TlsOptions::Done:
            break;
    }
    // No signals: libcurl would otherwise swap the host's SIGPIPE handler during the request,
    // or raise SIGALRM in the host for a name lookup that runs out of time.
    if (curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) != CURLE_OK) {
        return setFailed("Set no signals for");
    }
    return true;
}

bool SsoRequest::setUrl(void *handle, char const *url) {
    if (handle == nullptr || url == nullptr || *url == '\0') {
        Log() << "SsoRequest: ERROR! Set URL arguments for sso request handler"
              << " are empty.\n";
        return false;
    }
    Log() << "SsoRequest: URL for sso request handler: '" << url << "'.\n";
    if (curl_easy_setopt(handle, CURLOPT_URL, url) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set URL for sso request handler.\n";
        return false;
    }
    return true;
}

bool SsoRequest::setHeaders(void *handle, std::vector<std::string> const &headers,
                            curl_slist *&list) {
    if (handle == nullptr || headers.empty()) {
        Log() << "SsoRequest: ERROR! Set headers arguments for sso request handler"
              << " are empty.\n";
        return false;
    }
    for (auto const &line : headers) {
        Log() << "SsoRequest: Header for sso request handler is: '" << line << "'.\n";
        int length = static_cast<int>(line.size());
        // A line break would let a value smuggle in a header of its own.
        if (StringCount(line.c_str(), length, '\n') != 0 ||
            StringCount(line.c_str(), length, '\r') != 0) {
            Log() << "SsoRequest: ERROR! Header has CRLF/LF.\n";
            return false;
        }
        curl_slist *grown = curl_slist_append(list, line.c_str());
        if (grown == nullptr) {
            Log() << "SsoRequest: ERROR! Can not add header to curl structure.\n";
            return false;
        }
        list = grown;
    }
    if (curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set headers for sso request handler.\n";
        return false;
    }
    return true;
}

bool SsoRequest::setData(void *handle, char const *data) {
    if (handle == nullptr || data == nullptr || *data == '\0') {
        Log() << "SsoRequest: ERROR! Set data arguments for sso request handler"
              << " are empty.\n";
        return false;
    }
    if (curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(data))) !=
        CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set data size for sso request handler.\n";
        return false;
    }
    if (curl_easy_setopt(handle, CURLOPT_COPYPOSTFIELDS, data) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set data for sso request handler.\n";
        return false;
    }
    return true;
}

bool SsoRequest::setProxy(void *handle, char const *proxy) {
    if (handle == nullptr || proxy == nullptr || *proxy == '\0') {
        Log() << "SsoRequest: ERROR! Set proxy arguments for sso request handler"
              << " are empty.\n";
        return false;
    }
    Log() << "SsoRequest: Proxy for sso request handler: '" << proxy << "'.\n";
    if (curl_easy_setopt(handle, CURLOPT_PROXY, proxy) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set proxy for sso request handler.\n";
        return false;
    }
    // The scheme is searched anywhere in the text, "http://" first.
    if (std::strstr(proxy, "http://") != nullptr) {
        if (curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP)) !=
            CURLE_OK) {
            Log() << "SsoRequest: ERROR! Can not set proxy type to HTTP"
                  << " for sso request handler.\n";
            return false;
        }
    } else if (std::strstr(proxy, "https://") != nullptr) {
        if (curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTPS)) !=
            CURLE_OK) {
            Log() << "SsoRequest: ERROR! Can not set proxy type to HTTPS"
                  << " for sso request handler.\n";
            return false;
        }
        // The proxy's TLS trusts the platform's store first, as the server's does.
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_OPTIONS,
                             static_cast<long>(CURLSSLOPT_NATIVE_CA)) != CURLE_OK) {
            Log() << "SsoRequest: WARNING! Can not set CA chain file for sso"
                  << " request handler.\n";
            std::string path = getCaFile();
            if (path.empty()) {
                Log() << "SsoRequest: ERROR! Can not locate CA file path for proxy.\n";
                return false;
            }
            curl_easy_setopt(handle, CURLOPT_PROXY_CAINFO, path.c_str());
        }
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYPEER, 1L) != CURLE_OK) {
            Log() << "SsoRequest: ERROR! Can not set proxy certificate verification"
                  << " for sso request handler.\n";
            return false;
        }
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYHOST, TlsOptions::kVerifyHostStrict) !=
            CURLE_OK) {
            Log() << "SsoRequest: ERROR! Can not set proxy strict name checking"
                  << " for sso request handler.\n";
            return false;
        }
    } else {
        Log() << "SsoRequest: ERROR! Invalid proxy schema.\n";
        return false;
    }
    if (curl_easy_setopt(handle, CURLOPT_HTTPPROXYTUNNEL, 1L) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Can not set proxy TCP tunneling"
              << " sso request handler.\n";
        return false;
    }
    return true;
}
