// Prints the metrics for the textfile collector of Prometheus' node exporter.
#pragma once

#include <vector>

struct Metric;

void print_prometheus(const std::vector<Metric>& metrics);
