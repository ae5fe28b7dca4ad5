// The command line of voxstat-plot.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/plot/quality.h"

struct PlotOptions {
    std::vector<std::string> files;  // one at least; "-" is standard input
    std::string picture;             // file to draw into
    bool list = false;               // a table instead of a picture
    bool in_ms = false;              // jitter and round trip are known to be milliseconds
    bool concealment = true;         // of lost packets, for the estimate of the speech quality
    Thresholds thresholds;

    // Which reports to take; times are in the time zone of the file, in seconds.
    std::string gcid;
    std::optional<double> from, to;
    bool from_is_clock = false, to_is_clock = false;  // since midnight, of a day not yet known

    // What the command line asks for; nothing when it is wrong, which is said on standard error.
    // --help and --version print their text and end the process.
    static std::optional<PlotOptions> parse(int argc, char** argv);

    bool needs_last() const { return from_is_clock || to_is_clock; }

    // Takes the times of day without a day for the latest such times that are not after the last
    // report; if both are given, the end for the first such time after the begin.
    void set_last(double last_s);

    bool chooses(const StatisticsLine& line) const;
};
