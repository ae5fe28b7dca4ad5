// What the pictures say beside their curves and bars.
#pragma once

#include <string>

#include "tools/plot/quality.h"

struct Caption {
    std::string title;
    std::string left_out;                           // which reports are not in it; empty if all are
    bool begin_chosen = false, end_chosen = false;  // whether the user has chosen the period's ends
    Thresholds thresholds;
    bool in_ms = false;  // jitter and round trip; only then can speech quality be estimated

    std::string unit() const { return in_ms ? " ms" : ""; }  // follows a figure
    std::string axis_unit() const { return in_ms ? ", ms" : ", as reported"; }
};

// From the palette of Okabe and Ito, whose colours colour-blind people can distinguish.
constexpr const char* BAD_COLOUR = "#d55e00";
constexpr const char* PLAIN_COLOUR = "black";
