#pragma once

#include <cstdint>
#include <string>

// Random, hash and Base64 helpers. A failure is an empty string. Log lines begin with
// "SsoUtils: ". No state; any thread.

// `length` characters drawn from "A-Za-z0-9-._~"; empty for 0, above 192, or a failing random
// source.
std::string getRandomAsciiString(uint32_t length);

// Standard padded Base64 of the text.
std::string getBase64(char const *text);

// SHA-256 of the text in the platform's text form.
std::string getHash(char const *text);

// Base64url without padding of the SHA-256 of the text (43 characters): a PKCE S256 challenge.
std::string getHashBase64Url(char const *text);
