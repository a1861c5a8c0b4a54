#pragma once

// Randomness and SHA-256. All static; any thread.
class Encryptable {
public:
    // Fills `buffer` with `length` bytes from the kernel's CSPRNG. Returns 1 on success, 0 on
    // failure (or a negative length). Tests may substitute the source (PlatformFakes::random).
    static int getRandom(char *buffer, int length);

    // SHA-256 of the text, as 64 lower-case hex characters. Returns the result's length and sets
    // `out` to a new terminated array (delete[]); returns 0 and leaves `out` null on failure.
    static int getHash(char const *text, char *&out);

    // The same, with the standard padded Base64 form of the 32-byte digest (44 characters).
    static int getHashBase64(char const *text, char *&out);
};
