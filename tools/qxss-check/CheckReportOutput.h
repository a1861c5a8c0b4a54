#pragma once

#include "tools/qxss-check/ConfigCheck.h"

#include <string>

// The report for people: one block per entry, then the file's problems and the verdict.
std::string reportAsText(CheckReport const &report);

// The same as one JSON document (see qxss-check(1) for its members), ending in a line end.
std::string reportAsJson(CheckReport const &report);
