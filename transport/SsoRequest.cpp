// SsoRequest: the blocking request of the blocking login road, with its argument checks.

#include "transport/SsoRequest.h"

#include "platform/Log.h"
#include "platform/Strings.h"
#include "support/SsoValidation.h"
#include "transport/CaStore.h"
#include "transport/CurlRequest.h"
#include "transport/CurlShare.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

char const *const kUrlErrors[] = {
    "An invalid URL handle was passed as argument.",
    "An invalid 'part' argument was passed as argument.",
    "A malformed input was passed to a URL API function.",
    "The port number was not a decimal number between 0 and 65535.",
    "This libcurl build does not support the given URL scheme.",
    "URL decode error, most likely because of rubbish in the input.",
    "A memory function failed.",
    "Credentials was passed in the URL when prohibited.",
    "An unknown part ID was passed to a URL API function.",
    "There is no scheme part in the URL.",
    "There is no user part in the URL.",
    "There is no password part in the URL.",
    "There is no options part in the URL.",
    "There is no host part in the URL.",
    "There is no port part in the URL.",
    "There is no query part in the URL.",
    "There is no fragment part in the URL.",
    "There is no zone id set in the URL.",
    "The file:// URL is invalid.",
    "The fragment part of the URL contained bad or invalid characters.",
    "The hostname contained bad or invalid characters.",
    "The IPv6 address hostname contained bad or invalid characters.",
    "The login part of the URL contained bad or invalid characters.",
    "The password part of the URL contained bad or invalid characters.",
    "The path part of the URL contained bad or invalid characters.",
    "The query part of the URL contained bad or invalid characters.",
    "The scheme part of the URL contained bad or invalid characters.",
    "The URL contained an invalid number of slashes.",
    "The user part of the URL contained bad or invalid characters.",
};

struct UrlCleanup {
    void operator()(CURLU *url) const { curl_url_cleanup(url); }
};
struct PartCleanup {
    void operator()(char *part) const { curl_free(part); }
};
struct EasyCleanup {
    void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
};
struct ListCleanup {
    void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlCleanup>;
using UrlPart = std::unique_ptr<char, PartCleanup>;

char *newErrorBuffer() {
    char *buffer = new (std::nothrow) char[CURL_ERROR_SIZE];
    if (buffer != nullptr) {
        buffer[0] = '\0';
    }
    return buffer;
}

// Reads one part of a parsed URL; the code of the failure, or CURLUE_OK with `part` set.
CURLUcode readPart(CURLU *url, CURLUPart which, UrlPart &part) {
    char *raw = nullptr;
    CURLUcode code = curl_url_get(url, which, &raw, 0);
    part.reset(raw);
    return code;
}

bool isWebScheme(char const *scheme) {
    return std::strcmp(scheme, "http") == 0 || std::strcmp(scheme, "https") == 0;
}

bool setFailed(char const *what) {
    Log() << "SsoRequest: ERROR! " << what << " sso request handler failed.\n";
    return false;
}

}  // namespace

SsoRequest &SsoRequest::getNetwork() {
    // Never destroyed, like the flow engine: the worker may outlive the process's exit.
    static SsoRequest &network = *new SsoRequest;
    return network;
}

SsoRequest::SsoRequest() {
    Log() << "SsoRequest: SsoRequest constructor.\n";
    errorBuffer = newErrorBuffer();
}

SsoRequest::~SsoRequest() {
    Log() << "SsoRequest: SsoRequest destructor.\n";
    cleanUp();
    delete[] errorBuffer;
}

char const *SsoRequest::urlErrorText(int code) {
    if (code < 1 || code > 29) {
        return "Unknown";
    }
    return kUrlErrors[code - 1];
}

