// The state of the running daemon as named numbers, for the formats that programs read.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class Findings;
struct LiveState;

struct Metric {
    const char* name;  // ends in the unit, or in "_total" for a counter
    const char* help;
    const char* label;  // distinguishes the samples; null if there is only one
    std::vector<std::pair<std::string, std::uint64_t>> samples;  // value of the label, number

    bool is_counter() const { return std::string(name).ends_with("_total"); }
};

// If the daemon is not running or its log cannot be read, the metrics about them have no samples.
std::vector<Metric> metrics_of(const LiveState& state, const Findings& findings);
