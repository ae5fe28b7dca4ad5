// What one report or voice record costs on its way to its lines, piece by piece.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "bench/allocations.h"
#include "bench/samples.h"
#include "log/utils.h"
#include "records/qos_packet.h"
#include "records/voice_datagram.h"
#include "records/voice_packet.h"

namespace {

constexpr timeval STAMP = {.tv_sec = 1700000000, .tv_usec = 123456};
constexpr const char* TEXT_STAMP = "2023-Nov-14 22:13:20.123 +0000";

// The texts of a report, as its fields hold them; volatile, so that they are converted each time.
struct Texts {
    const char* volatile port = "5004";
    const char* volatile packets = "250";
    const char* volatile lost = "2";
    const char* volatile lost_percent = "0.8";
    const char* volatile jitter = "12";
    const char* volatile rtt = "40";
    const char* volatile seconds = "1700000000";
    const char* volatile microseconds = "123456";
};

// The session line as the C library alone makes it.
char* print_session_line(const char* stamp, const Texts& texts)
{
    char* line = nullptr;
    if (asprintf(&line,
                 "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %7d %4d %5.1f %6d %5d %10s %5.5s %s",
                 stamp, "3-1016", "2.117", "near_end", "203.0.113.5", std::atoi(texts.port),
                 std::atoi(texts.packets), std::atoi(texts.lost), std::atof(texts.lost_percent),
                 std::atoi(texts.jitter), std::atoi(texts.rtt), "3735928559", "12345678901",
                 "unit7a") < 0)
        std::abort();
    return line;
}

char* print_json_line(const char* line)
{
    char* json = nullptr;
    if (asprintf(&json, "%s%s%s", R"({"message": ")", line, R"("})") < 0)
        std::abort();
    return json;
}

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
    for (auto _ : state) {
        // fmt_log_string() takes the place of the constructor, which finds no line yet.
        std::free(const_cast<char*>(packet.log_string()));
        benchmark::DoNotOptimize(packet.fmt_log_string());
    }
}
BENCHMARK_CAPTURE(format_line, session, SESSION_REPORT);
BENCHMARK_CAPTURE(format_line, summary, SESSION_REPORT + "QOS_EV_TYPE=QOS_EOS_NEAREND\n");

void c_library_session_line(benchmark::State& state)
{
    const Texts texts;
    const AllocationCounter counter(state);
    for (auto _ : state)
        std::free(print_session_line(TEXT_STAMP, texts));
}
BENCHMARK(c_library_session_line);

void c_library_json_line(benchmark::State& state)
{
    const Texts texts;
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
    const Texts texts;
    const AllocationCounter counter(state);
    for (auto _ : state) {
        const std::string stamp = Utils::t_stamp_tz(
            {.tv_sec = std::atol(texts.seconds), .tv_usec = std::atol(texts.microseconds)});
        char* const line = print_session_line(stamp.c_str(), texts);
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
