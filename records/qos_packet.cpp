#include "records/qos_packet.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/simple_logger.h"
#include "log/utils.h"
#include "records/json_frame.h"

namespace {

// The order of the key table below. A new key takes
// - a row in both lists, and a higher FIELD_COUNT in the header;
// - to be shown, a column in the layouts below and in the headers of filelog/file_logger.cpp; then
//   also in tools/plot/statistics_line.cpp, fleet/schema.sql and fleet/gateway.conf, which take
//   lines apart, in tests/system/conftest.py, tests/system/test_fleet.py, fuzz/fuzz_report.cpp,
//   bench/report_bench.cpp and bench/fleet_capacity.py, which put them together, in the expected
//   lines and sizes of tests/unit, and in the tables of docs/operations.md and the example in
//   README.md;
// - a place in docs/input.md, packaging/voxstat-input.7 and fuzz/report.dict, and, to be sent by
//   the simulator, in tools/sim/media_stream.cpp and tests/system/data/calls.txt.
enum Field : std::size_t {
    TYPE,
    TIME_STAMP_SEC,
    TIME_STAMP_USEC,
    GCID,
    TID,
    FAR_END_IP,
    PORT,
    PACKETS,
    LOST,
    LOST_SINCE_LAST_REPORT,
    LOST_PERCENT,
    LOST_SINCE_LAST_REPORT_PERCENT,
    JITTER_AVG,
    RTT_AVG,
    SSRC,
    RTCP_CNAME,
    SERIAL_NUM,
    DURATION,
    JITTER_MAX,
    RTT_MAX,
    RTT_MIN,
    FIRST_PACKET_SEC,
    FIRST_PACKET_USEC,
    LAST_PACKET_SEC,
    LAST_PACKET_USEC,
    UNKNOWN_KEY,
};

constexpr std::array<std::string_view, UNKNOWN_KEY> KEYS = {
    "QOS_EV_TYPE",
    "QOS_EV_TIME_STAMP_SEC",
    "QOS_EV_TIME_STAMP_USEC",
    "QOS_EV_GCID",
    "QOS_EV_TID",
    "QOS_EV_FAR_END_IP",
    "QOS_EV_PORT",
    "QOS_EV_PACKETS",
    "QOS_EV_LOST",
    "QOS_EV_LOST_SINCE_LAST_REPORT",
    "QOS_EV_LOST_PERCENT",
    "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT",
    "QOS_EV_JITTER_AVG",
    "QOS_EV_RTT_AVG",
    "QOS_EV_SSRC",
    "QOS_EV_RTCP_CNAME",
    "QOS_EV_SERIAL_NUM",
    "QOS_EV_DURATION",
    "QOS_EV_JITTER_MAX",
    "QOS_EV_RTT_MAX",
    "QOS_EV_RTT_MIN",
    "QOS_EV_FIRST_PACKET_SEC",
    "QOS_EV_FIRST_PACKET_USEC",
    "QOS_EV_LAST_PACKET_SEC",
    "QOS_EV_LAST_PACKET_USEC",
};

constexpr std::string_view NEAREND = "QOS_NEAREND";
constexpr std::string_view FAREND = "QOS_FAREND";
constexpr std::string_view EOS_NEAREND = "QOS_EOS_NEAREND";
constexpr std::string_view EOS_FAREND = "QOS_EOS_FAREND";

constexpr const char* NEAR_END_WORD = "near_end";
constexpr const char* FAR_END_WORD = "far_end";

// Where every scan of a report ends.
constexpr std::size_t TEXT_LIMIT = 1023;

// The index of a key, or UNKNOWN_KEY. Senders repeat the order of their keys in every report, so
// the search begins at the key that followed the previous one in the last report.
std::size_t find_key(std::string_view key, std::size_t previous)
{
    thread_local std::array<std::size_t, KEYS.size() + 1> followers{};
    std::size_t& follower = followers[previous];
    if (KEYS[follower] == key)
        return follower;
    const auto* const found = std::find(KEYS.begin(), KEYS.end(), key);
    if (found == KEYS.end())
        return UNKNOWN_KEY;
    return follower = static_cast<std::size_t>(found - KEYS.begin());
}

}  // namespace

QoSPacket::QoSPacket(const char* text, const std::string& serial)
{
    for (auto& field : _fields)
        field[0] = '\0';
    extract_keys(text);
    if (*text_of(SERIAL_NUM) == '\0')
        store(SERIAL_NUM, serial.empty() ? "0" : std::string_view(serial).substr(0, TEXT_LIMIT));
    build_lines();
}

QoSPacket::~QoSPacket()
{
    std::free(_log_string);
    std::free(_http_log_string);
}

void QoSPacket::extract_keys(const char* text)
{
    const std::size_t length = strnlen(text, TEXT_LIMIT + 2);
    const bool cut_in_line = length > TEXT_LIMIT && text[TEXT_LIMIT] != '\n';
    const bool too_long = cut_in_line || length > TEXT_LIMIT + 1;
    std::string_view rest(text, std::min(length, TEXT_LIMIT));
    std::size_t index = UNKNOWN_KEY;
    while (!rest.empty()) {
        const std::size_t line_feed = rest.find('\n');
        const bool last = line_feed == std::string_view::npos;
        extract_line(rest.substr(0, line_feed), last && cut_in_line, index);
        rest.remove_prefix(last ? rest.size() : line_feed + 1);
    }
    if (too_long)
        DBG->Log(DBG_WARN, {"ignoring what follows the first ", std::to_string(TEXT_LIMIT),
                            " characters of a QoS report"});
}

