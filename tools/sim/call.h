// One simulated call with its two streams, from start to end.
//
// Neither copied nor moved: its streams point to its identity.
#pragma once

#include <array>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tools/sim/media_stream.h"

// The times are simulated.
struct CallPlan {
    unsigned number;  // from 0; identifies the call
    SimTime begin, end;
    SimTime interval;                  // between the reports on a stream
    std::optional<SimTime> silent_at;  // the report interval around it carries no voice
    Trouble trouble;                   // of the near end; the far end has half of it
};

class Call {
public:
    struct Reports {
        std::vector<std::string> session, end_of_session;
    };

    Call(const CallPlan& plan, std::mt19937& random);
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Returns the reports that are due, and creates the voice records of an interval without voice.
    // start is the wall time of the start of the run.
    Reports due_reports(SimTime now, WallTime start);

    std::array<MediaStream, 2>& streams() { return _streams; }

private:
    bool is_silent(SimTime begin, SimTime end) const;

    CallPlan _plan;
    CallIdentity _identity;
    std::array<MediaStream, 2> _streams;  // near end, far end
    std::array<SimTime, 2> _next_report;
    bool _ended = false;
};
