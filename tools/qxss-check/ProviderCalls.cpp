// The checker's view of libcurl: wrappers (ld --wrap) around the few libcurl calls through which
// every request of the library starts, delivers its answer and ends. Nothing is changed on the
// way: the library's write callback still gets every byte, and a copy of the body is kept.
#include "tools/qxss-check/ProviderCalls.h"

#include <curl/curl.h>

#include <cstdarg>
#include <memory>
#include <unordered_map>

extern "C" {
CURLcode __real_curl_easy_setopt(CURL *handle, CURLoption option, ...);
CURLcode __real_curl_easy_perform(CURL *handle);
void __real_curl_easy_reset(CURL *handle);
void __real_curl_easy_cleanup(CURL *handle);
CURLMsg *__real_curl_multi_info_read(CURLM *multi, int *waiting);
}

namespace {

using WriteFunction = size_t (*)(char *, size_t, size_t, void *);

// What stands between libcurl and the library's write callback for one handle.
struct Tap {
    WriteFunction function = nullptr;
    void *data = nullptr;
    std::string body;
};

std::unordered_map<CURL *, std::unique_ptr<Tap>> &taps() {
    static auto *map = new std::unordered_map<CURL *, std::unique_ptr<Tap>>();
    return *map;
}

std::vector<ProviderCall> &calls() {
    static auto *list = new std::vector<ProviderCall>();
    return *list;
}

Tap &tapOf(CURL *handle) {
    std::unique_ptr<Tap> &tap = taps()[handle];
    if (!tap) {
        tap.reset(new Tap);
    }
    return *tap;
}

size_t tee(char *bytes, size_t size, size_t count, void *user) {
    auto *tap = static_cast<Tap *>(user);
    size_t taken = tap->function(bytes, size, count, tap->data);
    if (taken == size * count) {
        tap->body.append(bytes, taken);
    }
    return taken;
}

void note(CURL *handle, CURLcode result) {
    ProviderCall call;
    char *text = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &text) == CURLE_OK && text) {
        call.url = text;
    }
    text = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_METHOD, &text) == CURLE_OK && text) {
        call.method = text;
    }
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &call.status);
    curl_off_t micros = 0;
    if (curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME_T, &micros) == CURLE_OK) {
        call.ms = static_cast<double>(micros) / 1000.0;
    }
    if (result != CURLE_OK) {
        call.error = curl_easy_strerror(result);
    }
    auto found = taps().find(handle);
    if (found != taps().end()) {
        call.body.swap(found->second->body);
    }
    calls().push_back(std::move(call));
}

}  // namespace

extern "C" {

CURLcode __wrap_curl_easy_setopt(CURL *handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    CURLcode result;
    // The argument's type follows from the option's number, as in libcurl itself.
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        long value = va_arg(arguments, long);
        result = __real_curl_easy_setopt(handle, option, value);
    } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
        void *value = va_arg(arguments, void *);
        if (option == CURLOPT_WRITEDATA) {
            Tap &tap = tapOf(handle);
            tap.data = value;
            result = __real_curl_easy_setopt(handle, option,
                                             tap.function ? static_cast<void *>(&tap) : value);
        } else {
            result = __real_curl_easy_setopt(handle, option, value);
        }
    } else if (option < CURLOPTTYPE_OFF_T) {
        void (*value)() = va_arg(arguments, void (*)());
        if (option == CURLOPT_WRITEFUNCTION && value != nullptr) {
            Tap &tap = tapOf(handle);
            tap.function = reinterpret_cast<WriteFunction>(value);
            result = __real_curl_easy_setopt(handle, option, &tee);
            if (result == CURLE_OK) {
                result =
                    __real_curl_easy_setopt(handle, CURLOPT_WRITEDATA, static_cast<void *>(&tap));
            }
        } else {
            result = __real_curl_easy_setopt(handle, option, value);
        }
    } else if (option < CURLOPTTYPE_BLOB) {
        curl_off_t value = va_arg(arguments, curl_off_t);
        result = __real_curl_easy_setopt(handle, option, value);
    } else {
        void *value = va_arg(arguments, void *);
        result = __real_curl_easy_setopt(handle, option, value);
    }
    va_end(arguments);
    return result;
}

CURLcode __wrap_curl_easy_perform(CURL *handle) {
    CURLcode result = __real_curl_easy_perform(handle);
    note(handle, result);
    return result;
}

void __wrap_curl_easy_reset(CURL *handle) {
    __real_curl_easy_reset(handle);
    taps().erase(handle);
}

void __wrap_curl_easy_cleanup(CURL *handle) {
    __real_curl_easy_cleanup(handle);
    taps().erase(handle);
}

CURLMsg *__wrap_curl_multi_info_read(CURLM *multi, int *waiting) {
    CURLMsg *message = __real_curl_multi_info_read(multi, waiting);
    if (message != nullptr && message->msg == CURLMSG_DONE) {
        note(message->easy_handle, message->data.result);
    }
    return message;
}

}  // extern "C"

std::vector<ProviderCall> const &ProviderCalls::all() {
    return calls();
}

std::vector<ProviderCall> ProviderCalls::since(size_t mark) {
    std::vector<ProviderCall> const &list = calls();
    if (mark >= list.size()) {
        return {};
    }
    return std::vector<ProviderCall>(list.begin() + static_cast<std::ptrdiff_t>(mark), list.end());
}
