#include "tools/sim/sim_options.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

constexpr const char* USAGE =
    R"(Usage: voxstat-sim [options]
       voxstat-sim --load reports|eos|voice [options]

Plays a telephony unit on loopback: sends QoS reports and voice records to a voxstat daemon.

  --port N        port for QoS reports; voice records go to N + 1 (49999)
  --help          print this text

Telephony mode: a number of calls, reported in both directions, one of them bad for a while.
Time runs faster than in reality and ends about now.

  --calls N       number of calls (6)
  --duration S    simulated seconds (300)
  --interval S    simulated seconds between the reports of a direction (5)
  --speed F       simulated seconds per second (60)
  --seed N        seed of the random variation (1)

Load mode: numbered datagrams, so that each can be found again. A report
carries its number as SSRC and, with five digits or more, as RTCP name; a voice record as the
first four bytes behind its RTP header.

  --load KIND     reports (session reports), eos (end-of-session reports) or voice (one record
                  in a datagram)
  --first N       first number (1)
  --count N       number of datagrams (1000)
  --rate N        datagrams a second, 0 for as fast as possible (0)
  --burst N       datagrams sent back to back (1)
  --size BYTES    length of a report (500), or of a voice record's RTP packet (160); a report
                  that is longer without padding is left as it is
  --fields N      key lines in a report, 6 to 25 (17; 25 in an end-of-session report)
)";

constexpr std::uint32_t NO_LIMIT = std::numeric_limits<std::uint32_t>::max();

constexpr std::uint32_t MAX_DATAGRAM = 32767;  // the daemon's buffer takes no more
constexpr std::uint32_t VOICE_RECORD_HEADER = 24;

// The smallest and the largest value that an option takes.
struct Range {
    std::uint32_t least, most;
};

// Stores the number if the text is one and lies in the range.
template <typename Number>
bool read_number(const char* text, Range range, Number& number)
{
    std::uint32_t value = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stop != end || value < range.least || value > range.most)
        return false;
    number = static_cast<Number>(value);
    return true;
}

bool read_speed(const char* text, double& speed)
{
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, speed);
    return error == std::errc() && stop == end && speed >= 0.1 && speed <= 10000;
}

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
    {"port", required_argument, nullptr, 'p'},
    {"calls", required_argument, nullptr, 'c'},
    {"duration", required_argument, nullptr, 'd'},
    {"interval", required_argument, nullptr, 'i'},
    {"speed", required_argument, nullptr, 'x'},
    {"seed", required_argument, nullptr, 'e'},
    {"load", required_argument, nullptr, 'l'},
    {"first", required_argument, nullptr, 'f'},
    {"count", required_argument, nullptr, 'n'},
    {"rate", required_argument, nullptr, 'r'},
    {"burst", required_argument, nullptr, 'b'},
    {"size", required_argument, nullptr, 's'},
    {"fields", required_argument, nullptr, 'k'},
    {nullptr, 0, nullptr, 0},
};

bool store(SimOptions& options, int option, const char* text)
{
    switch (option) {
    case 'p':
        return read_number(text, {1, 65534}, options.port);
    case 'c':
        return read_number(text, {1, 200}, options.calls);
    case 'd':
        return read_number(text, {1, 86400}, options.duration_s);
    case 'i':
        return read_number(text, {1, 3600}, options.interval_s);
    case 'x':
        return read_speed(text, options.speed);
    case 'e':
        return read_number(text, {0, NO_LIMIT}, options.seed);
    case 'l':
        return read_load_kind(text, options.mode);
    case 'f':
        return read_number(text, {0, NO_LIMIT}, options.first);
    case 'n':
        return read_number(text, {1, NO_LIMIT}, options.count);
    case 'r':
        return read_number(text, {0, NO_LIMIT}, options.rate);
    case 'b':
        return read_number(text, {1, NO_LIMIT}, options.burst);
    case 's':
        return read_number(text, {16, MAX_DATAGRAM - VOICE_RECORD_HEADER}, options.size);
    case 'k':
        return read_number(text, {6, 25}, options.fields);
    default:
        return false;
    }
}

}  // namespace

std::optional<SimOptions> SimOptions::parse(int argc, char** argv)
{
    SimOptions options;
    int index = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, "", LONG_OPTIONS, &index)) != -1) {
        if (option == 'h') {
            std::fputs(USAGE, stdout);
            std::exit(0);
        }
        if (option == '?')  // getopt_long has said why
            return std::nullopt;
        if (!store(options, option, optarg)) {
            (void)std::fprintf(stderr, "voxstat-sim: --%s does not take \"%s\"; see --help\n",
                               LONG_OPTIONS[index].name, optarg);
            return std::nullopt;
        }
    }
    if (optind < argc) {
        (void)std::fprintf(stderr, "voxstat-sim: unknown argument \"%s\"; see --help\n",
                           argv[optind]);
        return std::nullopt;
    }
    if (options.count - 1 > NO_LIMIT - options.first) {
        (void)std::fputs("voxstat-sim: the numbers go up to 4294967295\n", stderr);
        return std::nullopt;
    }
    return options;
}
