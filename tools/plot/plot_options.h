// The command line of voxstat-plot.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/plot/quality.h"

struct PlotOptions {
    std::vector<std::string> files;  // at least one; "-" is standard input
    std::string picture;             // file to draw into
    bool list = false;               // a table instead of a picture
    bool in_ms = false;              // jitter and round-trip time are in milliseconds
    bool concealment = true;         // of lost packets, for the estimate of the speech quality
    Thresholds thresholds;

    // Which reports to use; times in seconds, in the time zone of the file.
    std::string gcid;
    std::optional<double> from, to;
    bool from_is_clock = false, to_is_clock = false;  // a time since midnight, without a day

    // Parses the command line. Returns nothing if it is invalid, after a message to standard error.
    // --help and --version print their text and exit.
    static std::optional<PlotOptions> parse(int argc, char** argv);

    bool needs_last() const { return from_is_clock || to_is_clock; }

    // Adds a day to times without one, so that they are the latest such times up to the last
    // report. If both have no day, the end is the first such time after the start.
    void set_last(double last_s);

    bool chooses(const StatisticsLine& line) const;
};
