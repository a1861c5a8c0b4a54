// CurlRequest, lower half: life cycle, the handle pool, the transfer setters and the blocking
// request of discovery.

#include "transport/CurlRequest.h"

#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/PlatformFakes.h"
#include "transport/CaStore.h"
#include "transport/CurlShare.h"

#include <unistd.h>

#include <cstring>
#include <exception>
#include <memory>
#include <new>

namespace {

constexpr size_t kErrorBufferSize = CURL_ERROR_SIZE;
constexpr long kSyncTimeoutSeconds = 30;

// Connections of the flow engine. Per provider host: transfers over the bound wait in libcurl's
// own queue instead of each opening a descriptor, so a burst of logins far past the process's
// descriptor limit still succeeds. Flows have no timeout, and over HTTP/1.1 a request that the
// provider never answers keeps its connection for good: 64 leaves room for the other logins to
// a provider that hangs on dozens of requests, and keeps 3,200 requests a second moving to a
// provider 20 ms away; over HTTP/2 each connection carries up to 100 requests at once. In
// total: four providers at that bound. Idle: one provider's bound, so that after a burst the
// process keeps no more than that open.
constexpr long kConnectionsPerHost = 64;
constexpr long kConnectionsInTotal = 256;
constexpr long kIdleConnections = 64;

// Candidate CA bundles of the common distributions, most common first.
char const *const kCaBundles[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/ca-bundle.pem",
    "/etc/ssl/cert.pem",
};

struct EasyCleanup {
    void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};
struct ListCleanup {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;
using HeaderList = std::unique_ptr<curl_slist, ListCleanup>;

char *newErrorBuffer() {
    char *buffer = new (std::nothrow) char[kErrorBufferSize];
    if (buffer != nullptr) {
        buffer[0] = '\0';
    }
    return buffer;
}

}  // namespace

CurlRequest &CurlRequest::getNetwork() {
    // Never destroyed, so that a host exiting without SsoDestroy does not tear the transfers
    // down under a worker that is still running; SsoDestroy cleans up explicitly.
    static CurlRequest &network = *new CurlRequest;
    return network;
}

CurlRequest::CurlRequest() : errorBuffer(newErrorBuffer()) {}

CurlRequest::~CurlRequest() {
    cleanUp();
    delete[] errorBuffer;
}

bool CurlRequest::init(int flag) {
    if (initialized) {
        Log() << "CurlRequest: ERROR! Already initialized.\n";
        return false;
    }
    if (flag != 1 && flag != 2 && flag != 3) {
        Log() << "CurlRequest: ERROR! Invalid flag.\n";
        return false;
    }
    if (curl_global_init(flag) != CURLE_OK) {
        Log() << "CurlRequest: ERROR! Basic initialization failed.\n";
        return false;
    }
    multiHandle = curl_multi_init();
    if (multiHandle == nullptr) {
        Log() << "CurlRequest: ERROR! Multi sockets initialization failed.\n";
        curl_global_cleanup();
        return false;
    }
    watchSockets();
    curl_multi_setopt(multiHandle, CURLMOPT_MAX_HOST_CONNECTIONS, kConnectionsPerHost);
    curl_multi_setopt(multiHandle, CURLMOPT_MAX_TOTAL_CONNECTIONS, kConnectionsInTotal);
    curl_multi_setopt(multiHandle, CURLMOPT_MAXCONNECTS, kIdleConnections);
    // cleanUp frees the buffer, so a start after a stop needs a new one.
    if (errorBuffer == nullptr) {
        errorBuffer = newErrorBuffer();
    }
    Log() << "CurlRequest: Success. Version: " << curl_version() << ".\n";
    initialized = true;
    return true;
}

void CurlRequest::freeRequest(curlRequest *request) {
    if (request->handle != nullptr) {
        if (multiHandle != nullptr) {
            curl_multi_remove_handle(multiHandle, request->handle);
        }
        request->handle = nullptr;
    }
    delete[] request->sessionId;
    delete[] request->url;
    delete request->headers;
    delete[] request->postData;
    delete[] request->proxy;
    curl_slist_free_all(request->headerList);
    delete request->response;
    delete request;
}

void CurlRequest::cleanUp() {
    if (!initialized) {
        return;
    }
    Log() << "CurlRequest: Clean up.\n";
    for (curlRequest *request : requests) {
        freeRequest(request);
    }
    requests.clear();
    for (curlHandler *handler : handlers) {
        if (handler->handle != nullptr) {
            curl_multi_remove_handle(multiHandle, handler->handle);
            curl_easy_cleanup(handler->handle);
        }
        delete handler;
    }
    handlers.clear();
    curl_multi_cleanup(multiHandle);
    multiHandle = nullptr;
    // After the multi handle, whose cleanup still takes sockets out of the set.
    if (socketSet >= 0) {
        close(socketSet);
        socketSet = -1;
    }
    timerDue = -1;
    CurlShare::getShare().close();
    curl_global_cleanup();
    delete[] errorBuffer;
    errorBuffer = nullptr;
    activeFlows.clear();
    completedFlows.clear();
    requestToSession.clear();
    initialized = false;
}

bool CurlRequest::createHandler(int32_t configId, bool isDynamic) {
    CURL *handle = nullptr;
    if (failHandlerCreations > 0) {
        --failHandlerCreations;
    } else {
        handle = curl_easy_init();
    }
    if (handle == nullptr) {
        Log() << "CurlRequest: ERROR! Failed to create handler.\n";
        return false;
    }
    curlHandler *handler = new curlHandler;
    handler->configId = configId;
    handler->handle = handle;
    handler->inUse = false;
    handler->isDynamic = isDynamic;
    handlers.push_back(handler);
    Log() << "CurlRequest: Created handler for config " << configId << ".\n";
    return true;
}

bool CurlRequest::setupHandlersForConfig(int32_t configId, int32_t count) {
    if (!initialized) {
        Log() << "CurlRequest: ERROR! Curl not initialized.\n";
        return false;
    }
    Log() << "CurlRequest: Creating " << count << " handlers for config " << configId << ".\n";
    for (int32_t index = 0; index < count; ++index) {
        if (!createHandler(configId, false)) {
            Log() << "CurlRequest: ERROR! Failed to create handler " << index << ".\n";
            return false;
        }
    }
    return true;
}

void *CurlRequest::acquireHandler(int32_t configId) {
    for (curlHandler *handler : handlers) {
        if (handler->configId == configId && !handler->inUse) {
            handler->inUse = true;
            return handler->handle;
        }
    }
    Log() << "CurlRequest: No free handler creating dynamic handler for config " << configId
          << ".\n";
    if (!createHandler(configId, true)) {
        return nullptr;
    }
    handlers.back()->inUse = true;
    return handlers.back()->handle;
}

void CurlRequest::releaseHandler(void *handle) {
    for (curlHandler *handler : handlers) {
        if (handler->handle == handle) {
            handler->inUse = false;
            // Options never carry over from one transfer to the next.
            curl_easy_reset(handle);
            Log() << "CurlRequest: Released handler.\n";
            return;
        }
    }
}

void CurlRequest::cleanupDynamicHandlers() {
    Log() << "CurlRequest: Cleaning up handlers.\n";
    size_t kept = 0;
    for (curlHandler *handler : handlers) {
        if (handler->isDynamic && !handler->inUse) {
            if (handler->handle != nullptr) {
                if (multiHandle != nullptr) {
                    curl_multi_remove_handle(multiHandle, handler->handle);
                }
                curl_easy_cleanup(handler->handle);
            }
            delete handler;
        } else {
            handlers[kept++] = handler;
        }
    }
    handlers.resize(kept);
}

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
        curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) !=
            CURLE_OK ||
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L) != CURLE_OK ||
        curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L) != CURLE_OK ||
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
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYHOST, 2L) != CURLE_OK) {
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
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_DEFAULT_PROTOCOL, "https");
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, kSyncTimeoutSeconds);
    // No signals: libcurl would otherwise swap the process's SIGPIPE handler or raise SIGALRM.
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
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
        curl_slist *raw = nullptr;
        for (auto const &line : headers) {
            curl_slist *grown = curl_slist_append(raw, line.c_str());
            if (grown != nullptr) {
                raw = grown;
            }
        }
        list.reset(raw);
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, raw);
    }
    if (method == HttpPost && data != nullptr && *data != '\0') {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(std::strlen(data)));
        curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, data);
    }
    if (proxy != nullptr && *proxy != '\0') {
        curl_easy_setopt(easy, CURLOPT_PROXY, proxy);
        if (std::strstr(proxy, "https://") != nullptr) {
            curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTPS));
            if (setupCAFile(easy, CaTargetProxy) != CURLE_OK) {
                Log() << "CurlRequest: ERROR! Failed to set CA file for HTTPS proxy.\n";
                return std::string();
            }
            curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
            curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYHOST, 2L);
        } else {
            curl_easy_setopt(easy, CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
        }
        curl_easy_setopt(easy, CURLOPT_HTTPPROXYTUNNEL, 1L);
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

size_t CurlRequest::writeToString(void *bytes, size_t size, size_t count, void *user) {
    if (bytes == nullptr || user == nullptr) {
        return 0;
    }
    size_t length = size * count;
    // Called from inside libcurl's C frames, which no exception may cross: a failed append (a
    // huge answer) fails this transfer with libcurl's write error instead of ending the host.
    try {
        auto const &hook = PlatformFakes::allocation();
        if (hook) {
            hook("CurlRequest write");
        }
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
