#pragma once

// A TCP socket of the test's own on 127.0.0.1 and a port the kernel chose.
class LoopbackSocket {
public:
    // Binds a new socket to a free port and, when `backlog` is 0 or more, listens on it. A bound
    // socket that never listens refuses every connection, and holds its port while it is open,
    // so no other program can take it. The descriptor (close-on-exec; the caller closes it),
    // with the port in `port`; -1 on failure.
    static int open(int backlog, int &port);
};
