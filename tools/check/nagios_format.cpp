#include "tools/check/nagios_format.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tools/check/metrics.h"

namespace {

constexpr const char* NAMES[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
constexpr const char* PREFIX = "voxstat_";

std::string without(const char* forbidden, std::string text)
{
    for (char& c : text)
        if (std::strchr(forbidden, c) != nullptr)
            c = '_';
    return text;
}

// 'lost_total_text_lines'=0c
std::string datum(const Metric& metric, const std::string& label, std::uint64_t number)
{
    const std::string name = metric.name + std::strlen(PREFIX);
    const char* unit = metric.is_counter() ? "c" : "";
    if (name.ends_with("_bytes"))
        unit = "B";
    else if (name.ends_with("_seconds"))
        unit = "s";
    return " '" + without("'=|\n", label.empty() ? name : name + '_' + label) +
           "'=" + std::to_string(number) + unit;
}

}  // namespace

void print_nagios(int status, const std::string& text, const std::vector<Metric>& metrics)
{
    std::string data;
    for (const Metric& metric : metrics)
        for (const auto& [label, number] : metric.samples)
            data += datum(metric, label, number);
    std::printf("VOXSTAT %s - %s%s%s\n", NAMES[status], without("|\n", text).c_str(),
                data.empty() ? "" : " |", data.c_str());
}
