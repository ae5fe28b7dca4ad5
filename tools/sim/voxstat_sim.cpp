// voxstat-sim: simulates a telephony unit on loopback, to try, test and measure the daemon.
#include <cstdio>
#include <exception>
#include <optional>

#include "tools/sim/load_generator.h"
#include "tools/sim/sim_options.h"
#include "tools/sim/telephony_unit.h"

int main(int argc, char** argv)
{
    const std::optional<SimOptions> options = SimOptions::parse(argc, argv);
    if (!options)
        return 2;
    try {
        const bool all_sent = options->mode == SimOptions::Mode::TELEPHONY
                                  ? TelephonyUnit(*options).run()
                                  : LoadGenerator(*options).run();
        return all_sent ? 0 : 1;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "voxstat-sim: %s\n", error.what());
        return 1;
    }
}
