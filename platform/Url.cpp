// Url: percent encoding of everything but the unreserved characters, and lenient decoding.

#include "platform/Url.h"

#include <cstring>

namespace {

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

}  // namespace

char *UrlEncode(char const *text) {
    static char const hex[] = "0123456789ABCDEF";
    if (text == nullptr) {
        text = "";
    }
    size_t length = std::strlen(text);
    char *out = new char[length * 3 + 1];
    char *cursor = out;
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (isUnreserved(c)) {
            *cursor++ = static_cast<char>(c);
        } else {
            *cursor++ = '%';
            *cursor++ = hex[c >> 4];
            *cursor++ = hex[c & 0x0F];
        }
    }
    *cursor = '\0';
    return out;
}

char *UrlDecode(char const *text) {
    if (text == nullptr) {
        text = "";
    }
    size_t length = std::strlen(text);
    char *out = new char[length + 1];
    char *cursor = out;
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == '%') {
            int high = i + 1 < length ? hexValue(text[i + 1]) : -1;
            int low = i + 2 < length ? hexValue(text[i + 2]) : -1;
            if (high >= 0 && low >= 0) {
                *cursor++ = static_cast<char>(high * 16 + low);
                i += 2;
                continue;
            }
        }
        *cursor++ = text[i];
    }
    *cursor = '\0';
    return out;
}
