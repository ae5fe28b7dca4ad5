// The metrics as the textfile collector of Prometheus' node exporter reads them.
#pragma once

#include <vector>

struct Metric;

void print_prometheus(const std::vector<Metric>& metrics);
