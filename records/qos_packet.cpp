#include "records/qos_packet.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/simple_logger.h"
#include "log/utils.h"

namespace {

// The order of the key table below.
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

// Length, first and last letter behind the common prefix tell all keys apart: they choose a slot,
// and one comparison then settles whether a text is the key in that slot.
constexpr std::size_t KEY_PREFIX_LENGTH = std::string_view("QOS_EV_").size();
constexpr std::size_t SLOT_COUNT = 64;

// The text must be longer than the prefix. The factors are chosen so that no two keys collide.
constexpr std::size_t slot_of(std::string_view key)
{
    const std::size_t first = static_cast<unsigned char>(key[KEY_PREFIX_LENGTH]);
    const std::size_t last = static_cast<unsigned char>(key.back());
    return (2 * key.size() + 3 * first + last) % SLOT_COUNT;
}

constexpr std::array<std::uint8_t, SLOT_COUNT> key_slots()
{
    std::array<std::uint8_t, SLOT_COUNT> slots{};
    slots.fill(UNKNOWN_KEY);
    for (std::size_t index = 0; index < KEYS.size(); index++)
        slots[slot_of(KEYS[index])] = static_cast<std::uint8_t>(index);
    return slots;
}
constexpr std::array<std::uint8_t, SLOT_COUNT> KEY_SLOTS = key_slots();

constexpr bool every_key_has_its_slot()
{
    for (std::size_t index = 0; index < KEYS.size(); index++)
        if (KEY_SLOTS[slot_of(KEYS[index])] != index)
            return false;
    return true;
}
static_assert(every_key_has_its_slot());

constexpr char NEAREND[] = "QOS_NEAREND";
constexpr char FAREND[] = "QOS_FAREND";
constexpr char EOS_NEAREND[] = "QOS_EOS_NEAREND";
constexpr char EOS_FAREND[] = "QOS_EOS_FAREND";

constexpr const char* NEAR_END_WORD = "near_end";
constexpr const char* FAR_END_WORD = "far_end";

// Where every scan of a report ends.
constexpr std::size_t TEXT_LIMIT = 1023;

std::uint64_t word_at(const char* text)
{
    std::uint64_t word = 0;
    std::memcpy(&word, text, sizeof word);
    return word;
}

// Whether two texts of one length, a word or more, are the same. They are so short that calling
// memcmp would cost more than comparing them.
bool same_text(const char* a, const char* b, std::size_t length)
{
    constexpr std::size_t WORD = sizeof(std::uint64_t);
    for (std::size_t offset = 0; offset + WORD < length; offset += WORD)
        if (word_at(a + offset) != word_at(b + offset))
            return false;
    return word_at(a + length - WORD) == word_at(b + length - WORD);
}

// The index of a key, or UNKNOWN_KEY.
inline std::size_t find_key(std::string_view key)
{
    if (key.size() <= KEY_PREFIX_LENGTH)
        return UNKNOWN_KEY;
    const std::size_t index = KEY_SLOTS[slot_of(key)];
    const bool found = index != UNKNOWN_KEY && KEYS[index].size() == key.size() &&
                       same_text(KEYS[index].data(), key.data(), key.size());
    return found ? index : std::size_t{UNKNOWN_KEY};
}

// Cold: inlined, it would keep the compiler from inlining the rest of the parsing.
[[gnu::cold]] void ignore_key(std::string_view key)
{
    if (DBG->log_passes(DBG_WARN))
        DBG->Log(DBG_WARN, "ignoring unknown key: " + std::string(key));
}

}  // namespace

QoSPacket::QoSPacket(const char* text, const std::string& serial)
{
    for (auto& field : _fields)
        field[0] = '\0';
    extract_keys(text);
    if (*text_of(SERIAL_NUM) == '\0') {
        const std::string_view number = serial.empty() ? "0" : std::string_view(serial);
        store(SERIAL_NUM, number, std::min(number.size(), TEXT_LIMIT));
    }
    build_lines();
}

QoSPacket::~QoSPacket()
{
    std::free(_log_string);
    std::free(_http_log_string);
}

void QoSPacket::extract_keys(const char* text)
{
    const std::size_t length = strnlen(text, TEXT_LIMIT + 1);
    const bool too_long = length > TEXT_LIMIT;
    const bool cut_in_line = too_long && text[TEXT_LIMIT] != '\n';
    std::string_view rest(text, std::min(length, TEXT_LIMIT));
    while (!rest.empty()) {
        const std::size_t line_feed = rest.find('\n');
        const bool last = line_feed == std::string_view::npos;
        const std::size_t line_length = last ? rest.size() : line_feed;
        extract_line(rest, line_length, last && cut_in_line);
        rest.remove_prefix(last ? line_length : line_length + 1);
    }
    if (too_long && DBG->log_passes(DBG_WARN))
        DBG->Log(DBG_WARN, "ignoring what follows the first " + std::to_string(TEXT_LIMIT) +
                               " characters of a QoS report");
}

