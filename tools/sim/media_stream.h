// One stream of a simulated call, and the reports on it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string>

#include "tools/sim/line_quality.h"
#include "tools/sim/report_text.h"
#include "tools/sim/voice_record.h"

using SimTime = std::chrono::microseconds;  // since the start of the run
using WallTime = std::chrono::system_clock::time_point;

enum class CallEnd { NEAR, FAR };

// What both streams of a call have in common.
struct CallIdentity {
    std::string gcid, tid;
    std::uint32_t far_end_address;  // host order
    std::uint16_t far_end_port, unit_port;
};

class MediaStream {
public:
    static constexpr std::chrono::milliseconds PACKET_TIME{20};

    // The identity is the call's. It and the random generator must outlive the stream.
    MediaStream(const CallIdentity& call, CallEnd end, const Trouble& trouble,
                std::mt19937& random);

    // Measures the interval that ends now, and returns the report on it. start is the wall time of
    // the start of the run.
    std::string session_report(SimTime now, SimTime interval, WallTime start);

    // Summarises the session reports on the time from begin to end.
    std::string end_of_session_report(SimTime begin, SimTime end, WallTime start) const;

    // Creates the voice records of the interval of the last session report. They have the loss and
    // the jitter of that report.
    void record_packets(SimTime now, SimTime interval, WallTime start);

    // Removes up to this many of these records and returns them as a datagram; empty if none are
    // left.
    std::string next_voice_datagram(std::size_t records);

    std::size_t records_left() const { return _records.size(); }

private:
    struct Figure {
        long sum = 0, maximum = 0, minimum = 0, count = 0;

        void add(long value);
        long average() const { return count == 0 ? 0 : sum / count; }
    };

    VoiceRecord voice_record() const;
    void add_identity(ReportText& report) const;

    const CallIdentity* _call;
    CallEnd _end;
    LineQuality _quality;
    std::uint32_t _ssrc;
    std::uint16_t _sequence;
    std::uint32_t _timestamp;
    std::deque<VoiceRecord> _records;  // not sent yet
    long _lost = 0, _last_lost = 0;    // in total, and in the last report
    long _last_jitter_ms = 0;
    Figure _jitter, _round_trip;
};
