/* Text helpers of the web application: a growing string, percent coding and HTML escaping. */
#ifndef QXSS_WEBAPP_TEXT_H
#define QXSS_WEBAPP_TEXT_H

#include <stddef.h>

/* A string that grows as text is appended. Start it as {0}; `data` is always terminated once
 * anything was appended; release it with free(data). When memory runs out, `failed` is set,
 * and from then on appending does nothing: the user checks `failed` once, at the end. */
struct Text {
    char *data;
    size_t length;
    size_t size;
    int failed;
};

/* Hands over the text as a new string for free(), or null when it failed; `text` is empty then. */
char *textTake(struct Text *text);
void textAppend(struct Text *text, char const *piece);
void textAppendN(struct Text *text, char const *piece, size_t length);
void textPrintf(struct Text *text, char const *format, ...) __attribute__((format(printf, 2, 3)));
/* Appends `piece` with &, <, >, " and ' written as character references. */
void textAppendHtml(struct Text *text, char const *piece);
/* Appends `piece` with every byte except A-Z a-z 0-9 - . _ ~ written as %XX. */
void textAppendPercentEncoded(struct Text *text, char const *piece);

/* Decodes %XX in place; anything else, "+" included, stays as it is. */
void percentDecode(char *text);

#endif
