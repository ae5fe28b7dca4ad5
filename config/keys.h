// Every key of the configuration file: its kind, default, unit and range.
//
// This is the only place that defines defaults. The constructors read a key through its entry, and
// voxstat-check checks a file against the same table. The daemon does not check ranges: they are
// the values that make sense.
#pragma once

#include <array>
#include <climits>
#include <string>

#include "config/key_value_parser.h"

namespace keys {

enum class Kind {
    NUMBER,     // decimal integer
    SWITCH,     // number: 0 is off, any other is on
    LEVEL,      // number: most verbose log level; one outside the range counts as the default
    PATH,       // text: path of a file
    DIRECTORY,  // text: path of a directory
    FILE_NAME,  // text: name of a file, without directory and extension
    URL,        // text
};

struct Key {
    const char* name;
    Kind kind;
    int number;        // default, if the kind is a number
    int min, max;      // range, if the kind is a number
    const char* text;  // default, if the kind is a text; empty means unset
    const char* unit;

    constexpr bool is_number() const { return kind <= Kind::LEVEL; }

    // The range of a number, as "0 to 4" or "1024 or more".
    std::string range() const
    {
        return std::to_string(min) +
               (max == INT_MAX ? std::string(" or more") : " to " + std::to_string(max));
    }

    // The value of this key in a file that was read, or the default if the file does not have it.
    int number_in(const KeyValueParser& file) const { return file.getIntValue(name, number); }
    std::string text_in(const KeyValueParser& file) const
    {
        return file.getStringValue(name, text);
    }
};

constexpr Key number_key(const char* name, int number, int min, int max, const char* unit)
{
    return {name, Kind::NUMBER, number, min, max, "", unit};
}

constexpr Key level_key(const char* name)
{
    return {name, Kind::LEVEL, 1, 0, 4, "", "level"};
}

constexpr Key text_key(const char* name, Kind kind, const char* text, const char* unit)
{
    return {name, kind, 0, 0, 0, text, unit};
}

inline constexpr Key QOS_PORT = number_key("qos_port", 49999, 1, 65534, "port number");
inline constexpr Key SN_FILE_PATH =
    text_key("sn_file_path", Kind::PATH, "/etc/zk-T/activation/sn", "path");

inline constexpr Key QOS_STAT_DIR =
    text_key("qos_stat_dir", Kind::DIRECTORY, "/home/build/zkhome/QoS/", "path");
inline constexpr Key QOS_FILE_NAME =
    text_key("qos_file_name", Kind::FILE_NAME, "QoS_Stat", "name without .txt");
inline constexpr Key QOS_FILE_NAME_EOS = text_key("qos_file_name_eos", Kind::FILE_NAME,
                                                  "QoS_Stat_Sessions_Summary", "name without .txt");

inline constexpr Key RTP_LOGGING = {"rtp_logging", Kind::SWITCH, 1, 0, 1, "", "switch"};
inline constexpr Key RTP_DUMP_FILE_NAME =
    text_key("rtp_dump_file_name", Kind::FILE_NAME, "RTP_Streams_No_Voice", "name without .pcap");
inline constexpr Key MAX_BUF_TIMEOUT_RTP =
    number_key("max_buf_timeout_rtp", 30, 0, INT_MAX, "seconds");
inline constexpr Key MAX_LENGTH_PER_SEC_RTP =
    number_key("max_length_per_sec_rtp", 10485760, 0, INT_MAX, "bytes");
// The daemon writes blocks of 1024 bytes: a smaller limit turns every block or two into an archive.
inline constexpr Key MAX_FILE_SIZE_RTP =
    number_key("max_file_size_rtp", 52428800, 1024, INT_MAX, "bytes");
inline constexpr Key MAX_ARCHIVED_FILES_RTP =
    number_key("max_archived_files_rtp", 20, 0, INT_MAX, "files");

inline constexpr Key ELASTIC_URL = text_key("elastic_url", Kind::URL, "", "URL");

inline constexpr Key LOG_FILE = text_key("log.file", Kind::FILE_NAME, "", "name without .log");
inline constexpr Key LOG_DEFAULT = level_key("log.default");
inline constexpr Key LOG_NETWORK = level_key("log.network");
inline constexpr Key LOG_HTTP = level_key("log.http");

// In the order of the packaged configuration.
inline constexpr std::array ALL = {
    QOS_PORT,
    SN_FILE_PATH,
    QOS_STAT_DIR,
    QOS_FILE_NAME,
    QOS_FILE_NAME_EOS,
    RTP_LOGGING,
    RTP_DUMP_FILE_NAME,
    MAX_BUF_TIMEOUT_RTP,
    MAX_LENGTH_PER_SEC_RTP,
    MAX_FILE_SIZE_RTP,
    MAX_ARCHIVED_FILES_RTP,
    ELASTIC_URL,
    LOG_FILE,
    LOG_DEFAULT,
    LOG_NETWORK,
    LOG_HTTP,
};

}  // namespace keys
