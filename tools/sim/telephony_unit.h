// Simulates a unit with several calls, faster than real time, up to the current time.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>

#include "tools/sim/call.h"
#include "tools/sim/sim_options.h"
#include "tools/sim/udp_sender.h"

class TelephonyUnit {
public:
    // Plans the calls. Throws std::system_error if no socket can be opened.
    explicit TelephonyUnit(const SimOptions& options);

    // Simulates them and prints what it has sent, even if a signal stops it. Returns true if
    // everything was sent.
    bool run();

private:
    void plan_calls();
    CallPlan plan_call(unsigned number);
    bool is_bad(unsigned number) const;
    SimTime play();  // returns the simulated time
    bool has_records_left();
    void send_reports(Call& call, SimTime now);
    void send_records(Call& call);
    void print_summary(SimTime played, double seconds) const;

    SimOptions _options;
    SimTime _duration;
    WallTime _start;  // of the simulated time
    std::mt19937 _random;
    std::deque<Call> _calls;  // a Call cannot be moved
    UdpSender _report_sender, _voice_sender;
    std::uint64_t _session_reports = 0, _end_of_session_reports = 0, _voice_records = 0;
};
