#include "text.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* 0 when `more` bytes and a terminator fit. */
static int reserve(struct Text *text, size_t more) {
    if (text->failed) {
        return -1;
    }
    if (text->length + more + 1 <= text->size) {
        return 0;
    }
    size_t size = text->size ? text->size : 256;
    while (size < text->length + more + 1) {
        size *= 2;
    }
    char *grown = realloc(text->data, size);
    if (grown == NULL) {
        text->failed = 1;
        return -1;
    }
    text->data = grown;
    text->size = size;
    return 0;
}

char *textTake(struct Text *text) {
    char *taken = text->failed ? NULL : text->data;
    if (text->failed) {
        free(text->data);
    }
    *text = (struct Text){0};
    return taken;
}

void textAppendN(struct Text *text, char const *piece, size_t length) {
    if (reserve(text, length) != 0) {
        return;
    }
    memcpy(text->data + text->length, piece, length);
    text->length += length;
    text->data[text->length] = '\0';
}

void textAppend(struct Text *text, char const *piece) {
    textAppendN(text, piece, strlen(piece));
}

void textPrintf(struct Text *text, char const *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(NULL, 0, format, arguments);
    va_end(arguments);
    if (length < 0) {
        text->failed = 1;
        return;
    }
    if (reserve(text, (size_t)length) != 0) {
        return;
    }
    va_start(arguments, format);
    vsnprintf(text->data + text->length, (size_t)length + 1, format, arguments);
    va_end(arguments);
    text->length += (size_t)length;
}

void textAppendHtml(struct Text *text, char const *piece) {
    for (; *piece; ++piece) {
        switch (*piece) {
            case '&':
                textAppend(text, "&amp;");
                break;
            case '<':
                textAppend(text, "&lt;");
                break;
            case '>':
                textAppend(text, "&gt;");
                break;
            case '"':
                textAppend(text, "&quot;");
                break;
            case '\'':
                textAppend(text, "&#39;");
                break;
            default:
                textAppendN(text, piece, 1);
        }
    }
}

void textAppendPercentEncoded(struct Text *text, char const *piece) {
    static char const hex[] = "0123456789ABCDEF";
    for (unsigned char const *byte = (unsigned char const *)piece; *byte; ++byte) {
        if (strchr("-._~", *byte) != NULL && *byte != '\0') {
            textAppendN(text, (char const *)byte, 1);
        } else if ((*byte | 0x20) >= 'a' && (*byte | 0x20) <= 'z') {
            textAppendN(text, (char const *)byte, 1);
        } else if (*byte >= '0' && *byte <= '9') {
            textAppendN(text, (char const *)byte, 1);
        } else {
            char escaped[3] = {'%', hex[*byte >> 4], hex[*byte & 15]};
            textAppendN(text, escaped, 3);
        }
    }
}

static int hexValue(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if ((digit | 0x20) >= 'a' && (digit | 0x20) <= 'f') {
        return (digit | 0x20) - 'a' + 10;
    }
    return -1;
}

void percentDecode(char *text) {
    char *out = text;
    for (char const *in = text; *in; ++in) {
        int high = in[0] == '%' ? hexValue(in[1]) : -1;
        int low = high >= 0 ? hexValue(in[2]) : -1;
        if (low >= 0) {
            *out++ = (char)(high << 4 | low);
            in += 2;
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
}
