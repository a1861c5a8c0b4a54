#pragma once

#include "bench/login/Timing.h"

#include <vector>

class WorkerHost;
struct Options;
struct World;

// The latency phases: over each world, with the provider answering at once and then late, one
// login at a time and then many in flight, each client that `options` choose on codes of its
// own. One line a series on standard output as it ends; the series go into `all`. `minted` is
// cleared when codes for a series could not be minted (that world's remaining series of the
// phase are left out). False, with the reason on standard error, when the peer did not start.
bool runLatencyPhases(Options const &options, std::vector<World> &worlds, WorkerHost &host,
                      std::vector<Series> &all, bool &minted);
