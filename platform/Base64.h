#pragma once

// Standard padded Base64 (RFC 4648, section 4). `flags` must be 0.

// Size of the buffer needed to encode `length` bytes, terminator included.
int b64_encode_buffer_size(int length, int flags);

// Encodes `length` bytes of `input` into `output` (of `size` bytes) and terminates it.
// Returns the encoded length without the terminator, or -1 when `output` is too small or an
// argument is invalid.
int b64_encode_buffer(char const *input, int length, char *output, int size, int flags);
