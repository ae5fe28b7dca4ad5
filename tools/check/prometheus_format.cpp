#include "tools/check/prometheus_format.h"

#include <iostream>

#include "tools/check/metrics.h"
#include "tools/check/quoted.h"

void print_prometheus(const std::vector<Metric>& metrics)
{
    for (const Metric& metric : metrics) {
        std::cout << "# HELP " << metric.name << ' ' << metric.help << "\n# TYPE " << metric.name
                  << (metric.is_counter() ? " counter\n" : " gauge\n");
        for (const auto& [value, number] : metric.samples) {
            std::cout << metric.name;
            if (metric.label != nullptr)
                std::cout << '{' << metric.label << '=' << quoted(value) << '}';
            std::cout << ' ' << number << '\n';
        }
    }
}
