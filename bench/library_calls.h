// The C library's share in a session report: what its two lines cost at the least, whoever calls.
#pragma once

#include <string>

// The numbers of a report, as its fields hold them.
struct ReportTexts {
    const char* seconds = "1700000000";
    const char* microseconds = "123456";
    const char* port = "5004";
    const char* packets = "250";
    const char* lost = "2";
    const char* lost_percent = "0.8";
    const char* jitter = "12";
    const char* rtt = "40";
};

// Each converts the texts that it needs. The lines are to be freed.
std::string print_report_time(const ReportTexts& texts);
char* print_session_line(const char* report_time, const ReportTexts& texts);
char* print_json_line(const char* line);
