// The command line of voxstat-sim.
#pragma once

#include <cstdint>
#include <optional>

struct SimOptions {
    enum class Mode { TELEPHONY, LOAD_REPORTS, LOAD_EOS, LOAD_VOICE };

    Mode mode = Mode::TELEPHONY;
    std::uint16_t port = 49999;  // for reports; voice records go to the next port

    // Simulated calls; in simulated time.
    unsigned calls = 6;
    unsigned bad = 1;  // number of calls that are bad for a while
    unsigned duration_s = 300;
    unsigned interval_s = 5;
    double speed = 60;  // simulated seconds per second
    unsigned seed = 1;

    // Load.
    std::uint32_t first = 1;
    std::uint32_t count = 1000;
    std::uint32_t rate = 0;   // datagrams per second; 0: as fast as possible
    std::uint32_t burst = 1;  // datagrams sent back to back

    std::uint16_t voice_port() const { return static_cast<std::uint16_t>(port + 1); }

    // Parses the command line. Returns nothing if it is invalid, after a message to standard error.
    // --help and --version print their text and exit.
    static std::optional<SimOptions> parse(int argc, char** argv);
};
