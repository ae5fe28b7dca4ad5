// One line of a statistics file (session reports) or session-summary file (end-of-session reports).
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
    double begin_s = 0;      // of the packets that it is about; a session line does not tell
    double end_s = 0;        // it, so both are the time of the report there
    long zone_offset_s = 0;  // of the zone that the line is written in
    bool near_end = false;   // of the stream: a session line says so, a summary the opposite
    Figures figures;

    // Parts of the text that was parsed. The call is GCID and TID as they stand there.
    std::string_view call, gcid, tid, far_end;

    // False when the report had no time stamp: then it is of 1970.
    bool is_dated() const;

    // Reads a line without its line end. The first five columns have fixed places; behind them any
    // number may push the rest to the right. Nothing when the line cannot be read, with the reason.
    static std::optional<StatisticsLine> parse(std::string_view text, const char*& reason);
};

// The kind of file whose column header the line is; nothing when it is none.
std::optional<StatisticsKind> kind_of_header(std::string_view line);
