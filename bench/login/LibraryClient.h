#pragma once

#include "bench/login/Timing.h"

#include <string>
#include <vector>

class WorkerHost;

// The library as its host sees it: "SSO_VERIFY" written on the channel to its reply read.
// All jobs' lines at once when `together`, else one at a time. When `cpu` is set, the worker
// thread's on-CPU time over the phase goes into series.cpuMs.
void runLibrary(WorkerHost &host, std::vector<Job> const &jobs, bool together, Series &series);

// The on-CPU time of the library's worker thread (named "qxss-worker") so far, in
// milliseconds; 0 when there is no such thread.
double workerCpuMs();
