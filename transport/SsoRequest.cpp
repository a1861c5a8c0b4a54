// SsoRequest: the blocking request of the blocking login road, from its life cycle to one
// request's start and end. Its argument checks are in SsoRequestArgs.cpp, its setters in
// SsoRequestSetters.cpp.

#include "transport/SsoRequest.h"

#include "platform/Log.h"
#include "transport/CurlHandles.h"
#include "transport/CurlRequest.h"
#include "transport/CurlShare.h"

SsoRequest &SsoRequest::getNetwork() {
    // Never destroyed, like the flow engine: the worker may outlive the process's exit.
    static SsoRequest &network = *new SsoRequest;
    return network;
}

SsoRequest::SsoRequest() {
    Log() << "SsoRequest: SsoRequest constructor.\n";
    errorBuffer = newCurlErrorBuffer();
}

SsoRequest::~SsoRequest() {
    Log() << "SsoRequest: SsoRequest destructor.\n";
    cleanUp();
    delete[] errorBuffer;
}

bool SsoRequest::init(int flag) {
    if (initialized) {
        Log() << "SsoRequest: ERROR! Attempting to initialze libcurl twice.\n";
        return false;
    }
    if (flag < CURL_GLOBAL_SSL || flag > CURL_GLOBAL_ALL) {
        Log() << "SsoRequest: ERROR! Curl initialization flag invalid.\n";
        initialized = false;
        return false;
    }
    if (curl_global_init(flag) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Curl global initialization failed.\n";
        initialized = false;
        return false;
    }
    // cleanUp frees the buffer, so a start after a stop needs a new one.
    if (errorBuffer == nullptr) {
        errorBuffer = newCurlErrorBuffer();
    }
    Log() << "SsoRequest: Curl global initialization success."
          << " Curl version '" << curl_version() << "'.\n";
    initialized = true;
    return true;
}

void SsoRequest::cleanUp() {
    if (!initialized) {
        Log() << "SsoRequest: WARNING! Curl was never initialized before.\n";
        return;
    }
    CurlShare::getShare().close();
    curl_global_cleanup();
    delete[] errorBuffer;
    errorBuffer = nullptr;
    initialized = false;
    Log() << "SsoRequest: Curl global destruction success.\n";
}

bool SsoRequest::performRequest(void *handle) {
    if (handle == nullptr) {
        Log() << "SsoRequest: ERROR! Sso request handler for performing"
              << " request is empty.\n";
        return false;
    }
    return curl_easy_perform(handle) == CURLE_OK;
}

std::string SsoRequest::request(httpMethod method, char const *url,
                                std::vector<std::string> const &headers, char const *data,
                                char const *proxy) {
    Log() << "SsoRequest: Received data for sso request: '" << data << "'.\n";
    if (!initialized) {
        Log() << "SsoRequest: ERROR! Curl is not initialize.\n";
        return std::string();
    }
    if (!validateArgs(method, url, proxy)) {
        Log() << "SsoRequest: ERROR! Sso request arguments validation failed.\n";
        return std::string();
    }
    EasyHandle handle(curl_easy_init());
    if (!handle) {
        Log() << "SsoRequest: ERROR! Sso request handler Can not be initialized.\n";
        return std::string();
    }
    CURL *easy = handle.get();
    // Connections and TLS sessions kept from earlier blocking requests; without the share
    // the request simply opens its own connection.
    CurlShare::getShare().join(easy);
    curl_slist *rawList = nullptr;
    std::string body;
    bool ready = false;
    if (!setOptions(easy, method)) {
        Log() << "SsoRequest: ERROR! Setting options for sso request handler failed.\n";
    } else if (curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlRequest::writeToString) !=
                   CURLE_OK ||
               curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body) != CURLE_OK) {
        Log() << "SsoRequest: ERROR! Setting options for sso request handler failed.\n";
    } else if (!setUrl(easy, url)) {
        Log() << "SsoRequest: ERROR! Setting url for sso request handler failed.\n";
    } else if (method == HttpPost && !setData(easy, data)) {
        Log() << "SsoRequest: ERROR! Setting data for sso request handler failed.\n";
    } else if (!headers.empty() && !setHeaders(easy, headers, rawList)) {
        Log() << "SsoRequest: ERROR! Setting headers for sso request handler failed.\n";
    } else if (proxy != nullptr && !setProxy(easy, proxy)) {
        Log() << "SsoRequest: ERROR! Setting proxy for sso request handler failed.\n";
    } else {
        ready = true;
    }
    HeaderList list(rawList);
    if (!ready) {
        return std::string();
    }
    errorBuffer[0] = '\0';
    Log() << "SsoRequest: Start sso request with data: '" << data << "'.\n";
    if (!performRequest(easy)) {
        Log() << "SsoRequest: ERROR! Sso request failed. CURL error message: '" << errorBuffer
              << "'.\n";
        return std::string();
    }
    list.reset();
    handle.reset();
    Log() << "SsoRequest: Sso request success.\n";
    return body;
}
