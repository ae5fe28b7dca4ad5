#include "tools/plot/plot_options.h"

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tools/common/numbers.h"
#include "tools/plot/gnuplot.h"
#include "tools/plot/time_text.h"

namespace {

constexpr const char* USAGE =
    R"(Usage: voxstat-plot [options] FILE...

Draws the calls in statistics files (a line per stream) or session-summary files (a bar per
stream). Several files of the same kind, such as a live file and its archives, make one picture.
"-" means standard input. Drawing requires gnuplot.

  -o, --output FILE   draw the picture in FILE, which ends in .png or .svg (default: PNG file in
                      the working directory with the name of the first file)
  --list              print a table of the calls instead, the worst first; does not need gnuplot
  --unit ms           jitter and round-trip time are in milliseconds: show this unit, and
                      estimate the speech quality (R and MOS of the E-model)
  --no-plc            estimate it for receivers without packet loss concealment

  --call GCID         show only this call
  --from TIME         show only reports from this time on: "2026-11-24", "2026-11-24 19:35",
                      "2026-11-24 19:35:20", or the last "19:35" or "19:35:20" before the
                      last report; local times, as in the files
  --to TIME           show only reports up to this time

  --loss PERCENT      a call with this loss or more is bad (default 1)
  --jitter N          the same for the jitter (default 30)
  --round-trip N      the same for the round-trip time (default 300)

  --help              print this text
  --version           print the version

If a line cannot be read, its position and the reason are printed to standard error.
Exit status: 0 if there is a picture or a table, 1 if there is none, 2 if the command line is
invalid.
)";

const option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"output", required_argument, nullptr, 'o'},
    {"list", no_argument, nullptr, 'l'},
    {"unit", required_argument, nullptr, 'u'},
    {"no-plc", no_argument, nullptr, 'n'},
    {"call", required_argument, nullptr, 'c'},
    {"from", required_argument, nullptr, 'f'},
    {"to", required_argument, nullptr, 't'},
    {"loss", required_argument, nullptr, 'p'},
    {"jitter", required_argument, nullptr, 'j'},
    {"round-trip", required_argument, nullptr, 'r'},
    {nullptr, 0, nullptr, 0},
};

constexpr std::size_t GCID_SIZE = 9;  // the statistics files contain no more

bool read_threshold(const char* text, double& threshold)
{
    return to_number(text, threshold, 0.001);
}

bool read_time(const char* text, std::optional<double>& time, bool& is_clock)
{
    time = read_day_and_time(text);
    is_clock = !time.has_value();
    if (is_clock)
        time = read_time_of_day(text);
    return time.has_value();
}

bool store(PlotOptions& options, int option, const char* text)
{
    switch (option) {
    case 'o':
        options.picture = text;
        return is_picture_name(options.picture);
    case 'l':
        return options.list = true;
    case 'u':
        return options.in_ms = std::strcmp(text, "ms") == 0;
    case 'n':
        options.concealment = false;
        return true;
    case 'c':
        options.gcid = std::string(text).substr(0, GCID_SIZE);
        return true;
    case 'f':
        return read_time(text, options.from, options.from_is_clock);
    case 't':
        return read_time(text, options.to, options.to_is_clock);
    case 'p':
        return read_threshold(text, options.thresholds.loss_percent);
    case 'j':
        return read_threshold(text, options.thresholds.jitter);
    case 'r':
        return read_threshold(text, options.thresholds.round_trip);
    default:
        return false;
    }
}

// In the working directory, because few users can write to the directory of the statistics.
std::string picture_for(const std::string& file)
{
    const std::string name = file.substr(file.rfind('/') + 1);
    return (file == "-" ? "stdin" : name.substr(0, name.rfind('.'))) + ".png";
}

const char* name_of(int letter)
{
    return std::find_if(std::begin(LONG_OPTIONS), std::end(LONG_OPTIONS),
                        [letter](const option& each) { return each.val == letter; })
        ->name;
}

}  // namespace

std::optional<PlotOptions> PlotOptions::parse(int argc, char** argv)
{
    PlotOptions options;
    int option = 0;
    while ((option = getopt_long(argc, argv, "o:", LONG_OPTIONS, nullptr)) != -1) {
        if (option == 'h') {
            std::fputs(USAGE, stdout);
            std::exit(0);
        }
        if (option == 'v') {
            std::puts("voxstat-plot " VOXSTAT_VERSION);
            std::exit(0);
        }
        if (option == '?') {  // getopt_long has printed the reason
            (void)std::fputs("voxstat-plot: invalid option; see --help\n", stderr);
            return std::nullopt;
        }
        if (!store(options, option, optarg)) {
            (void)std::fprintf(stderr, "voxstat-plot: invalid value \"%s\" for --%s; see --help\n",
                               optarg, name_of(option));
            return std::nullopt;
        }
    }
    options.files.assign(argv + optind, argv + argc);
    if (options.files.empty()) {
        (void)std::fputs(USAGE, stderr);
        return std::nullopt;
    }
    if (options.list && !options.picture.empty()) {
        (void)std::fputs("voxstat-plot: --list cannot be combined with --output; see --help\n",
                         stderr);
        return std::nullopt;
    }
    if (options.picture.empty())
        options.picture = picture_for(options.files.front());
    return options;
}

void PlotOptions::set_last(double last_s)
{
    constexpr double DAY_S = 86400;
    const auto days = [](double seconds) { return DAY_S * std::floor(seconds / DAY_S); };
    if (from_is_clock && to_is_clock && *to < *from)
        *to += DAY_S;
    if (from_is_clock) {
        const double midnight = days(last_s - *from);
        *from += midnight;
        if (to_is_clock)
            *to += midnight;
    } else if (to_is_clock) {
        *to += days(last_s - *to);
    }
    from_is_clock = to_is_clock = false;
}

bool PlotOptions::chooses(const StatisticsLine& line) const
{
    const auto place = [&line](double time_s) {
        return time_s + static_cast<double>(line.zone_offset_s);
    };
    return (gcid.empty() || line.gcid == gcid) && (!from || place(line.end_s) >= *from) &&
           (!to || place(line.begin_s) <= *to);
}