bool SsoRequest::init(int flag) {
    if (initialized) {
        Log() << "SsoRequest: ERROR! Attempting to initialze libcurl twice.\n";
        return false;
    }
    if (flag != 1 && flag != 2 && flag != 3) {
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
        errorBuffer = newErrorBuffer();
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

bool SsoRequest::validateArgs(httpMethod method, char const *url, char const *proxy) {
    if (method != HttpGet && method != HttpPost) {
        Log() << "SsoRequest: ERROR! HTTP method is invalid.\n";
        return false;
    }
    Log() << "SsoRequest: Received url: '" << url << "' and proxy: '" << proxy
          << "'for sso request validation.\n";
    if (url == nullptr || *url == '\0') {
        Log() << "SsoRequest: ERROR! Url is empty.\n";
        return false;
    }
    UrlHandle target(curl_url());
    if (!target) {
        Log() << "SsoRequest: ERROR! Can not initialize curlu handler.\n";
        return false;
    }
    auto urlInvalid = [](CURLUcode code) {
        Log() << "SsoRequest: ERROR! URL is invalid. CURL error message: '"
              << urlErrorText(code) << "'.\n";
        return false;
    };
    UrlPart part;
    CURLUcode code = curl_url_set(target.get(), CURLUPART_URL, url, 0);
    if (code == CURLUE_OK) {
        code = readPart(target.get(), CURLUPART_SCHEME, part);
    }
    if (code != CURLUE_OK || !part) {
        return urlInvalid(code);
    }
    if (!isWebScheme(part.get())) {
        Log() << "SsoRequest: ERROR! URL is invalid. URL schema is not http/https.\n";
        return false;
    }
    code = readPart(target.get(), CURLUPART_HOST, part);
    if (code != CURLUE_OK || !part) {
        return urlInvalid(code);
    }
    if (proxy == nullptr || *proxy == '\0') {
        Log() << "SsoRequest: Proxy is not specified.\n";
        Log() << "SsoRequest: Sso request validation success.\n";
        return true;
    }
    UrlHandle through(curl_url());
    if (!through) {
        Log() << "SsoRequest: ERROR! Can not initialize curlu handler.\n";
        return false;
    }
    auto proxyInvalid = [](CURLUcode failure) {
        Log() << "SsoRequest: ERROR! Proxy is invalid. CURL error message: '"
              << urlErrorText(failure) << "'.\n";
        return false;
    };
    code = curl_url_set(through.get(), CURLUPART_URL, proxy, 0);
    if (code == CURLUE_OK) {
        code = readPart(through.get(), CURLUPART_SCHEME, part);
    }
    if (code != CURLUE_OK || !part) {
        return proxyInvalid(code);
    }
    if (!isWebScheme(part.get())) {
        Log() << "SsoRequest: ERROR! Proxy is invalid."
              << " Proxy schema is not http/https.\n";
        return false;
    }
    code = readPart(through.get(), CURLUPART_HOST, part);
    if (code != CURLUE_OK || !part) {
        return proxyInvalid(code);
    }
    // A proxy must name its port: the scheme's default port does not count.
    code = readPart(through.get(), CURLUPART_PORT, part);
    if (code != CURLUE_OK || !part) {
        return proxyInvalid(code);
    }
    Log() << "SsoRequest: Sso request validation success.\n";
    return true;
}

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
    if (curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) !=
        CURLE_OK) {
        return setFailed("Set preferred TLS/SSL version for");
    }
    // The platform's own trust store first; a bundle file only where libcurl refuses that.
    // Either way the trust is parsed once for the process, not by libcurl per connection.
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
    if (curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L) != CURLE_OK) {
        return setFailed("Set TLS/SSL strict host name verification for");
    }
    if (curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L) != CURLE_OK) {
        return setFailed("Set TLS/SSL strict certificate check for");
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
        if (curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYHOST, 2L) != CURLE_OK) {
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
    std::unique_ptr<CURL, EasyCleanup> handle(curl_easy_init());
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
    std::unique_ptr<curl_slist, ListCleanup> list(rawList);
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
