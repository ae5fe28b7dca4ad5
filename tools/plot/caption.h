// What the pictures say beside their curves and bars.
#pragma once

#include <string>

#include "tools/plot/quality.h"

struct Caption {
    std::string title;
    std::string left_out;  // which reports are not in it; empty if all are
    Thresholds thresholds;
    bool in_ms;  // jitter and round trip; then the speech quality can be told too

    std::string unit() const { return in_ms ? " ms" : ""; }  // behind a figure
    std::string axis_unit() const { return in_ms ? ", ms" : ", as reported"; }
};

constexpr const char* BAD_COLOUR = "#d62728";
constexpr const char* PLAIN_COLOUR = "black";
