// report-instructions N: parses N reports of 15 lines and queues their lines and JSON objects.
// bench/instructions runs it under callgrind.
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "config/config_file.h"
#include "filelog/file_logger.h"
#include "records/qos_packet.h"
#include "web/web_client.h"

namespace {

constexpr int BATCH = 50;

constexpr const char* REPORT = "QOS_EV_TID=2.117\n"
                               "QOS_EV_GCID=3-1016\n"
                               "QOS_EV_TYPE=QOS_NEAREND\n"
                               "QOS_EV_FAR_END_IP=203.0.113.5\n"
                               "QOS_EV_PORT=5004\n"
                               "QOS_EV_PACKETS=250\n"
                               "QOS_EV_LOST_SINCE_LAST_REPORT=2\n"
                               "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=0.8\n"
                               "QOS_EV_JITTER_AVG=12\n"
                               "QOS_EV_RTT_AVG=40\n"
                               "QOS_EV_SSRC=3735928559\n"
                               "QOS_EV_SERIAL_NUM=\n"
                               "QOS_EV_RTCP_CNAME=unit7@192.0.2.7\n"
                               "QOS_EV_TIME_STAMP_SEC=1700000000\n"
                               "QOS_EV_TIME_STAMP_USEC=123456";

}  // namespace

// callgrind counts only inside this function.
extern "C" [[gnu::noinline]] void counted(FileLogger& file_logger, WebClient& web_client,
                                          int reports)
{
    for (int i = 0; i < reports; i++) {
        QoSPacket packet(REPORT, "40731");
        file_logger.FL_Write(&packet);
        if (!packet.is_eos())
            web_client.WC_Write(&packet);
    }
}

// No other thread may use the heap meanwhile; otherwise the count would vary.
extern "C" int __wrap_pthread_create(pthread_t* /*thread*/, const pthread_attr_t* /*how*/,
                                     void* (* /*entry*/)(void*), void* /*argument*/)
{
    return EAGAIN;
}

int main(int argc, char** argv)
{
    int left = argc == 2 ? std::atoi(argv[1]) : 0;
    std::string directory = std::filesystem::temp_directory_path() / "voxstat-bench-XXXXXX";
    if (left < 1 || mkdtemp(directory.data()) == nullptr)
        return EXIT_FAILURE;
    std::ofstream(directory + "/cfg")
        << "qos_stat_dir=" << directory << "\nelastic_url=file:///dev/null\n";
    {
        ConfigFile config(directory + "/cfg", '=');
        FileLogger file_logger(&config);
        WebClient web_client(&config);
        for (; left > 0; left -= BATCH) {
            counted(file_logger, web_client, left < BATCH ? left : BATCH);
            file_logger.fl_write_file(QOS_STAT, false, true);  // both empty their buffers
            web_client.wc_perform();
        }
    }
    std::filesystem::remove_all(directory);
}
