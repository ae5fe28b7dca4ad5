#include "tools/sim/media_stream.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "tools/sim/arrivals.h"

namespace {

constexpr std::uint32_t UNIT_ADDRESS = 0xC0000207;  // 192.0.2.7
constexpr std::uint32_t SAMPLES_PER_PACKET = 160;

std::string dotted(std::uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
           std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

// A packet of a line without voice: one period of a quiet hum of 50 Hz. For samples this small,
// PCMU codes count down from 255 for positive and from 127 for negative samples.
std::string hum()
{
    constexpr double STEPS = 15;
    std::string sound;
    for (std::uint32_t i = 0; i < SAMPLES_PER_PACKET; i++) {
        const long level =
            std::lround(STEPS * std::sin(2 * std::numbers::pi * i / SAMPLES_PER_PACKET));
        sound += static_cast<char>(level >= 0 ? 255 - level : 127 + level);
    }
    return sound;
}

double percent(long part, long whole)
{
    return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

double seconds(SimTime time)
{
    return std::chrono::duration<double>(time).count();
}

}  // namespace

void MediaStream::Figure::add(long value)
{
    maximum = std::max(maximum, value);
    minimum = count == 0 ? value : std::min(minimum, value);
    sum += value;
    count++;
}

MediaStream::MediaStream(const CallIdentity& call, CallEnd end, const Trouble& trouble,
                         std::mt19937& random)
    : _call(&call), _end(end), _quality(random, trouble),
      _ssrc(static_cast<std::uint32_t>(random())), _sequence(static_cast<std::uint16_t>(random())),
      _timestamp(static_cast<std::uint32_t>(random()))
{
}

std::string MediaStream::session_report(SimTime now, SimTime interval, WallTime start)
{
    const QualitySample sample = _quality.at(seconds(now));
    const long packets = static_cast<long>(interval / PACKET_TIME);
    const long lost =
        std::lround(static_cast<double>(packets) * std::min(sample.loss_percent, 100.0) / 100);
    const long jitter = std::lround(sample.jitter_ms);
    const long round_trip = std::lround(sample.round_trip_ms);
    _lost += lost;
    _last_lost = lost;
    _last_jitter_ms = jitter;
    _jitter.add(jitter);
    _round_trip.add(round_trip);

    ReportText report;
    report.add("TYPE", _end == CallEnd::NEAR ? "QOS_NEAREND" : "QOS_FAREND");
    report.add_time("TIME_STAMP", start + now);
    add_identity(report);
    report.add("PACKETS", packets);
    report.add("LOST_SINCE_LAST_REPORT", lost);
    report.add_decimal("LOST_LOST_SINCE_LAST_REPORT_PERCENT", percent(lost, packets));
    report.add("JITTER_AVG", jitter);
    report.add("RTT_AVG", round_trip);
    return std::string(report.text());
}

std::string MediaStream::end_of_session_report(SimTime begin, SimTime end, WallTime start) const
{
    const long packets = static_cast<long>((end - begin) / PACKET_TIME);

    ReportText report;
    report.add("TYPE", _end == CallEnd::NEAR ? "QOS_EOS_NEAREND" : "QOS_EOS_FAREND");
    report.add_time("TIME_STAMP", start + end);
    add_identity(report);
    report.add("DURATION", std::lround(seconds(end - begin)));
    report.add("PACKETS", packets);
    report.add("LOST", _lost);
    report.add_decimal("LOST_PERCENT", percent(_lost, packets));
    report.add("JITTER_AVG", _jitter.average());
    report.add("JITTER_MAX", _jitter.maximum);
    report.add("RTT_AVG", _round_trip.average());
    report.add("RTT_MAX", _round_trip.maximum);
    report.add("RTT_MIN", _round_trip.minimum);
    report.add_time("FIRST_PACKET", start + begin);
    report.add_time("LAST_PACKET", start + end - PACKET_TIME);
    return std::string(report.text());
}

void MediaStream::record_packets(SimTime now, SimTime interval, WallTime start)
{
    const auto packets = static_cast<std::size_t>(interval / PACKET_TIME);
    for (const Arrival& each :
         arrivals_with(packets, static_cast<std::size_t>(_last_lost),
                       static_cast<double>(_last_jitter_ms), PACKET_TIME, _ssrc)) {
        VoiceRecord record = voice_record();
        record.captured = start + (now - interval) + each.time;
        record.sequence = static_cast<std::uint16_t>(_sequence + each.packet);
        record.timestamp =
            _timestamp + SAMPLES_PER_PACKET * static_cast<std::uint32_t>(each.packet);
        _records.push_back(record);
    }
    _sequence = static_cast<std::uint16_t>(_sequence + packets);
    _timestamp += SAMPLES_PER_PACKET * static_cast<std::uint32_t>(packets);
}

std::string MediaStream::next_voice_datagram(std::size_t records)
{
    static const std::string sound = hum();
    std::string datagram;
    for (; records > 0 && !_records.empty(); records--) {
        _records.front().append_to(datagram, sound);
        _records.pop_front();
    }
    return datagram;
}

VoiceRecord MediaStream::voice_record() const
{
    VoiceRecord record;
    record.source_address = UNIT_ADDRESS;
    record.destination_address = _call->far_end_address;
    record.source_port = _call->unit_port;
    record.destination_port = _call->far_end_port;
    record.ssrc = _ssrc;
    if (_end == CallEnd::FAR) {  // sent by the far end
        std::swap(record.source_address, record.destination_address);
        std::swap(record.source_port, record.destination_port);
    }
    return record;
}

void MediaStream::add_identity(ReportText& report) const
{
    report.add("GCID", _call->gcid);
    report.add("TID", _call->tid);
    report.add("FAR_END_IP", dotted(_call->far_end_address));
    report.add("PORT", _call->far_end_port);
    report.add("SSRC", _ssrc);
    report.add("RTCP_CNAME", "unit7@" + dotted(UNIT_ADDRESS));
}
