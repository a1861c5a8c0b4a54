// SsoRequest's argument checks: the URL and the proxy are parsed before a request does
// anything, and libcurl's URL error codes are put into words.

#include "transport/SsoRequest.h"

#include "platform/Log.h"
#include "transport/CurlHandles.h"

#include <cstring>
#include <iterator>

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
constexpr int kUrlErrorCount = static_cast<int>(std::size(kUrlErrors));

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

bool invalid(char const *what, CURLUcode code) {
    Log() << "SsoRequest: ERROR! " << what << " is invalid. CURL error message: '"
          << SsoRequest::urlErrorText(code) << "'.\n";
    return false;
}

// Parses `text` (named `what` in the log: "URL" or "Proxy") and checks that it has the scheme
// http or https and a host, and a port of its own when `needsPort`. Logs the failure.
bool checkWebUrl(char const *text, char const *what, bool needsPort) {
    UrlHandle parsed(curl_url());
    if (!parsed) {
        Log() << "SsoRequest: ERROR! Can not initialize curlu handler.\n";
        return false;
    }
    UrlPart part;
    CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, text, 0);
    if (code == CURLUE_OK) {
        code = readPart(parsed.get(), CURLUPART_SCHEME, part);
    }
    if (code != CURLUE_OK || !part) {
        return invalid(what, code);
    }
    if (!isWebScheme(part.get())) {
        Log() << "SsoRequest: ERROR! " << what << " is invalid. " << what
              << " schema is not http/https.\n";
        return false;
    }
    code = readPart(parsed.get(), CURLUPART_HOST, part);
    if (code != CURLUE_OK || !part) {
        return invalid(what, code);
    }
    // CURLUPART_PORT without CURLU_DEFAULT_PORT: the scheme's default port does not count.
    if (needsPort) {
        code = readPart(parsed.get(), CURLUPART_PORT, part);
        if (code != CURLUE_OK || !part) {
            return invalid(what, code);
        }
    }
    return true;
}

}  // namespace

char const *SsoRequest::urlErrorText(int code) {
    if (code < 1 || code > kUrlErrorCount) {
        return "Unknown";
    }
    return kUrlErrors[code - 1];
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
    if (!checkWebUrl(url, "URL", false)) {
        return false;
    }
    if (proxy == nullptr || *proxy == '\0') {
        Log() << "SsoRequest: Proxy is not specified.\n";
    } else if (!checkWebUrl(proxy, "Proxy", true)) {
        return false;
    }
    Log() << "SsoRequest: Sso request validation success.\n";
    return true;
}
