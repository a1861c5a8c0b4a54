#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What every fuzz target shares: a quiet, deterministic process that never reaches the network,
// and a server role with one provider record whose endpoints are known without discovery.
// Targets call these from their first input on (function-local statics), so the libFuzzer
// build and the replay driver set up the same way.
class FuzzSupport {
public:
    // Sends the log nowhere (to stderr when QXSS_FUZZ_LOG is set, to read what an input did), makes
    // the random source a fixed sequence and answers every name lookup from a fixed list
    // ("localhost" and names under ".example" resolve), so that no input makes the process wait for
    // the resolver. Once per process; later calls do nothing.
    static void quiet();

    // A configuration file with one valid OAuth record; its provider lives on a closed loopback
    // port, so a discovery that does run fails at once.
    static std::string const &configuration();
    // A discovery document with every endpoint that the record needs.
    static std::string const &discovery();

    // Makes this process a server with `configuration` and loads it into the server singleton:
    // the file's records, then `discovery` as every record's metadata. Replaces whatever the
    // singleton held, emptying its stores. False when the file or the document is refused.
    static bool loadServer(std::string const &configuration, std::string const &discovery);

    // loadServer with the two texts above, once per process: whether that load succeeded.
    static bool defaultServer();

    // The input as text: bytes up to the first NUL, as a C string would see them.
    static std::string text(uint8_t const *data, size_t size);
};
