// The metrics and findings as one JSON object; voxstat-check(8) describes it.
#pragma once

#include <string>
#include <vector>

class Findings;
struct Metric;

void print_json(const std::vector<Metric>& metrics, const std::string& config_path,
                const Findings& findings);
