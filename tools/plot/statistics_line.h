// One line of a statistics file (session reports) or session-summary file (session summaries).
#pragma once

#include <optional>
#include <string_view>

enum class StatisticsKind { SESSION, SUMMARY };

struct Figures {
    double loss_percent = 0;
    double jitter = 0, round_trip = 0;          // averages
    double jitter_max = 0, round_trip_max = 0;  // 0 in a session line
};

struct StatisticsLine {
    StatisticsKind kind = StatisticsKind::SESSION;
    double time_s = 0;       // of the report, since the epoch
    double begin_s = 0;      // of the packets; a session line does not contain it
    double end_s = 0;        // so there both are the time of the report
    long zone_offset_s = 0;  // of the time zone of the line
    bool near_end = false;   // of the stream; a summary line contains the opposite word
    Figures figures;

    // Parts of the parsed text. The call is GCID and TID as in the line.
    std::string_view call, gcid, tid, far_end;

    // False if the report had no time stamp: the daemon then writes 1970.
    bool is_dated() const;

    // Parses a line without its line feed. The first five columns have fixed positions; after them,
    // a wide number moves the rest to the right. If the line cannot be read, returns nothing and
    // sets the reason.
    static std::optional<StatisticsLine> parse(std::string_view text, const char*& reason);
};

// The kind of file with this column header; nothing if the line is not a header.
std::optional<StatisticsKind> kind_of_header(std::string_view line);
