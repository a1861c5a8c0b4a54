// CurlRequest::syncRequest: the blocking request of metadata discovery, with a time limit and
// lenient options (a failing option does not stop it), on the blocking roads' shared cache.

#include "transport/CurlRequest.h"

#include "platform/Log.h"
#include "transport/CurlHandles.h"
#include "transport/CurlShare.h"
#include "transport/TlsOptions.h"

#include <cstring>

namespace {

constexpr long kSyncTimeoutSeconds = 30;

// The options of discovery's request. Failures are not checked: a request that cannot have an
// option still runs with libcurl's default for it.
void setLenientOptions(CURL *easy, char *errorBuffer) {
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_DEFAULT_PROTOCOL, "https");
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    TlsOptions::setLenient(easy);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, kSyncTimeoutSeconds);
    // No signals: libcurl would otherwise swap the process's SIGPIPE handler or raise SIGALRM.
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
}

// The header lines that could be appended; a line that cannot is left out.
HeaderList appendHeaders(std::vector<std::string> const &headers) {
    curl_slist *raw = nullptr;
    for (auto const &line : headers) {
        curl_slist *grown = curl_slist_append(raw, line.c_str());
        if (grown != nullptr) {
            raw = grown;
        }
    }
    return HeaderList(raw);
}

}  // namespace

// HTTPS where the text names it anywhere, else HTTP.
bool CurlRequest::setLenientProxy(void *easy, char const *proxy) {
    curl_easy_setopt(easy, CURLOPT_PROXY, proxy);
    if (std::strstr(proxy, "https://") != nullptr) {
        curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTPS));
        if (setupCAFile(easy, CaTargetProxy) != CURLE_OK) {
            Log() << "CurlRequest: ERROR! Failed to set CA file for HTTPS proxy.\n";
            return false;
        }
        curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYHOST, TlsOptions::kVerifyHostStrict);
    } else {
        curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
    }
    curl_easy_setopt(easy, CURLOPT_HTTPPROXYTUNNEL, 1L);
    return true;
}

std::string CurlRequest::syncRequest(httpMethod method, char const *url,
                                     std::vector<std::string> const &headers, char const *data,
                                     char const *proxy) {
    Log() << "CurlRequest: syncRequest called for URL: '" << url << "'.\n";
    if (!initialized) {
        Log() << "CurlRequest: ERROR! CurlRequest not initialized for sync request.\n";
        return std::string();
    }
    if (url == nullptr || *url == '\0') {
        Log() << "CurlRequest: ERROR! Sync request URL is empty.\n";
        return std::string();
    }
    EasyHandle handle(curl_easy_init());
    if (!handle) {
        Log() << "CurlRequest: ERROR! Failed to create sync request handler.\n";
        return std::string();
    }
    CURL *easy = handle.get();
    if (errorBuffer == nullptr) {
        // Only a failed allocation at start leaves no buffer; libcurl must not write into null.
        Log() << "CurlRequest: ERROR! Failed to create sync request handler.\n";
        return std::string();
    }
    errorBuffer[0] = '\0';
    CurlShare::getShare().join(easy);
    setLenientOptions(easy, errorBuffer);
    if (setupCAFile(easy, CaTargetServer) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Failed to set CA file.\n";
        return std::string();
    }
    if (method == HttpGet) {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, "GET");
    } else if (method == HttpPost) {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, "POST");
    }
    curl_easy_setopt(easy, CURLOPT_URL, url);
    HeaderList list;
    if (!headers.empty()) {
        list = appendHeaders(headers);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list.get());
    }
    if (method == HttpPost && data != nullptr && *data != '\0') {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(data)));
        curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, data);
    }
    if (proxy != nullptr && *proxy != '\0' && !setLenientProxy(easy, proxy)) {
        return std::string();
    }
    std::string body;
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlRequest::writeToString);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    CURLcode result = curl_easy_perform(easy);
    Log() << "CurlRequest: Request completed with code: " << static_cast<int>(result) << ".\n";
    list.reset();
    handle.reset();
    if (result == CURLE_OK) {
        Log() << "CurlRequest: Sync request succeeded. Response size: " << body.size() << ".\n";
        return body;
    }
    Log() << "CurlRequest: ERROR! Sync request failed: '" << errorBuffer
          << "' (code: " << static_cast<int>(result) << ")\n";
    return std::string();
}
