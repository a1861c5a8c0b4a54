#pragma once

#include <string>

// Proxy and CA bundle checks used before any transfer needs them. Log lines begin with
// "SsoUtils: ". No state; any thread (validateProxy blocks for name lookups).

// `hostPort` is "<host>:<port>" without a scheme. 0 when the host is an IP literal or resolves
// now and the port is 1-65535 in digits; -1 otherwise.
int validateProxy(char const *hostPort);

// 0 when the distribution's CA bundle is found, -1 otherwise.
int validateCaFile();

// Path of the distribution's CA bundle, or empty when none is found.
std::string getCaFile();