// The line is the first length characters of the text.
void QoSPacket::extract_line(std::string_view text, std::size_t length, bool cut_off)
{
    const std::string_view line = text.substr(0, length);
    const std::size_t equals = line.find('=');
    const bool has_value = equals != std::string_view::npos;
    // A key that was cut off may look like a shorter one.
    if (line.empty() || (cut_off && !has_value))
        return;
    const std::string_view key = line.substr(0, equals);
    const std::size_t index = find_key(key);
    if (index == UNKNOWN_KEY)
        ignore_key(key);
    else if (has_value)
        store(index, text.substr(equals + 1), length - equals - 1);
    else
        store(index, "", 0);
}

int QoSPacket::key_to_index(const char* key) const
{
    return static_cast<int>(find_key(key));
}

// The value is the first length characters of the text, at most TEXT_LIMIT, so that the zero byte
// always has its place. Most values are short: copied as one block, together with whatever follows
// them, they need no call.
void QoSPacket::store(std::size_t index, std::string_view text, std::size_t length)
{
    constexpr std::size_t BLOCK = 16;
    static_assert(BLOCK < FIELD_SIZE && TEXT_LIMIT < FIELD_SIZE);
    char* const field = _fields[index].data();
    if (length <= BLOCK && BLOCK <= text.size())
        std::memcpy(field, text.data(), BLOCK);
    else
        std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

// Compares the zero byte too. Of a known size, it needs no call, and a report is asked seven times.
template <std::size_t SIZE>
bool QoSPacket::has_type(const char (&type)[SIZE]) const
{
    static_assert(SIZE <= FIELD_SIZE);
    return std::memcmp(text_of(TYPE), type, SIZE) == 0;
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
    return {.tv_sec = std::atol(text_of(seconds_index)),
            .tv_usec = std::atol(text_of(microseconds_index))};
}

void QoSPacket::build_lines()
{
    if (fmt_log_string() < 0) {
        DBG->Log(DBG_ERROR, "Failed to allocate _log_string event for QoS packet...");
        return;
    }
    if (asprintf(&_http_log_string, "%s%s%s", R"({"message": ")", _log_string, R"("})") < 0) {
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
    else if (DBG->log_passes(DBG_INFO))
        DBG->Log(DBG_INFO, std::string("QoSPacket::fmt_log_string() Ignoring unknown event: ") +
                               text_of(TYPE));
    if (length < 0)
        _log_string = nullptr;  // undefined after a failed asprintf
    return length;
}

int QoSPacket::format_session_line()
{
    const std::string report_time = Utils::t_stamp_tz(time_of(TIME_STAMP_SEC, TIME_STAMP_USEC));
    return asprintf(&_log_string,
                    "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %7d %4d %5.1f %6d %5d %10s %5.5s %s",
                    report_time.c_str(), text_of(GCID), text_of(TID),
                    has_type(NEAREND) ? NEAR_END_WORD : FAR_END_WORD, text_of(FAR_END_IP),
                    int_of(PORT), int_of(PACKETS), int_of(LOST_SINCE_LAST_REPORT),
                    double_of(LOST_SINCE_LAST_REPORT_PERCENT), int_of(JITTER_AVG), int_of(RTT_AVG),
                    text_of(SSRC), text_of(SERIAL_NUM), text_of(RTCP_CNAME));
}

int QoSPacket::format_eos_line()
{
    const std::string report_time = Utils::t_stamp_tz(time_of(TIME_STAMP_SEC, TIME_STAMP_USEC));
    const std::string first_packet =
        Utils::t_stamp(time_of(FIRST_PACKET_SEC, FIRST_PACKET_USEC), true);
    const std::string last_packet =
        Utils::t_stamp(time_of(LAST_PACKET_SEC, LAST_PACKET_USEC), true);
    // Summaries pair the type word the other way round than session reports; readers of the
    // files rely on it.
    return asprintf(&_log_string,
                    "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %5d %7d %4d %5.1f %6d %6d %6d %6d "
                    "%12.12s %12.12s %10s %5.5s %s",
                    report_time.c_str(), text_of(GCID), text_of(TID),
                    has_type(EOS_FAREND) ? NEAR_END_WORD : FAR_END_WORD, text_of(FAR_END_IP),
                    int_of(PORT), int_of(DURATION), int_of(PACKETS), int_of(LOST),
                    double_of(LOST_PERCENT), int_of(JITTER_AVG), int_of(JITTER_MAX),
                    int_of(RTT_AVG), int_of(RTT_MAX), first_packet.c_str(), last_packet.c_str(),
                    text_of(SSRC), text_of(SERIAL_NUM), text_of(RTCP_CNAME));
}
