#include "tools/sim/telephony_unit.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "tools/common/progress.h"
#include "tools/sim/pacer.h"

namespace {

// The simulation advances by the time that one voice datagram covers.
constexpr std::size_t RECORDS_PER_DATAGRAM = 5;
constexpr SimTime TICK = MediaStream::PACKET_TIME * RECORDS_PER_DATAGRAM;

// Every third call carries no voice for an interval, unless the interval is so long that the
// packets of all these calls would not fit into memory.
constexpr unsigned SILENT_CALL = 3;
constexpr SimTime LONGEST_SILENCE = std::chrono::minutes(1);

}  // namespace

TelephonyUnit::TelephonyUnit(const SimOptions& options)
    : _options(options), _duration(std::chrono::seconds(options.duration_s)), _random(options.seed),
      _report_sender(options.port), _voice_sender(options.voice_port())
{
    plan_calls();
}

void TelephonyUnit::plan_calls()
{
    for (unsigned number = 0; number < _options.calls; number++)
        _calls.emplace_back(plan_call(number), _random);
}

// The calls start in the first third of the time and end, one after the other, in the last third.
// The bad ones are spread evenly among them, and are bad for a quarter of the time. A call without
// voice for an interval has it at its start, or when it is worst.
CallPlan TelephonyUnit::plan_call(unsigned number)
{
    const SimTime third = _duration / 3;
    CallPlan plan = {.number = number,
                     .begin = third * number / _options.calls,
                     .end = third * 2 + third * (number + 1) / _options.calls,
                     .interval = std::chrono::seconds(_options.interval_s),
                     .silent_at = {},
                     .trouble = {}};
    SimTime silent_at = plan.begin + plan.interval / 2;
    if (is_bad(number)) {
        const SimTime begin = _duration * 5 / 12;
        const SimTime end = _duration * 8 / 12;
        plan.trouble = {.begin_s = std::chrono::duration<double>(begin).count(),
                        .end_s = std::chrono::duration<double>(end).count(),
                        .severity = 1};
        silent_at = (begin + end) / 2;
    }
    if (number % SILENT_CALL == 0 && plan.interval <= LONGEST_SILENCE)
        plan.silent_at = silent_at;
    return plan;
}

// Of 6 calls from 0 to 5, number 3 is bad if there is 1 bad call; 1 and 4 if there are 2.
bool TelephonyUnit::is_bad(unsigned number) const
{
    const auto bad_before = [this](unsigned calls) {
        return (2 * _options.bad * calls + _options.calls - 1) / (2 * _options.calls);
    };
    return bad_before(number + 1) > bad_before(number);
}

bool TelephonyUnit::run()
{
    const Pacer stopwatch;
    const SimTime played = play();
    print_summary(played, stopwatch.seconds_passed());
    return played == _duration &&
           _report_sender.counts().lost() + _voice_sender.counts().lost() == 0;
}

SimTime TelephonyUnit::play()
{
    const auto to_real = [this](SimTime time) {
        return std::chrono::nanoseconds(static_cast<std::int64_t>(
            static_cast<double>(std::chrono::nanoseconds(time).count()) / _options.speed));
    };
    _start = std::chrono::system_clock::now() - _duration +
             std::chrono::duration_cast<SimTime>(to_real(_duration));
    Progress progress;
    const Pacer pacer;
    // Records follow their report, possibly the last one.
    for (SimTime now = SimTime::zero(); now <= _duration || has_records_left(); now += TICK) {
        if (!pacer.wait_until(to_real(now)))
            return now;
        for (Call& call : _calls) {
            send_reports(call, now);
            send_records(call);
        }
        if (progress.is_due())
            progress.show(std::to_string(now / std::chrono::seconds(1)) + " of " +
                          std::to_string(_options.duration_s) + " simulated seconds");
    }
    return _duration;
}

bool TelephonyUnit::has_records_left()
{
    return std::any_of(_calls.begin(), _calls.end(), [](Call& call) {
        return std::any_of(call.streams().begin(), call.streams().end(),
                           [](const MediaStream& stream) { return stream.records_left() > 0; });
    });
}

void TelephonyUnit::send_reports(Call& call, SimTime now)
{
    const Call::Reports due = call.due_reports(now, _start);
    for (const std::string& report : due.session)
        _report_sender.send(report);
    for (const std::string& report : due.end_of_session)
        _report_sender.send(report);
    _session_reports += due.session.size();
    _end_of_session_reports += due.end_of_session.size();
}

void TelephonyUnit::send_records(Call& call)
{
    for (MediaStream& stream : call.streams()) {
        const std::size_t left = stream.records_left();
        if (left == 0)
            continue;
        _voice_sender.send(stream.next_voice_datagram(RECORDS_PER_DATAGRAM));
        _voice_records += left - stream.records_left();
    }
}

void TelephonyUnit::print_summary(SimTime played, double seconds) const
{
    SendCounts counts = _report_sender.counts();
    counts += _voice_sender.counts();
    if (played != _duration)
        std::printf("stopped after %lld of ",
                    static_cast<long long>(played / std::chrono::seconds(1)));
    std::printf("%u simulated seconds of %u calls in %.1f s, to 127.0.0.1 ports %u and %u:\n",
                _options.duration_s, _options.calls, seconds, unsigned{_options.port},
                unsigned{_options.voice_port()});
    std::printf("%8" PRIu64 " session reports\n", _session_reports);
    std::printf("%8" PRIu64 " session summaries\n", _end_of_session_reports);
    std::printf("%8" PRIu64 " voice datagrams with %" PRIu64 " voice records\n",
                _voice_sender.counts().datagrams, _voice_records);
    std::printf("%8" PRIu64 " bytes\n", counts.bytes);
    if (counts.lost() > 0)
        std::printf("%8" PRIu64 " datagrams could not be sent: %" PRIu64 " refused, %" PRIu64
                    " for lack of buffers, %" PRIu64 " for other reasons\n",
                    counts.lost(), counts.refused, counts.no_buffer, counts.failed);
    if (counts.refused > 0)
        std::printf(
            "no program listens on one of the ports: is voxstat running with this qos_port?\n");
}
