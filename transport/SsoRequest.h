#pragma once

#include "transport/HttpMethod.h"

#include <curl/curl.h>

#include <string>
#include <vector>

// The strict blocking request of the blocking login road (token exchange, refresh, revocation,
// userinfo, node verification): a new easy handle per request, URL and proxy parsed before
// anything happens, header lines with line breaks refused, every failing option fatal. The
// body is returned whatever the HTTP status; the caller's reader judges it. Worker thread,
// except init/cleanUp on the host's thread while no worker runs. Reached through getNetwork().
class SsoRequest {
public:
    // The singleton, built on first use.
    static SsoRequest &getNetwork();

    SsoRequest();
    ~SsoRequest();
    SsoRequest(SsoRequest const &) = delete;
    SsoRequest &operator=(SsoRequest const &) = delete;

    // Global libcurl set-up with flag 1, 2 or 3. False when already initialized or on failure.
    bool init(int flag);
    // Global libcurl clean-up; frees errorBuffer. Warns when never initialized.
    void cleanUp();

    // True when the method is 1 or 2, the URL parses with scheme http or https and a host, and
    // the proxy (may be null) is absent or parses with scheme http or https, a host and a port.
    bool validateArgs(httpMethod method, char const *url, char const *proxy);
    // Error buffer, protocols, method, TLS version and checks, CA store. False on the first
    // failing option.
    bool setOptions(void *handle, httpMethod method);
    bool setUrl(void *handle, char const *url);
    // Builds `list` from `headers` and sets it. False for an empty vector or a line holding a
    // CR or LF. `list` belongs to the caller, also after a failure.
    bool setHeaders(void *handle, std::vector<std::string> const &headers, curl_slist *&list);
    // The form body, copied by libcurl. False for null or empty data.
    bool setData(void *handle, char const *data);
    bool setProxy(void *handle, char const *proxy);
    // True when the transfer ended with CURLE_OK.
    bool performRequest(void *handle);

    // One request from start to end: the response body, or "" on any failure. `data` is the
    // form body of a POST (ignored for GET); `proxy` is null when there is none.
    std::string request(httpMethod method, char const *url, std::vector<std::string> const &headers,
                        char const *data, char const *proxy);

    // The message of a libcurl URL error code; "Unknown" outside 1 to 29.
    static char const *urlErrorText(int code);

    bool initialized = false;
    char *errorBuffer = nullptr;  // CURL_ERROR_SIZE bytes, owned
};
