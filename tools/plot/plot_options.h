// The command line of voxstat-plot.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/plot/quality.h"

struct PlotOptions {
    std::vector<std::string> files;  // one at least
    std::string picture;             // file to draw into
    bool list = false;               // a table instead of a picture
    bool in_ms = false;              // jitter and round trip are known to be milliseconds
    bool concealment = true;         // of lost packets, for the estimate of the speech quality
    Thresholds thresholds;

    // Which reports to take; times are in the time zone of the file, in seconds.
    std::string gcid;
    std::optional<double> from, to;

    // What the command line asks for; nothing when it is wrong, which is said on standard error.
    // --help and --version print their text and end the process.
    static std::optional<PlotOptions> parse(int argc, char** argv);

    bool chooses(const StatisticsLine& line) const;
};
