#pragma once

#include "bench/login/MemoryPhase.h"
#include "bench/login/Timing.h"

#include <string>
#include <vector>

// What bench_login leaves behind: the table and its closing figures on standard output, the CSV of
// every timing, and the latency distributions as a PNG when gnuplot is installed.
void printTable(std::vector<Series> const &all);
// False when the file cannot be written.
bool writeCsv(std::string const &path, std::vector<Series> const &all);
// One panel a phase, transport and delay, the clients side by side in each. False when gnuplot
// ran and failed; true without gnuplot.
bool plot(std::string const &directory, std::vector<Series> const &all);
// The library's heap per login in flight over `transport`, one paragraph.
void printMemory(std::string const &transport, Memory const &memory);
// The last line, "RESULT ...": the figures of the series with the provider answering at once
// (the "_tls" ones over h2; 0 for a series that did not run) and the burst's successes.
void printResult(std::vector<Series> const &all, int burstOk);
