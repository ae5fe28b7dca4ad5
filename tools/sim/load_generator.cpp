#include "tools/sim/load_generator.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "tools/common/progress.h"
#include "tools/sim/pacer.h"
#include "tools/sim/report_text.h"
#include "tools/sim/voice_record.h"

namespace {

using Clock = std::chrono::system_clock;

constexpr std::size_t REPORT_SIZE = 500;    // longer reports are not padded
constexpr std::size_t SESSION_FIELDS = 11;  // the number in a session report; a summary has all

// With this many digits, the lines of small numbers have the same length, so tests notice a line
// that was joined from two.
constexpr int NAME_DIGITS = 5;

// The RTP stream of the voice records. Sequence number and time stamp follow from the number.
constexpr std::uint32_t SSRC = 0x4C4F4144;  // "LOAD"
constexpr std::uint32_t SAMPLES_PER_PACKET = 160;
constexpr std::size_t SOUND_SIZE = 148;
constexpr std::size_t NUMBER_SIZE = 4;
constexpr char PCMU_SILENCE = '\xFF';

constexpr const char* kind_of(SimOptions::Mode mode)
{
    switch (mode) {
    case SimOptions::Mode::LOAD_EOS:
        return "eos";
    case SimOptions::Mode::LOAD_VOICE:
        return "voice";
    default:
        return "reports";
    }
}

struct Field {
    const char* key;
    const char* value;
};

// The fields besides type, number and time; those of a session report come first. RTT_MIN, which is
// not in any output line, follows and contains the padding.
constexpr Field FIELDS[] = {
    {"GCID", "3-1016"},
    {"TID", "2.117"},
    {"FAR_END_IP", "203.0.113.5"},
    {"PORT", "5004"},
    {"PACKETS", "250"},
    {"LOST_SINCE_LAST_REPORT", "2"},
    {"LOST_LOST_SINCE_LAST_REPORT_PERCENT", "0.8"},
    {"JITTER_AVG", "12"},
    {"RTT_AVG", "40"},
    {"SERIAL_NUM", "12345678"},
    {"LOST", "12"},
    {"DURATION", "95"},
    {"LOST_PERCENT", "0.3"},
    {"JITTER_MAX", "31"},
    {"RTT_MAX", "77"},
    {"FIRST_PACKET_SEC", "1700000000"},
    {"FIRST_PACKET_USEC", "20000"},
    {"LAST_PACKET_SEC", "1700000094"},
    {"LAST_PACKET_USEC", "980000"},
};

}  // namespace

LoadGenerator::LoadGenerator(const SimOptions& options)
    : _options(options),
      _sender(options.mode == SimOptions::Mode::LOAD_VOICE ? options.voice_port() : options.port),
      _sound(SOUND_SIZE, PCMU_SILENCE)
{
}

bool LoadGenerator::run()
{
    const Pacer stopwatch;
    send_all();
    print_summary(stopwatch.seconds_passed());
    return _sender.counts().datagrams == _options.count;
}

void LoadGenerator::send_all()
{
    constexpr std::uint64_t NANOSECONDS = 1000000000;
    // For a signal. Without pauses, each look costs time.
    constexpr std::uint64_t BURSTS_TO_LOOK_AFTER = 256;
    Progress progress;
    const Pacer pacer;
    std::uint32_t done = 0;
    const std::uint64_t look_every = _options.rate != 0 ? 1 : BURSTS_TO_LOOK_AFTER;
    for (std::uint64_t bursts = 0; done < _options.count; bursts++) {
        const std::uint64_t due_ns = _options.rate != 0 ? done * NANOSECONDS / _options.rate : 0;
        if (bursts % look_every == 0 && !pacer.wait_until(std::chrono::nanoseconds(due_ns)))
            return;
        const std::uint32_t datagrams = std::min(_options.burst, _options.count - done);
        send_burst(done, datagrams);
        done += datagrams;
        if (progress.is_due())
            progress.show(std::to_string(done) + " of " + std::to_string(_options.count) +
                          " datagrams");
    }
}

void LoadGenerator::send_burst(std::uint32_t done, std::uint32_t datagrams)
{
    for (std::uint32_t i = 0; i < datagrams; i++) {
        const std::uint32_t number = _options.first + done + i;
        if (_options.mode == SimOptions::Mode::LOAD_VOICE)
            send_voice_record(number);
        else
            send_report(number);
    }
}

void LoadGenerator::send_report(std::uint32_t number)
{
    const bool eos = _options.mode == SimOptions::Mode::LOAD_EOS;
    char name[16];
    const int name_length = std::snprintf(name, sizeof name, "%0*" PRIu32, NAME_DIGITS, number);

    ReportText report;
    report.add("TYPE", eos ? "QOS_EOS_NEAREND" : "QOS_NEAREND");
    report.add("SSRC", number);
    report.add("RTCP_CNAME", std::string_view(name, static_cast<std::size_t>(name_length)));
    report.add_time("TIME_STAMP", Clock::now());
    for (std::size_t i = 0; i < (eos ? std::size(FIELDS) : SESSION_FIELDS); i++)
        report.add(FIELDS[i].key, FIELDS[i].value);
    report.add("RTT_MIN", 20);
    report.pad_last_number(REPORT_SIZE);
    _sender.send(report.text());
}

void LoadGenerator::send_voice_record(std::uint32_t number)
{
    constexpr std::uint32_t UNIT = 0xC0000207;     // 192.0.2.7
    constexpr std::uint32_t FAR_END = 0xCB007105;  // 203.0.113.5
    constexpr std::uint16_t RTP_PORT = 5004;

    for (std::size_t i = 0; i < NUMBER_SIZE; i++)
        _sound[i] = static_cast<char>(number >> (8 * (NUMBER_SIZE - 1 - i)));
    const VoiceRecord record = {.source_address = UNIT,
                                .destination_address = FAR_END,
                                .source_port = RTP_PORT,
                                .destination_port = RTP_PORT,
                                .captured = Clock::now(),
                                .sequence = static_cast<std::uint16_t>(number),
                                .timestamp = number * SAMPLES_PER_PACKET,
                                .ssrc = SSRC};
    _datagram.clear();
    record.append_to(_datagram, _sound);
    _sender.send(_datagram);
}

void LoadGenerator::print_summary(double seconds) const
{
    const SendCounts& counts = _sender.counts();
    std::printf("load=%s first=%" PRIu32 " count=%" PRIu32 " sent=%" PRIu64 " bytes=%" PRIu64
                " refused=%" PRIu64 " no_buffer=%" PRIu64 " failed=%" PRIu64
                " seconds=%.3f per_second=%.0f\n",
                kind_of(_options.mode), _options.first, _options.count, counts.datagrams,
                counts.bytes, counts.refused, counts.no_buffer, counts.failed, seconds,
                static_cast<double>(counts.datagrams) / std::max(seconds, 1e-9));
}
