// One simulated call: two media streams, from its begin to its end.
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
    unsigned number;  // from 0, tells the calls apart
    SimTime begin, end;
    SimTime interval;                  // between the reports of a direction
    std::optional<SimTime> silent_at;  // the reported interval around it is without voice
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

    // The reports that have become due. Of an interval without voice the streams have records then.
    // The wall time is that of the run's start.
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
