// The state of the running daemon as numbers with names, for the formats that programs read.
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
    const char* label;  // what tells the samples apart; null for a single one
    std::vector<std::pair<std::string, std::uint64_t>> samples;  // the label's value, the number

    bool is_counter() const { return std::string(name).ends_with("_total"); }
};

// Without a running daemon, or without its log, the metrics of these have no samples.
std::vector<Metric> metrics_of(const LiveState& state, const Findings& findings);
