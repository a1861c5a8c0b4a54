#pragma once

// Percent coding. Both return a new array (delete[]) and never null; a null input gives "".

// Keeps A-Z a-z 0-9 - . _ ~ and writes every other byte as %XX (upper-case hex); a blank
// becomes %20.
char *UrlEncode(char const *text);

// Turns each valid %XX into its byte; every other byte, "+" included, and any invalid or
// truncated escape stay as written.
char *UrlDecode(char const *text);
