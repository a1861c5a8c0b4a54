#pragma once

#include <string>
#include <vector>

struct ProviderReport;

// The checker's own warnings: what the library accepts but an admin should not leave as it is.
// None of them changes whether the library would load the file.

// About the file itself: who may read, write or replace it (it holds client secrets). `path`
// is the file the library would read; nothing when it cannot be examined.
std::vector<std::string> fileWarnings(std::string const &path);

// About one OAuth entry: unencrypted addresses, an issuer that is not the idp_domain, and the
// rules of the real provider that fail its logins, each with the setting that fixes it. The
// endpoint and issuer warnings need discovery to have run.
std::vector<std::string> entryWarnings(ProviderReport const &entry);
