// Strings: new character arrays made from and appended to texts, and character counting.

#include "platform/Strings.h"

#include <cstring>
#include <new>

char *StringInit(char *&target, char const *text) {
    target = nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    return StringInit(target, text, std::strlen(text));
}

char *StringInit(char *&target, char const *text, size_t length) {
    target = nullptr;
    if (text == nullptr) {
        return nullptr;
    }
    char *copy = new (std::nothrow) char[length + 1];
    if (copy == nullptr) {
        return nullptr;
    }
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    target = copy;
    return target;
}

char *StringAdd(char *&target, char const *t1, char const *t2, char const *t3, char const *t4,
                char const *t5, char const *t6, char const *t7, char const *t8) {
    char const *texts[] = {t1, t2, t3, t4, t5, t6, t7, t8};
    size_t lengths[8];
    size_t total = 0;
    for (int i = 0; i < 8; ++i) {
        lengths[i] = texts[i] ? std::strlen(texts[i]) : 0;
        total += lengths[i];
    }
    delete[] target;
    target = new (std::nothrow) char[total + 1];
    if (target == nullptr) {
        return nullptr;
    }
    char *cursor = target;
    for (int i = 0; i < 8; ++i) {
        if (lengths[i] != 0) {
            std::memcpy(cursor, texts[i], lengths[i]);
            cursor += lengths[i];
        }
    }
    *cursor = '\0';
    return target;
}

int StringCount(char const *text, int length, char c) {
    if (text == nullptr || length <= 0) {
        return 0;
    }
    int count = 0;
    for (int i = 0; i < length; ++i) {
        if (text[i] == c) {
            ++count;
        }
    }
    return count;
}
