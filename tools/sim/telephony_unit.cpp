#include "tools/sim/telephony_unit.h"

#include <cinttypes>
#include <cstdio>

#include "tools/common/progress.h"
#include "tools/sim/pacer.h"

namespace {

// The simulation advances by what one voice datagram holds of a stream.
constexpr int RECORDS_PER_DATAGRAM = 5;
constexpr SimTime TICK = MediaStream::PACKET_TIME * RECORDS_PER_DATAGRAM;

// Every third call is without voice for its first seconds.
constexpr unsigned SILENT_CALL = 3;
constexpr SimTime SILENCE = std::chrono::seconds(4);

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

// The calls begin in the first third of the time and end, one after the other, in the last third.
// The bad ones lie as evenly among them as can be and are bad for half of the time that all calls
// share.
CallPlan TelephonyUnit::plan_call(unsigned number)
{
    const SimTime third = _duration / 3;
    CallPlan plan = {.number = number,
                     .begin = third * number / _options.calls,
                     .end = third * 2 + third * (number + 1) / _options.calls,
                     .interval = std::chrono::seconds(_options.interval_s),
                     .silence = number % SILENT_CALL == 0 ? SILENCE : SimTime::zero(),
                     .trouble = {}};
    if (is_bad(number)) {
        const double duration_s = std::chrono::duration<double>(_duration).count();
        plan.trouble = {
            .begin_s = duration_s * 5 / 12, .end_s = duration_s * 8 / 12, .severity = 1};
    }
    return plan;
}

// Of 6 calls with 1 bad one it is number 3, from 0 on; with 2 bad ones, 1 and 4.
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
    play();
    print_summary(stopwatch.seconds_passed());
    return _report_sender.counts().lost() + _voice_sender.counts().lost() == 0;
}

void TelephonyUnit::play()
{
    const auto to_real = [this](SimTime time) {
        return std::chrono::nanoseconds(static_cast<std::int64_t>(
            static_cast<double>(std::chrono::nanoseconds(time).count()) / _options.speed));
    };
    _start = std::chrono::system_clock::now() - _duration +
             std::chrono::duration_cast<SimTime>(to_real(_duration));
    Progress progress;
    const Pacer pacer;
    for (SimTime now = SimTime::zero(); now <= _duration; now += TICK) {
        pacer.wait_until(to_real(now));
        for (Call& call : _calls) {
            send_silence(call, now);
            send_reports(call, now);
        }
        if (progress.is_due())
            progress.show(std::to_string(now / std::chrono::seconds(1)) + " of " +
                          std::to_string(_options.duration_s) + " simulated seconds");
    }
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

void TelephonyUnit::send_silence(Call& call, SimTime now)
{
    if (!call.is_silent(now))
        return;
    for (MediaStream& stream : call.streams()) {
        std::string datagram;
        for (int i = 0; i < RECORDS_PER_DATAGRAM; i++)
            stream.append_silent_packet(datagram, _start + now + i * MediaStream::PACKET_TIME);
        _voice_sender.send(datagram);
        _voice_records += RECORDS_PER_DATAGRAM;
    }
}

void TelephonyUnit::print_summary(double seconds) const
{
    SendCounts counts = _report_sender.counts();
    counts += _voice_sender.counts();
    std::printf("%u simulated seconds of %u calls in %.1f s, to 127.0.0.1 ports %u and %u:\n",
                _options.duration_s, _options.calls, seconds, unsigned{_options.port},
                unsigned{_options.voice_port()});
    std::printf("%8" PRIu64 " session reports\n", _session_reports);
    std::printf("%8" PRIu64 " end-of-session reports\n", _end_of_session_reports);
    std::printf("%8" PRIu64 " voice datagrams with %" PRIu64 " voice records\n",
                _voice_sender.counts().datagrams, _voice_records);
    std::printf("%8" PRIu64 " bytes\n", counts.bytes);
    if (counts.lost() > 0)
        std::printf("%8" PRIu64 " datagrams could not be sent: %" PRIu64 " refused, %" PRIu64
                    " for want of buffers, %" PRIu64 " otherwise\n",
                    counts.lost(), counts.refused, counts.no_buffer, counts.failed);
    if (counts.refused > 0)
        std::printf(
            "nobody listens on one of the ports: is voxstat running, with this qos_port?\n");
}
