// The QoS report: parsing, the statistics line and the JSON object.
//
// The input is a report up to the first zero byte, followed by the serial number of the unit, as a
// line of its file. The expected line is built here from the fields, column by column, without the
// print formats that the daemon uses.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "fuzz/invariant.h"
#include "records/qos_packet.h"

namespace {

constexpr std::size_t TEXT_LIMIT = 1023;
constexpr std::size_t TIME_WIDTH = 30;
constexpr std::size_t CLOCK_WIDTH = 12;
constexpr long LAST_FOUR_DIGIT_YEAR = 253402300799;  // the end of 9999
constexpr long SECONDS_PER_DAY = 86400;

// The values by key, without the key's prefix; empty if the report has none.
using Fields = std::map<std::string, std::string>;

constexpr std::array KNOWN_KEYS = {
    "TYPE",
    "TIME_STAMP_SEC",
    "TIME_STAMP_USEC",
    "GCID",
    "TID",
    "FAR_END_IP",
    "PORT",
    "PACKETS",
    "LOST",
    "LOST_SINCE_LAST_REPORT",
    "LOST_PERCENT",
    "LOST_LOST_SINCE_LAST_REPORT_PERCENT",
    "JITTER_AVG",
    "RTT_AVG",
    "SSRC",
    "RTCP_CNAME",
    "SERIAL_NUM",
    "DURATION",
    "JITTER_MAX",
    "RTT_MAX",
    "RTT_MIN",
    "FIRST_PACKET_SEC",
    "FIRST_PACKET_USEC",
    "LAST_PACKET_SEC",
    "LAST_PACKET_USEC",
};

Fields read_by_hand(const std::string& report, const std::string& serial)
{
    Fields fields;
    for (const char* key : KNOWN_KEYS)
        fields[key];
    std::string key, value;
    bool in_value = false;
    const auto end_of_line = [&] {
        if (key.starts_with("QOS_EV_") && fields.count(key.substr(7)) == 1)
            fields[key.substr(7)] = value;
        key.clear();
        value.clear();
        in_value = false;
    };
    for (std::size_t i = 0; i < report.size() && i < TEXT_LIMIT; i++) {
        if (report[i] == '\n')
            end_of_line();
        else if (report[i] == '=' && !in_value)
            in_value = true;
        else
            (in_value ? value : key) += report[i];
    }
    // A key that was cut at the limit is not a key.
    const bool cut = report.size() > TEXT_LIMIT && report[TEXT_LIMIT] != '\n';
    if (!cut || in_value)
        end_of_line();
    if (fields["SERIAL_NUM"].empty())
        fields["SERIAL_NUM"] = serial.empty() ? "0" : serial.substr(0, TEXT_LIMIT);
    return fields;
}

std::string padded(const std::string& text, std::size_t width)
{
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

std::string column(const std::string& text, std::size_t width)
{
    return padded(text.substr(0, width), width);
}

std::string number(const std::string& text, std::size_t width)
{
    const long value = std::strtol(text.c_str(), nullptr, 10);
    return padded(std::to_string(static_cast<int>(value)), width);
}

std::string percent(const std::string& text)
{
    std::array<char, 512> digits{};
    std::snprintf(digits.data(), digits.size(), "%.1f", std::strtod(text.c_str(), nullptr));
    return padded(digits.data(), 5);
}

bool plain_fraction(long microseconds)
{
    return microseconds >= 0 && microseconds < 1000000;
}

// ".123" for 123456 microseconds
std::string fraction_text(long microseconds)
{
    std::string digits = std::to_string(1000 + microseconds / 1000);
    digits[0] = '.';
    return digits;
}

// The date must convert back to the same seconds. If the year needs more than four digits, or the
// microseconds more than six, only the width is checked.
void check_time(const std::string& text, long seconds, long microseconds)
{
    expect(text.size() == TIME_WIDTH, "the time has its width");
    if (seconds < 0 || seconds > LAST_FOUR_DIGIT_YEAR || !plain_fraction(microseconds))
        return;
    tm fields{};
    const char* const rest = strptime(text.c_str(), "%Y-%b-%d %H:%M:%S", &fields);
    expect(rest != nullptr && timegm(&fields) == seconds, "the time reads back");
    expect_equal(fraction_text(microseconds) + " +0000", rest, "milliseconds and zone");
}

void check_clock(const std::string& text, long seconds, long microseconds)
{
    expect(text.size() == CLOCK_WIDTH, "the time of day has its width");
    if (seconds < 0 || seconds > LAST_FOUR_DIGIT_YEAR || !plain_fraction(microseconds))
        return;
    tm fields{};
    const char* const rest = strptime(text.c_str(), "%H:%M:%S", &fields);
    expect(rest != nullptr && fields.tm_hour * 3600L + fields.tm_min * 60L + fields.tm_sec ==
                                  seconds % SECONDS_PER_DAY,
           "the time of day reads back");
    expect_equal(fraction_text(microseconds), rest, "milliseconds of the time of day");
}

long number_of(Fields& fields, const std::string& key)
{
    return std::strtol(fields[key].c_str(), nullptr, 10);
}

// The columns that follow the time in both layouts.
std::string common_columns(Fields& fields, const char* near_type)
{
    const std::string word = fields["TYPE"] == near_type ? "near_end" : "far_end";
    return " " + column(fields["GCID"], 9) + " " + column(fields["TID"], 11) + " " +
           column(word, 8) + " " + column(fields["FAR_END_IP"], 15) + " " +
           number(fields["PORT"], 5);
}

// The last columns of both layouts.
std::string last_columns(Fields& fields)
{
    return " " + padded(fields["SSRC"], 10) + " " + column(fields["SERIAL_NUM"], 5) + " " +
           fields["RTCP_CNAME"];
}

void check_session_line(Fields& fields, const std::string& line)
{
    const std::string wanted =
        common_columns(fields, "QOS_NEAREND") + " " + number(fields["PACKETS"], 7) + " " +
        number(fields["LOST_SINCE_LAST_REPORT"], 4) + " " +
        percent(fields["LOST_LOST_SINCE_LAST_REPORT_PERCENT"]) + " " +
        number(fields["JITTER_AVG"], 6) + " " + number(fields["RTT_AVG"], 5) + last_columns(fields);
    expect_equal(wanted, line.substr(TIME_WIDTH), "the columns of a session line");
}

void check_summary_line(Fields& fields, const std::string& line)
{
    const std::string head =
        common_columns(fields, "QOS_EOS_FAREND") + " " + number(fields["DURATION"], 5) + " " +
        number(fields["PACKETS"], 7) + " " + number(fields["LOST"], 4) + " " +
        percent(fields["LOST_PERCENT"]) + " " + number(fields["JITTER_AVG"], 6) + " " +
        number(fields["JITTER_MAX"], 6) + " " + number(fields["RTT_AVG"], 6) + " " +
        number(fields["RTT_MAX"], 6) + " ";
    const std::size_t clocks = TIME_WIDTH + head.size();
    expect_equal(head, line.substr(TIME_WIDTH, head.size()), "the columns of a summary line");
    check_clock(line.substr(clocks, CLOCK_WIDTH), number_of(fields, "FIRST_PACKET_SEC"),
                number_of(fields, "FIRST_PACKET_USEC"));
    check_clock(line.substr(clocks + CLOCK_WIDTH + 1, CLOCK_WIDTH),
                number_of(fields, "LAST_PACKET_SEC"), number_of(fields, "LAST_PACKET_USEC"));
    expect_equal(last_columns(fields), line.substr(clocks + 2 * CLOCK_WIDTH + 1),
                 "the last columns of a summary line");
}

void check_lines(Fields& fields, const QoSPacket& packet)
{
    const std::string line = packet.log_string();
    expect(line.find('\n') == std::string::npos, "a report is one line of the file");
    expect_equal(R"({"message": ")" + line + R"("})", packet.http_log_string(), "the JSON line");
    expect(line.size() > TIME_WIDTH, "a line has its columns");
    check_time(line.substr(0, TIME_WIDTH), number_of(fields, "TIME_STAMP_SEC"),
               number_of(fields, "TIME_STAMP_USEC"));
    if (packet.is_eos())
        check_summary_line(fields, line);
    else
        check_session_line(fields, line);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    setenv("TZ", "UTC0", 1);  // the columns show local time
    tzset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t zero = std::min(input.find('\0'), input.size());
    const std::string report = input.substr(0, zero);
    const std::string rest = input.substr(std::min(zero + 1, input.size()));
    const std::string serial = rest.substr(0, std::min(rest.find('\0'), rest.find('\n')));

    const QoSPacket packet(report.c_str(), serial);
    Fields fields = read_by_hand(report, serial);
    const std::string& type = fields["TYPE"];
    const bool session = type == "QOS_NEAREND" || type == "QOS_FAREND";
    const bool summary = type == "QOS_EOS_NEAREND" || type == "QOS_EOS_FAREND";
    expect(packet.is_not_eos() == session && packet.is_eos() == summary, "the kind of report");
    if (session || summary) {
        check_lines(fields, packet);
    } else {
        expect_equal("", packet.log_string(), "no line for an unknown event");
        expect_equal("", packet.http_log_string(), "no JSON line for an unknown event");
    }
    return 0;
}
