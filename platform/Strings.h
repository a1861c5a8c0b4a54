#pragma once

#include <cstddef>

// Character arrays handed across the library's boundaries. Each result is a new array that the
// receiver frees with delete[]. On allocation failure the target is left null.

// target = copy of `text` (null text leaves target null). Returns target.
char *StringInit(char *&target, char const *text);

// target = copy of the first `length` bytes of `text`, terminated. Returns target.
char *StringInit(char *&target, char const *text, size_t length);

// target = the given texts one after the other; null texts are skipped. A previous target is
// released. Returns target.
char *StringAdd(char *&target, char const *t1, char const *t2 = nullptr, char const *t3 = nullptr,
                char const *t4 = nullptr, char const *t5 = nullptr, char const *t6 = nullptr,
                char const *t7 = nullptr, char const *t8 = nullptr);

// Number of bytes equal to `c` among the first `length` bytes of `text` (0 for null).
int StringCount(char const *text, int length, char c);
