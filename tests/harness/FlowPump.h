#pragma once

#include "transport/AsyncFlowResult.h"

class CurlRequest;

// Turns the flow engine as the worker does, without a worker: perform, then wait on libcurl's
// sockets, until a flow has finished or `ms` milliseconds have passed.
// True with the oldest result in `result`; false when none came in time.
bool pumpUntilFinished(CurlRequest &network, AsyncFlowResult &result, int ms = 5000);
// Turns the engine `turns` times (for what must not finish).
void pumpTurns(CurlRequest &network, int turns);
