#pragma once

#include "bench/login/Timing.h"

#include <string>
#include <vector>

// What bench_login leaves behind: the table on standard output, the CSV of every timing, and
// the latency distributions as a PNG when gnuplot is installed.
void printTable(std::vector<Series> const &all);
// False when the file cannot be written.
bool writeCsv(std::string const &path, std::vector<Series> const &all);
// One panel a phase, transport and delay, the clients side by side in each. False when gnuplot
// ran and failed; true without gnuplot.
bool plot(std::string const &directory, std::vector<Series> const &all);
