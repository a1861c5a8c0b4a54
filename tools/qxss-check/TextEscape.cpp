#include "tools/qxss-check/TextEscape.h"

#include <cstdio>

std::string escapeControls(std::string const &text) {
    std::string out;
    out.reserve(text.size());
    char hex[8];
    for (size_t i = 0; i < text.size(); ++i) {
        auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\\') {
            out += "\\\\";
        } else if (byte == '\t') {
            out += "\\t";
        } else if (byte == '\n') {
            out += "\\n";
        } else if (byte == '\r') {
            out += "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            std::snprintf(hex, sizeof hex, "\\x%02x", byte);
            out += hex;
        } else if (byte == 0xc2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned char>(text[i + 1]));
            out += hex;
            ++i;
        } else {
            out += static_cast<char>(byte);
        }
    }
    return out;
}
