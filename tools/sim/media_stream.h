// One direction of a simulated call: its RTP stream, and the reports about it.
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

// What both directions of a call have in common.
struct CallIdentity {
    std::string gcid, tid;
    std::uint32_t far_end_address;  // host order
    std::uint16_t far_end_port, unit_port;
};

class MediaStream {
public:
    static constexpr std::chrono::milliseconds PACKET_TIME{20};

    // The identity is the call's and must outlive the stream, as must the random generator.
    MediaStream(const CallIdentity& call, CallEnd end, const Trouble& trouble,
                std::mt19937& random);

    // Measures the interval that ends now, and reports it. The wall time is that of the run's
    // start.
    std::string session_report(SimTime now, SimTime interval, WallTime start);

    // Sums up what the session reports said of the time from begin to end.
    std::string end_of_session_report(SimTime begin, SimTime end, WallTime start) const;

    // Makes voice records of the packets of the interval that the last session report was of. They
    // show the loss and the jitter that it stated.
    void record_packets(SimTime now, SimTime interval, WallTime start);

    // The next of these records that were not taken yet, so many at most; empty if there are none.
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
    std::deque<VoiceRecord> _records;  // not taken yet
    long _lost = 0, _last_lost = 0;    // the latter in the last report
    long _last_jitter_ms = 0;
    Figure _jitter, _round_trip;
};
