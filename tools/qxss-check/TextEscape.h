#pragma once

#include <string>

// `text` with every control character written out, so that a value from a provider (or from
// the file) cannot move the cursor, clear the screen or forge a line of the report: a C0 byte
// or DEL as "\xNN" (a tab, line feed and carriage return as "\t", "\n", "\r"), a C1 control
// in UTF-8 as "\u00NN", and a backslash as "\\". Everything else stays as it is.
std::string escapeControls(std::string const &text);
