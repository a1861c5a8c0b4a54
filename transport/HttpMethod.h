#pragma once

// The two methods the transport speaks.
enum httpMethod { HttpGet = 1, HttpPost = 2 };

// Which TLS connection a CA bundle is set up for.
enum caTarget { CaTargetServer = 0, CaTargetProxy = 1 };
