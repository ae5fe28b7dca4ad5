#include "bench/library_calls.h"

#include <cstdio>
#include <cstdlib>

#include "log/utils.h"

std::string print_report_time(const ReportTexts& texts)
{
    return Utils::t_stamp_tz(
        {.tv_sec = std::atol(texts.seconds), .tv_usec = std::atol(texts.microseconds)});
}

char* print_session_line(const char* report_time, const ReportTexts& texts)
{
    char* line = nullptr;
    if (asprintf(&line,
                 "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %7d %4d %5.1f %6d %5d %10s %5.5s %s",
                 report_time, "3-1016", "2.117", "near_end", "203.0.113.5", std::atoi(texts.port),
                 std::atoi(texts.packets), std::atoi(texts.lost), std::atof(texts.lost_percent),
                 std::atoi(texts.jitter), std::atoi(texts.rtt), "3735928559", "12345678901",
                 "unit7a") < 0)
        std::abort();
    return line;
}

char* print_json_line(const char* line)
{
    char* json = nullptr;
    if (asprintf(&json, "%s%s%s", R"({"message": ")", line, R"("})") < 0)
        std::abort();
    return json;
}
