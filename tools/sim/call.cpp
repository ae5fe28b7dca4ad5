#include "tools/sim/call.h"

#include <algorithm>

namespace {

constexpr std::uint32_t FAR_END_NETWORK = 0xCB007100;  // 203.0.113.0

CallIdentity identity_of(unsigned number)
{
    return {.gcid = "3-" + std::to_string(1016 + number),
            .tid = "2." + std::to_string(117 + number),
            .far_end_address = FAR_END_NETWORK + 5 + number % 250,
            .far_end_port = static_cast<std::uint16_t>(5004 + 2 * number),
            .unit_port = static_cast<std::uint16_t>(16384 + 2 * number)};
}

Trouble half(Trouble trouble)
{
    trouble.severity /= 2;
    return trouble;
}

}  // namespace

Call::Call(const CallPlan& plan, std::mt19937& random)
    : _plan(plan),
      _identity(identity_of(plan.number)), _streams{MediaStream(_identity, CallEnd::NEAR,
                                                                plan.trouble, random),
                                                    MediaStream(_identity, CallEnd::FAR,
                                                                half(plan.trouble), random)},
      // The far end reports half an interval after the near end, as in real calls.
      _next_report{plan.begin + plan.interval, plan.begin + plan.interval * 3 / 2}
{
}

Call::Reports Call::due_reports(SimTime now, WallTime start)
{
    Reports due;
    for (std::size_t i = 0; i < _streams.size(); i++)
        for (; _next_report[i] <= std::min(now, _plan.end); _next_report[i] += _plan.interval) {
            due.session.push_back(
                _streams[i].session_report(_next_report[i], _plan.interval, start));
            if (is_silent(_next_report[i] - _plan.interval, _next_report[i]))
                _streams[i].record_packets(_next_report[i], _plan.interval, start);
        }
    if (now >= _plan.end && !_ended) {
        _ended = true;
        for (const MediaStream& stream : _streams)
            due.end_of_session.push_back(
                stream.end_of_session_report(_plan.begin, _plan.end, start));
    }
    return due;
}

bool Call::is_silent(SimTime begin, SimTime end) const
{
    return _plan.silent_at && begin <= *_plan.silent_at && *_plan.silent_at < end;
}
