#include "tools/check/json_format.h"

#include <ctime>
#include <iostream>
#include <utility>

#include "tools/check/findings.h"
#include "tools/check/metrics.h"
#include "tools/check/quoted.h"

namespace {

// A number, null without a sample, or an object with one member per value of the label.
std::string value_of(const Metric& metric)
{
    if (metric.label == nullptr)
        return metric.samples.empty() ? "null" : std::to_string(metric.samples[0].second);
    std::string members;
    for (const auto& [label, number] : metric.samples)
        members += (members.empty() ? "" : ", ") + quoted(label) + ": " + std::to_string(number);
    return '{' + members + '}';
}

std::string object(const Findings::Finding& finding)
{
    return "{\"severity\": " + quoted(finding.severity()) +
           ", \"line\": " + (finding.line == 0 ? "null" : std::to_string(finding.line)) +
           ", \"text\": " + quoted(finding.text) + '}';
}

}  // namespace

void print_json(const std::vector<Metric>& metrics, const std::string& config_path,
                const Findings& findings)
{
    std::cout << "{\"version\": 1,\n \"time\": " << std::time(nullptr)
              << ",\n \"configuration\": " << quoted(config_path)
              << ",\n \"status\": " << findings.status() << ",\n \"metrics\": ";
    const char* separator = "{";
    for (const Metric& metric : metrics)
        std::cout << std::exchange(separator, ",\n             ") << quoted(metric.name) << ": "
                  << value_of(metric);
    std::cout << "},\n \"findings\": [";
    separator = "";
    for (const Findings::Finding& finding : findings.pending())
        std::cout << std::exchange(separator, ",\n              ") << object(finding);
    std::cout << "]}\n";
}
