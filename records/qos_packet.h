// One QoS report: a datagram of KEY=VALUE lines, and the two lines that are made of it.
//
// Belongs to the thread that built it. Built and destroyed in place for each report; the object
// is large (25 fields of 1024 bytes), so the caller keeps the storage.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

class QoSPacket {
public:
    // Parses a zero-terminated report and builds its lines. serial is the unit's serial number,
    // used when the report carries none; it may be empty and is cut after 1023 characters.
    // Bad input is logged and leaves fields or lines empty, and so does a lack of memory for the
    // lines. Never throws.
    QoSPacket(const char* text, const std::string& serial);
    ~QoSPacket();
    QoSPacket(const QoSPacket&) = delete;
    QoSPacket& operator=(const QoSPacket&) = delete;

    // Fills the fields from the first 1023 characters of the text. Warns when anything but a
    // single line feed follows. Ignores a key that the limit cuts off before its '='.
    void extract_keys(const char* text);

    // 0 to 24 for a known key, 25 for any other. Case-sensitive. A public name, which stays
    // although the daemon does not call it.
    int key_to_index(const char* key) const;

    // True for a session summary, near or far end.
    bool is_eos() const;
    // True for a session report, near or far end. Not !is_eos(): an unknown event is neither, and
    // the writers rely on that.
    bool is_not_eos() const;

    // Builds the statistics line in the layout of the event type, in place of an earlier one.
    // Returns its length in characters, or a negative number for an unknown event or a failed
    // allocation. Called by the constructor.
    int fmt_log_string();

    // The fixed-column statistics line and the JSON object around it, both without a line end;
    // empty when there is none. Valid while the packet exists. The statistics line is not escaped
    // in the JSON object.
    const char* log_string() const { return _log_string != nullptr ? _log_string : ""; }
    const char* http_log_string() const
    {
        return _http_log_string != nullptr ? _http_log_string : "";
    }

private:
    static constexpr std::size_t FIELD_COUNT = 25;  // as many as the key table has rows
    static constexpr std::size_t FIELD_SIZE = 1024;

    void extract_line(std::string_view line, bool cut_off, std::size_t& index);
    void store(std::size_t index, std::string_view value);
    void build_lines();
    int format_session_line();
    int format_eos_line();
    const char* text_of(std::size_t index) const { return _fields[index].data(); }
    int int_of(std::size_t index) const;
    double double_of(std::size_t index) const;
    timeval time_of(std::size_t seconds_index, std::size_t microseconds_index) const;
    bool has_type(std::string_view type) const;

    char* _log_string = nullptr;                                    // from asprintf, owned
    char* _http_log_string = nullptr;                               // from asprintf, owned
    std::array<std::array<char, FIELD_SIZE>, FIELD_COUNT> _fields;  // zero-terminated texts
};
