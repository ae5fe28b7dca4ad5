// Prints one line with performance data, like a plugin of Nagios or a compatible system.
#pragma once

#include <string>
#include <vector>

struct Metric;

// The status: 0 (OK), 1 (WARNING), 2 (CRITICAL) or 3 (UNKNOWN).
void print_nagios(int status, const std::string& text, const std::vector<Metric>& metrics);
