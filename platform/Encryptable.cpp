// Encryptable: random bytes from the kernel, and SHA-256 digests as hex and as Base64.

#include "platform/Encryptable.h"

#include "platform/Base64.h"
#include "platform/PlatformFakes.h"

#include <errno.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/random.h>

#include <cstring>
#include <new>

namespace {

bool sha256(char const *text, unsigned char digest[SHA256_DIGEST_LENGTH]) {
    if (text == nullptr) {
        return false;
    }
    unsigned int length = 0;
    return EVP_Digest(text, std::strlen(text), digest, &length, EVP_sha256(), nullptr) == 1 &&
           length == SHA256_DIGEST_LENGTH;
}

}  // namespace

int Encryptable::getRandom(char *buffer, int length) {
    if (buffer == nullptr || length < 0) {
        return 0;
    }
    auto &fake = PlatformFakes::random();
    if (fake) {
        return fake(buffer, length);
    }
    int filled = 0;
    while (filled < length) {
        ssize_t got = ::getrandom(buffer + filled, static_cast<size_t>(length - filled), 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return 0;
        }
        filled += static_cast<int>(got);
    }
    return 1;
}

int Encryptable::getHash(char const *text, char *&out) {
    out = nullptr;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    if (!sha256(text, digest)) {
        return 0;
    }
    static char const hex[] = "0123456789abcdef";
    char *result = new (std::nothrow) char[SHA256_DIGEST_LENGTH * 2 + 1];
    if (result == nullptr) {
        return 0;
    }
    for (int i = 0; i < SHA256_DIGEST_LENGTH; ++i) {
        result[2 * i] = hex[digest[i] >> 4];
        result[2 * i + 1] = hex[digest[i] & 0x0F];
    }
    result[SHA256_DIGEST_LENGTH * 2] = '\0';
    out = result;
    return SHA256_DIGEST_LENGTH * 2;
}

int Encryptable::getHashBase64(char const *text, char *&out) {
    out = nullptr;
    unsigned char digest[SHA256_DIGEST_LENGTH];
    if (!sha256(text, digest)) {
        return 0;
    }
    int size = b64_encode_buffer_size(SHA256_DIGEST_LENGTH, 0);
    char *result = new (std::nothrow) char[size];
    if (result == nullptr) {
        return 0;
    }
    int length = b64_encode_buffer(reinterpret_cast<char const *>(digest), SHA256_DIGEST_LENGTH,
                                   result, size, 0);
    if (length <= 0) {
        delete[] result;
        return 0;
    }
    out = result;
    return length;
}
