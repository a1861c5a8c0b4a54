// SsoUtils: random ASCII strings, Base64, and SHA-256 as hex and as Base64url.

#include "support/SsoUtils.h"

#include "platform/Base64.h"
#include "platform/Encryptable.h"
#include "platform/Log.h"

#include <cstring>
#include <memory>
#include <new>

namespace {

char const kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
constexpr uint64_t kAlphabetSize = 66;

bool inAlphabet(char c) {
    return c != '\0' && std::memchr(kAlphabet, c, kAlphabetSize) != nullptr;
}

}  // namespace

std::string getRandomAsciiString(uint32_t length) {
    if (length == 0 || length > 192) {
        return std::string();
    }
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[length + 1]);
    if (!buffer) {
        return std::string();
    }
    if (Encryptable::getRandom(buffer.get(), static_cast<int>(length)) != 1) {
        return std::string();
    }
    buffer[length] = '\0';
    for (uint32_t i = 0; i < length; ++i) {
        char byte = buffer[i];
        if (!inAlphabet(byte)) {
            // The byte read as signed and sign-extended to 64 bits, taken unsigned: bytes
            // 128-255 land on (byte - 240) mod 66. The exact mapping is part of the contract.
            uint64_t widened =
                static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(byte)));
            buffer[i] = kAlphabet[widened % kAlphabetSize];
        }
    }
    return std::string(buffer.get(), length);
}

std::string getBase64(char const *text) {
    size_t length = text ? std::strlen(text) : 0;
    Log() << "SsoUtils: Received string for Base64 formatting: '" << text
          << "' with length: " << length << ".\n";
    int size = b64_encode_buffer_size(static_cast<int>(length), 0);
    std::unique_ptr<char[]> buffer(size > 0 ? new (std::nothrow) char[size] : nullptr);
    if (size > 0 && buffer) {
        std::memset(buffer.get(), '0', static_cast<size_t>(size));
    }
    Log() << "SsoUtils: Buffer size for Base64 formatting: " << size << ".\n";
    int encoded = buffer ? b64_encode_buffer(text ? text : "", static_cast<int>(length),
                                             buffer.get(), size, 0)
                         : -1;
    if (encoded + 1 != size) {
        Log() << "SsoUtils: ERROR! Base64 result size: " << (encoded + 1)
              << " is not the same as buffer size: " << size << ".\n";
        return std::string();
    }
    std::string result(buffer.get());
    Log() << "SsoUtils: Base64 string is: '" << result << "' with length: " << result.size()
          << ".\n";
    return result;
}

std::string getHash(char const *text) {
    Log() << "SsoUtils: Received '" << text << "' for SHA256 hashing.\n";
    char *hashed = nullptr;
    int length = Encryptable::getHash(text, hashed);
    if (length == 0 || hashed == nullptr) {
        delete[] hashed;
        return std::string();
    }
    std::string result(hashed, static_cast<size_t>(length));
    delete[] hashed;
    Log() << "SsoUtils: SHA256 string is: '" << result << "'.\n";
    return result;
}

std::string getHashBase64Url(char const *text) {
    Log() << "SsoUtils: Received '" << text << "' for Base64Url(SHA256) formatting.\n";
    char *hashed = nullptr;
    int length = Encryptable::getHashBase64(text, hashed);
    if (length == 0 || hashed == nullptr) {
        delete[] hashed;
        return std::string();
    }
    std::string result(hashed, static_cast<size_t>(length));
    delete[] hashed;
    Log() << "SsoUtils: Buffer: '" << result << "' in Base64(SHA256) format.\n";
    while (!result.empty() && result.back() == '=') {
        result.pop_back();
    }
    for (char &c : result) {
        if (c == '+') {
            c = '-';
        } else if (c == '/') {
            c = '_';
        }
    }
    Log() << "SsoUtils: Base64URL(SHA256) string is: '" << result << "'.\n";
    return result;
}
