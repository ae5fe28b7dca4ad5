// What the queues cost the main thread: the log, the file logger and the web client.
//
// The buffers are emptied after every batch, outside the measured time, so that each call finds
// room, as it does in life. The log's and the file logger's own writer threads are stopped first:
// this thread takes their place. The web client's workers go on; they post to /dev/null.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include "bench/allocations.h"
#include "bench/samples.h"
#include "config/config_file.h"
#include "filelog/file_logger.h"
#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "web/web_client.h"

namespace {

// As many as arrive between two passes of the writers at 5,000 reports a second.
constexpr int BATCH = 500;

std::unique_ptr<FileLogger> file_logger;
std::unique_ptr<WebClient> web_client;

void empty_queues()
{
    DBG->dbg_write_file(false, true);
    file_logger->fl_write_file(QOS_STAT, false, true);
    file_logger->fl_write_rtp_dump(false, true);
    web_client->wc_perform();
}

template <typename Step>
void run_batches(benchmark::State& state, Step step)
{
    std::size_t allocated = 0;
    while (state.KeepRunningBatch(BATCH)) {
        const std::size_t before = allocations();
        for (int i = 0; i < BATCH; i++)
            step();
        state.PauseTiming();
        allocated += allocations() - before;
        empty_queues();
        state.ResumeTiming();
    }
    state.counters["new"] =
        benchmark::Counter(static_cast<double>(allocated), benchmark::Counter::kAvgIterations);
}

void log_filtered(benchmark::State& state)
{
    const std::string text = "NetReceiver is listening on port 49999";
    run_batches(state, [&text] { DBG->Log(DBG_DEBUG, text); });
}
BENCHMARK(log_filtered);

void log_buffered(benchmark::State& state)
{
    const std::string text = "NetReceiver is listening on port 49999";
    run_batches(state, [&text] { DBG->Log(DBG_WARN, text); });
}
BENCHMARK(log_buffered);

void queue_report_line(benchmark::State& state)
{
    QoSPacket packet(SESSION_REPORT.c_str(), "");
    run_batches(state, [&packet] { file_logger->FL_Write(&packet); });
}
BENCHMARK(queue_report_line);

void queue_voice_record(benchmark::State& state)
{
    const auto record = voice_record();
    VoicePacket packet;
    packet.init_pcap_packet(record.data(), static_cast<int>(record.size()));
    run_batches(state, [&packet] { file_logger->FL_Write(&packet); });
}
BENCHMARK(queue_voice_record);

void queue_json_line(benchmark::State& state)
{
    QoSPacket packet(SESSION_REPORT.c_str(), "");
    run_batches(state, [&packet] { web_client->WC_Write(&packet); });
}
BENCHMARK(queue_json_line);

// All that the main loop does with one report once it is received.
void text_to_both_lines_queued(benchmark::State& state)
{
    const std::string serial = "12345678";
    run_batches(state, [&serial] {
        QoSPacket packet(SESSION_REPORT.c_str(), serial);
        file_logger->FL_Write(&packet);
        if (!packet.is_eos())
            web_client->WC_Write(&packet);
    });
}
BENCHMARK(text_to_both_lines_queued);

// A configuration whose files lie in the given directory.
std::string write_config(const std::filesystem::path& directory)
{
    std::string name = directory / "bench.cfg";
    std::ofstream(name) << "qos_stat_dir=" << directory.string() << "\n"
                        << "elastic_url=file:///dev/null\n";
    return name;
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;

    std::string directory = std::filesystem::temp_directory_path() / "voxstat-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        std::perror("voxstat-bench");
        return EXIT_FAILURE;
    }
    // The log goes to standard output, so the results take another way out.
    std::ofstream results("/dev/fd/" + std::to_string(dup(STDOUT_FILENO)));
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return EXIT_FAILURE;

    ConfigFile config(write_config(directory), '=');
    DBG->init(&config);
    DBG->dbg_stop();
    file_logger = std::make_unique<FileLogger>(&config);
    file_logger->fl_stop();
    web_client = std::make_unique<WebClient>(&config);

    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
    reporter.SetOutputStream(&results);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);

    web_client.reset();
    file_logger.reset();
    std::filesystem::remove_all(directory);
    return EXIT_SUCCESS;
}
