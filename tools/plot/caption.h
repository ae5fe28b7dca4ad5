// What the pictures say beside their curves and bars.
#pragma once

#include <string>

#include "tools/plot/quality.h"

struct Caption {
    std::string title;
    std::string left_out;                           // which reports are not in it; empty if all are
    bool begin_chosen = false, end_chosen = false;  // of the time, by the user
    Thresholds thresholds;
    bool in_ms = false;  // jitter and round trip; then the speech quality can be told too

    std::string unit() const { return in_ms ? " ms" : ""; }  // behind a figure
    std::string axis_unit() const { return in_ms ? ", ms" : ", as reported"; }
};

// With the colours of Okabe and Ito, which colour-blind people can tell apart.
constexpr const char* BAD_COLOUR = "#d55e00";
constexpr const char* PLAIN_COLOUR = "black";