void QoSPacket::extract_line(std::string_view line, bool cut_off, std::size_t& index)
{
    const std::size_t equals = line.find('=');
    const bool has_value = equals != std::string_view::npos;
    // A key that was cut off may look like a shorter one.
    if (line.empty() || (cut_off && !has_value))
        return;
    const std::string_view key = line.substr(0, equals);
    index = find_key(key, index);
    if (index == UNKNOWN_KEY)
        DBG->Log(DBG_WARN, {"ignoring unknown key: ", key});
    else
        store(index, has_value ? line.substr(equals + 1) : "");
}

int QoSPacket::key_to_index(const char* key) const
{
    static_assert(KEYS.size() == FIELD_COUNT);
    return static_cast<int>(find_key(key, UNKNOWN_KEY));
}

// The value has at most TEXT_LIMIT characters, so there is always room for the zero byte.
void QoSPacket::store(std::size_t index, std::string_view value)
{
    static_assert(TEXT_LIMIT < FIELD_SIZE);
    char* const field = _fields[index].data();
    std::memcpy(field, value.data(), value.size());
    field[value.size()] = '\0';
}

bool QoSPacket::has_type(std::string_view type) const
{
    return text_of(TYPE) == type;
}

bool QoSPacket::is_eos() const
{
    return has_type(EOS_FAREND) || has_type(EOS_NEAREND);
}

bool QoSPacket::is_not_eos() const
{
    return has_type(NEAREND) || has_type(FAREND);
}

int QoSPacket::int_of(std::size_t index) const
{
    return std::atoi(text_of(index));
}

double QoSPacket::double_of(std::size_t index) const
{
    return std::atof(text_of(index));
}

timeval QoSPacket::time_of(std::size_t seconds_index, std::size_t microseconds_index) const
{
    // atoll() reads 64 bits even where a long has 32.
    return {.tv_sec = static_cast<time_t>(std::atoll(text_of(seconds_index))),
            .tv_usec =
                static_cast<decltype(timeval::tv_usec)>(std::atoll(text_of(microseconds_index)))};
}

void QoSPacket::build_lines()
{
    if (fmt_log_string() < 0) {  // also for an unknown event: alerts match this text
        DBG->Log(DBG_ERROR, "Failed to allocate _log_string event for QoS packet...");
        return;
    }
    if (asprintf(&_http_log_string, "%s%s%s", json_frame::LINE_START, _log_string,
                 json_frame::LINE_END) < 0) {
        DBG->Log(DBG_ERROR, "Failed to allocate _http_log_string event for QoS packet...");
        _http_log_string = nullptr;
    }
}

int QoSPacket::fmt_log_string()
{
    std::free(_log_string);
    int length = -1;
    if (is_not_eos())
        length = format_session_line();
    else if (is_eos())
        length = format_eos_line();
    else
        DBG->Log(DBG_INFO, {"QoSPacket::fmt_log_string() Ignoring unknown event: ", text_of(TYPE)});
    if (length < 0)
        _log_string = nullptr;  // undefined after a failed asprintf
    return length;
}

int QoSPacket::format_session_line()
{
    Utils::Stamp report_time;
    Utils::t_stamp_tz(time_of(TIME_STAMP_SEC, TIME_STAMP_USEC), report_time);
    return asprintf(&_log_string,
                    "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %7d %4d %5.1f %6d %5d %10s %5.5s %s",
                    report_time.data(), text_of(GCID), text_of(TID),
                    has_type(NEAREND) ? NEAR_END_WORD : FAR_END_WORD, text_of(FAR_END_IP),
                    int_of(PORT), int_of(PACKETS), int_of(LOST_SINCE_LAST_REPORT),
                    double_of(LOST_SINCE_LAST_REPORT_PERCENT), int_of(JITTER_AVG), int_of(RTT_AVG),
                    text_of(SSRC), text_of(SERIAL_NUM), text_of(RTCP_CNAME));
}

int QoSPacket::format_eos_line()
{
    Utils::Stamp report_time, first_packet, last_packet;
    Utils::t_stamp_tz(time_of(TIME_STAMP_SEC, TIME_STAMP_USEC), report_time);
    Utils::t_stamp(time_of(FIRST_PACKET_SEC, FIRST_PACKET_USEC), true, first_packet);
    Utils::t_stamp(time_of(LAST_PACKET_SEC, LAST_PACKET_USEC), true, last_packet);
    // Summaries swap the type words of session reports; readers of the files rely on this.
    return asprintf(&_log_string,
                    "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %5d %7d %4d %5.1f %6d %6d %6d %6d "
                    "%12.12s %12.12s %10s %5.5s %s",
                    report_time.data(), text_of(GCID), text_of(TID),
                    has_type(EOS_FAREND) ? NEAR_END_WORD : FAR_END_WORD, text_of(FAR_END_IP),
                    int_of(PORT), int_of(DURATION), int_of(PACKETS), int_of(LOST),
                    double_of(LOST_PERCENT), int_of(JITTER_AVG), int_of(JITTER_MAX),
                    int_of(RTT_AVG), int_of(RTT_MAX), first_packet.data(), last_packet.data(),
                    text_of(SSRC), text_of(SERIAL_NUM), text_of(RTCP_CNAME));
}
