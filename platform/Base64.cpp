// Base64: standard padded encoding of a byte buffer and the size it needs.

#include "platform/Base64.h"

#include <openssl/evp.h>

int b64_encode_buffer_size(int length, int flags) {
    if (length < 0 || flags != 0 || length > (0x7FFFFFFF / 4) * 3 - 3) {
        return -1;
    }
    return 4 * ((length + 2) / 3) + 1;
}

int b64_encode_buffer(char const *input, int length, char *output, int size, int flags) {
    int needed = b64_encode_buffer_size(length, flags);
    if (needed < 0 || output == nullptr || (input == nullptr && length > 0) || size < needed) {
        return -1;
    }
    if (length == 0) {
        output[0] = '\0';
        return 0;
    }
    // EVP_EncodeBlock writes the padded text and its terminator.
    return EVP_EncodeBlock(reinterpret_cast<unsigned char *>(output),
                           reinterpret_cast<unsigned char const *>(input), length);
}
