// The command line of voxstat-sim.
#pragma once

#include <cstdint>
#include <optional>

struct SimOptions {
    enum class Mode { TELEPHONY, LOAD_REPORTS, LOAD_EOS, LOAD_VOICE };

    Mode mode = Mode::TELEPHONY;
    std::uint16_t port = 49999;  // QoS reports; voice records go to the next port up

    // Telephony mode; times are simulated ones.
    unsigned calls = 6;
    unsigned bad = 1;  // so many of the calls are bad for a while
    unsigned duration_s = 300;
    unsigned interval_s = 5;
    double speed = 60;  // simulated seconds per second
    unsigned seed = 1;

    // Load mode.
    std::uint32_t first = 1;
    std::uint32_t count = 1000;
    std::uint32_t rate = 0;   // datagrams a second; 0 means unpaced
    std::uint32_t burst = 1;  // datagrams sent back to back

    std::uint16_t voice_port() const { return static_cast<std::uint16_t>(port + 1); }

    // What the command line asks for; nothing when it is wrong, which is said on standard error.
    // --help and --version print their text and end the process.
    static std::optional<SimOptions> parse(int argc, char** argv);
};
