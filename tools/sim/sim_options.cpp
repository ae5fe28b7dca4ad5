#include "tools/sim/sim_options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "tools/common/numbers.h"

namespace {

constexpr const char* USAGE =
    R"(Usage: voxstat-sim [options]
       voxstat-sim --load reports|eos|voice [options]

Simulates a telephony unit: sends reports and voice records to a voxstat daemon on this machine.

  --port N        port for reports; voice records go to N + 1 (default 49999)
  --help          print this text
  --version       print the version

Without --load, simulates calls, some of which are bad for a while. Simulated time runs faster
than real time, and reaches the current time at the end of the run.

  --calls N       number of calls, up to 1000 (default 6)
  --bad N         number of calls that are bad for a while (default 1)
  --duration S    simulated seconds (default 300)
  --interval S    simulated seconds between the reports on a stream (default 5)
  --speed F       simulated seconds per second (default 60)
  --seed N        seed of the random variation (default 1)

With --load, sends numbered datagrams. A report contains its number as the SSRC and, padded to at
least five digits, as the RTCP name; a voice record contains it as the first four bytes of the
RTP payload.

  --load KIND     reports (session reports), eos (session summaries) or voice (datagrams with
                  one voice record)
  --first N       first number (default 1)
  --count N       number of datagrams (default 1000)
  --rate N        datagrams per second, 0 for as fast as possible (default 0)
  --burst N       datagrams sent back to back (default 1)

Exit status: 0 if all datagrams were sent, 1 if some were not, 2 if the command line is invalid.
)";

constexpr const char* CALL_OPTIONS = "cadixe";
constexpr const char* LOAD_OPTIONS = "fnrb";

constexpr std::uint32_t NO_LIMIT = std::numeric_limits<std::uint32_t>::max();

bool read_load_kind(const char* text, SimOptions::Mode& mode)
{
    if (std::strcmp(text, "reports") == 0)
        mode = SimOptions::Mode::LOAD_REPORTS;
    else if (std::strcmp(text, "eos") == 0)
        mode = SimOptions::Mode::LOAD_EOS;
    else if (std::strcmp(text, "voice") == 0)
        mode = SimOptions::Mode::LOAD_VOICE;
    else
        return false;
    return true;
}

const option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"port", required_argument, nullptr, 'p'},
    {"calls", required_argument, nullptr, 'c'},
    {"bad", required_argument, nullptr, 'a'},
    {"duration", required_argument, nullptr, 'd'},
    {"interval", required_argument, nullptr, 'i'},
    {"speed", required_argument, nullptr, 'x'},
    {"seed", required_argument, nullptr, 'e'},
    {"load", required_argument, nullptr, 'l'},
    {"first", required_argument, nullptr, 'f'},
    {"count", required_argument, nullptr, 'n'},
    {"rate", required_argument, nullptr, 'r'},
    {"burst", required_argument, nullptr, 'b'},
    {nullptr, 0, nullptr, 0},
};

bool store(SimOptions& options, int option, const char* text)
{
    switch (option) {
    case 'p':
        return to_number<std::uint16_t>(text, options.port, 1, 65534);
    case 'c':
        return to_number(text, options.calls, 1U, 1000U);
    case 'a':
        return to_number(text, options.bad, 0U, 1000U);
    case 'd':
        return to_number(text, options.duration_s, 1U, 86400U);
    case 'i':
        return to_number(text, options.interval_s, 1U, 3600U);
    case 'x':
        return to_number(text, options.speed, 0.1, 10000.0);
    case 'e':
        return to_number(text, options.seed);
    case 'l':
        return read_load_kind(text, options.mode);
    case 'f':
        return to_number(text, options.first);
    case 'n':
        return to_number(text, options.count, 1U);
    case 'r':
        return to_number(text, options.rate);
    case 'b':
        return to_number(text, options.burst, 1U);
    default:
        return false;
    }
}

}  // namespace

std::optional<SimOptions> SimOptions::parse(int argc, char** argv)
{
    SimOptions options;
    const option* of_calls = nullptr;  // the last one given
    const option* of_load = nullptr;
    int index = 0;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "", LONG_OPTIONS, &index)) != -1) {
        if (letter == 'h') {
            std::fputs(USAGE, stdout);
            std::exit(0);
        }
        if (letter == 'v') {
            std::puts("voxstat-sim " VOXSTAT_VERSION);
            std::exit(0);
        }
        if (letter == '?') {  // getopt_long has printed the reason
            (void)std::fputs("voxstat-sim: invalid option; see --help\n", stderr);
            return std::nullopt;
        }
        if (!store(options, letter, optarg)) {
            (void)std::fprintf(stderr, "voxstat-sim: invalid value \"%s\" for --%s; see --help\n",
                               optarg, LONG_OPTIONS[index].name);
            return std::nullopt;
        }
        if (std::strchr(CALL_OPTIONS, letter) != nullptr)
            of_calls = &LONG_OPTIONS[index];
        if (std::strchr(LOAD_OPTIONS, letter) != nullptr)
            of_load = &LONG_OPTIONS[index];
    }
    if (optind < argc) {
        (void)std::fprintf(stderr, "voxstat-sim: unexpected argument \"%s\"; see --help\n",
                           argv[optind]);
        return std::nullopt;
    }
    const bool is_load = options.mode != Mode::TELEPHONY;
    if (const auto* stray = is_load ? of_calls : of_load; stray != nullptr) {
        (void)std::fprintf(stderr, "voxstat-sim: --%s %s --load; see --help\n", stray->name,
                           is_load ? "cannot be combined with" : "needs");
        return std::nullopt;
    }
    if (!is_load && options.bad > options.calls) {
        (void)std::fprintf(stderr, "voxstat-sim: --bad %u is more than --calls %u; see --help\n",
                           options.bad, options.calls);
        return std::nullopt;
    }
    if (options.count - 1 > NO_LIMIT - options.first) {
        (void)std::fputs("voxstat-sim: the last number is greater than 4294967295; see --help\n",
                         stderr);
        return std::nullopt;
    }
    return options;
}
