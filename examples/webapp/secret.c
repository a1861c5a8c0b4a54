#include "secret.h"

#include <stdio.h>
#include <string.h>

int secretRead(char const *path, char out[SECRET_SIZE]) {
    FILE *file = fopen(path, "r");
    if (file == NULL) {
        perror(path);
        return -1;
    }
    char *line = fgets(out, SECRET_SIZE, file);
    fclose(file);
    if (line != NULL) {
        out[strcspn(out, "\r\n")] = '\0';
    }
    if (line == NULL || strlen(out) < SECRET_MIN_LENGTH) {
        fprintf(stderr, "%s must hold a secret of at least %d characters on its first line\n", path,
                SECRET_MIN_LENGTH);
        return -1;
    }
    return 0;
}

int secretEquals(char const *secret, char const *given) {
    size_t const expected = strlen(secret);
    size_t const length = strlen(given);
    unsigned char difference = length != expected;
    for (size_t i = 0; i < expected; ++i) {
        difference |= (unsigned char)secret[i] ^ (unsigned char)(i < length ? given[i] : 0);
    }
    return difference == 0;
}
