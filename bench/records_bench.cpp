// What one report or voice record costs on its way to its lines, piece by piece.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "bench/allocations.h"
#include "bench/library_calls.h"
#include "bench/samples.h"
#include "log/utils.h"
#include "records/qos_packet.h"
#include "records/voice_datagram.h"
#include "records/voice_packet.h"

namespace {

constexpr timeval STAMP = {.tv_sec = 1700000000, .tv_usec = 123456};
constexpr const char* TEXT_STAMP = "2023-Nov-14 22:13:20.123 +0000";

void parse_report(benchmark::State& state)
{
    QoSPacket packet(SESSION_REPORT.c_str(), "");
    const AllocationCounter counter(state);
    for (auto _ : state) {
        packet.extract_keys(SESSION_REPORT.c_str());
        benchmark::DoNotOptimize(&packet);
    }
}
BENCHMARK(parse_report);

// A summary has a layout of its own, with two more time stamps.
void format_line(benchmark::State& state, const std::string& report)
{
    QoSPacket packet(report.c_str(), "");
    const AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(packet.fmt_log_string());
}
BENCHMARK_CAPTURE(format_line, session, SESSION_REPORT);
BENCHMARK_CAPTURE(format_line, summary, SESSION_REPORT + "QOS_EV_TYPE=QOS_EOS_NEAREND\n");

void c_library_session_line(benchmark::State& state)
{
    const ReportTexts texts;
    const AllocationCounter counter(state);
    for (auto _ : state)
        std::free(print_session_line(TEXT_STAMP, texts));
}
BENCHMARK(c_library_session_line);

void c_library_json_line(benchmark::State& state)
{
    const ReportTexts texts;
    char* const line = print_session_line(TEXT_STAMP, texts);
    const AllocationCounter counter(state);
    for (auto _ : state)
        std::free(print_json_line(line));
    std::free(line);
}
BENCHMARK(c_library_json_line);

// The floor of a report's way from its text to both lines queued: the C library's calls in it, with
// the conversions that are their arguments.
void c_library_of_one_report(benchmark::State& state)
{
    const ReportTexts texts;
    const AllocationCounter counter(state);
    for (auto _ : state) {
        const std::string report_time = print_report_time(texts);
        char* const line = print_session_line(report_time.c_str(), texts);
        char* const json = print_json_line(line);
        benchmark::DoNotOptimize(json);
        std::free(line);
        std::free(json);
    }
}
BENCHMARK(c_library_of_one_report);

// Text to both lines, and their release: one report but for the queues.
void whole_packet(benchmark::State& state)
{
    const AllocationCounter counter(state);
    for (auto _ : state) {
        const QoSPacket packet(SESSION_REPORT.c_str(), "");
        benchmark::DoNotOptimize(packet.http_log_string());
    }
}
BENCHMARK(whole_packet);

void time_stamp_zone(benchmark::State& state)
{
    const AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(Utils::t_stamp_tz(STAMP));
}
BENCHMARK(time_stamp_zone);

void time_stamp_now(benchmark::State& state)
{
    const AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(Utils::t_stamp());
}
BENCHMARK(time_stamp_now);

void voice_packet(benchmark::State& state)
{
    const auto record = voice_record();
    VoicePacket packet;
    const AllocationCounter counter(state);
    for (auto _ : state) {
        VoiceDatagram datagram(record.data(), record.size());
        int length = 0;
        packet.init_pcap_packet(datagram.next_record(length), length);
        benchmark::DoNotOptimize(packet.get_pcap_packet());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(voice_packet);

}  // namespace
