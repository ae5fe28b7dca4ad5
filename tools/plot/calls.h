// The reports, grouped into calls.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/plot/quality.h"

// A session report, kept small because a picture may contain millions.
struct Sample {
    double time_s;
    float loss_percent, jitter, round_trip, rating;
};

// A session summary.
struct Stream {
    bool near_end;
    double begin_s, end_s;
    std::string far_end;
    Figures figures;
    Quality quality;
};

struct Call {
    std::string gcid, tid, far_end;  // printable; the far end of the first report
    double begin_s = 0, end_s = 0;
    long zone_offset_s = 0;
    Quality quality;
    double severity = 0;

    // The reports, for a picture; in the order of time, the near end's streams first.
    std::vector<Sample> near_samples, far_samples;
    std::vector<Stream> streams;

    bool is_bad() const { return severity >= 1; }
};

class CallBook {
public:
    // With reports, or for less memory without them.
    explicit CallBook(bool with_reports) : _with_reports(with_reports) {}

    void take(const StatisticsLine& line, double rating);
    std::size_t reports() const { return _reports; }

    // Returns the calls and forgets them. Equally bad ones are in the order of their names.
    std::vector<Call> worst_first(const Thresholds& thresholds);

private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };

    bool _with_reports;
    std::size_t _reports = 0;
    std::unordered_map<std::string, Call, Hash, std::equal_to<>> _by_name;
};

// A figure of a report, with so many decimals unless it is huge.
std::string figure(double value, int decimals = 0);

// "bad calls: 2 of 6 (thresholds: loss 1 %, jitter 30 ms, round trip 300 ms)". The unit starts with
// a space.
std::string bad_calls_text(const std::vector<Call>& calls, const Thresholds& thresholds,
                           const std::string& unit);
