// Measures parsing a report and queueing its line and its JSON object, and the C library's calls
// that this needs.
//
// The buffers are emptied after every batch, outside the measured time, so that each call finds
// room, as in practice. The file logger's writer thread is stopped first, and this thread takes its
// place. The web client's workers continue; they post to /dev/null.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "config/config_file.h"
#include "filelog/file_logger.h"
#include "log/simple_logger.h"
#include "log/utils.h"
#include "records/qos_packet.h"
#include "web/web_client.h"

namespace {

// As many as arrive between two passes of the writers at 5,000 reports per second.
constexpr int BATCH = 500;

// What the voice software typically sends: 500 bytes, and a statistics line of 139.
constexpr const char* REPORT = "QOS_EV_TYPE=QOS_NEAREND\n"
                               "QOS_EV_TIME_STAMP_SEC=1700000000\n"
                               "QOS_EV_TIME_STAMP_USEC=123456\n"
                               "QOS_EV_GCID=3-1016\n"
                               "QOS_EV_TID=2.117\n"
                               "QOS_EV_FAR_END_IP=203.0.113.5\n"
                               "QOS_EV_PORT=5004\n"
                               "QOS_EV_PACKETS=250\n"
                               "QOS_EV_LOST=12\n"
                               "QOS_EV_LOST_SINCE_LAST_REPORT=2\n"
                               "QOS_EV_LOST_PERCENT=0.3\n"
                               "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=0.8\n"
                               "QOS_EV_JITTER_AVG=12\n"
                               "QOS_EV_RTT_AVG=40\n"
                               "QOS_EV_SSRC=3735928559\n"
                               "QOS_EV_RTCP_CNAME=unit7a\n"
                               "QOS_EV_SERIAL_NUM=12345678901\n"
                               "QOS_EV_DURATION=95\n"
                               "QOS_EV_JITTER_MAX=31\n"
                               "QOS_EV_RTT_MAX=77\n"
                               "QOS_EV_RTT_MIN=11\n";

std::unique_ptr<FileLogger> file_logger;
std::unique_ptr<WebClient> web_client;

void text_to_both_lines_queued(benchmark::State& state)
{
    const std::string serial = "12345678";
    while (state.KeepRunningBatch(BATCH)) {
        for (int i = 0; i < BATCH; i++) {
            QoSPacket packet(REPORT, serial);
            file_logger->FL_Write(&packet);
            if (!packet.is_eos())
                web_client->WC_Write(&packet);
        }
        state.PauseTiming();
        file_logger->fl_write_file(QOS_STAT, false, false);
        web_client->wc_perform();
        state.ResumeTiming();
    }
}
BENCHMARK(text_to_both_lines_queued);

// The numbers of the same report. They are not constant, because the compiler would then convert
// them at compile time.
struct Texts {
    const char* volatile seconds = "1700000000";
    const char* volatile microseconds = "123456";
    const char* volatile port = "5004";
    const char* volatile packets = "250";
    const char* volatile lost = "2";
    const char* volatile lost_percent = "0.8";
    const char* volatile jitter = "12";
    const char* volatile rtt = "40";
};

// The least that the two lines cost: the time stamp, the conversions, and the two texts that the C
// library allocates.
void c_library_of_one_report(benchmark::State& state)
{
    const Texts texts;
    for (auto _ : state) {
        Utils::Stamp time;
        Utils::t_stamp_tz(
            {.tv_sec = std::atol(texts.seconds), .tv_usec = std::atol(texts.microseconds)}, time);
        char* line = nullptr;
        char* json = nullptr;
        if (asprintf(&line,
                     "%30.30s %9.9s %11.11s %8.8s %15.15s %5d %7d %4d %5.1f %6d %5d %10s %5.5s %s",
                     time.data(), "3-1016", "2.117", "near_end", "203.0.113.5",
                     std::atoi(texts.port), std::atoi(texts.packets), std::atoi(texts.lost),
                     std::atof(texts.lost_percent), std::atoi(texts.jitter), std::atoi(texts.rtt),
                     "3735928559", "12345678901", "unit7a") < 0 ||
            asprintf(&json, "%s%s%s", R"({"message": ")", line, R"("})") < 0)
            std::abort();
        benchmark::DoNotOptimize(json);
        std::free(line);
        std::free(json);
    }
}
BENCHMARK(c_library_of_one_report);

// A configuration with all files in the given directory.
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
    // The log goes to standard output, so the results go elsewhere.
    std::ofstream results("/dev/fd/" + std::to_string(dup(STDOUT_FILENO)));
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return EXIT_FAILURE;

    ConfigFile config(write_config(directory), '=');
    DBG->init(&config);
    DBG->dbg_stop();
    file_logger = std::make_unique<FileLogger>(&config);
    file_logger->fl_stop();
    web_client = std::make_unique<WebClient>(&config);

    benchmark::JSONReporter reporter;
    reporter.SetOutputStream(&results);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);

    web_client.reset();
    file_logger.reset();
    std::filesystem::remove_all(directory);
    return EXIT_SUCCESS;
}
