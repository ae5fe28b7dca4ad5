#include "app/main_loop.h"

#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "config/config_file.h"
#include "config/keys.h"
#include "log/simple_logger.h"
#include "records/voice_datagram.h"

namespace {

constexpr unsigned WAIT_MS = 60000;
constexpr std::int32_t SERVICE_INTERVAL_SECONDS = 300;

int service_report(char* buffer, const char* far_end, const char* loss_percent)
{
    if (buffer == nullptr)
        return -1;
    timeval now{};
    gettimeofday(&now, nullptr);
    return std::sprintf(buffer, "%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s\n%s%lu\n%s%lu",
                        "QOS_EV_TID=0.0", "QOS_EV_GCID=0-0", "QOS_EV_TYPE=QOS_NEAREND", far_end,
                        "QOS_EV_PORT=0", "QOS_EV_PACKETS=0", "QOS_EV_LOST_SINCE_LAST_REPORT=0",
                        loss_percent, "QOS_EV_JITTER_AVG=0", "QOS_EV_RTT_AVG=0",
                        "QOS_EV_SSRC=00000",
                        "QOS_EV_SERIAL_NUM=", "QOS_EV_RTCP_CNAME=Service_Packet",
                        "QOS_EV_TIME_STAMP_SEC=", static_cast<unsigned long>(now.tv_sec),
                        "QOS_EV_TIME_STAMP_USEC=", static_cast<unsigned long>(now.tv_usec));
}

std::int32_t seconds_now()
{
    return static_cast<std::int32_t>(time(nullptr));
}

// Seconds from an earlier time to a later one. Unsigned arithmetic keeps the result correct when
// the 32-bit seconds wrap.
std::int32_t seconds_between(std::int32_t earlier, std::int32_t later)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(later) -
                                     static_cast<std::uint32_t>(earlier));
}

}  // namespace

int min_loss_packet(char* buffer)
{
    return service_report(buffer, "QOS_EV_FAR_END_IP=192.0.2.10",
                          "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=0");
}

int max_loss_packet(char* buffer)
{
    return service_report(buffer, "QOS_EV_FAR_END_IP=198.51.100.10",
                          "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=100");
}

std::atomic<bool> MainLoop::running{false};

MainLoop::MainLoop(ConfigFile* main_config) : config(main_config)
{
    build_components();
    read_serial_number();
}

MainLoop::~MainLoop()
{
    receiver.reset();
    file_logger.reset();
    web_client.reset();
}

void MainLoop::build_components()
{
    try {
        receiver = std::make_unique<NetReceiver>(config);
        file_logger = std::make_unique<FileLogger>(config);
        web_client = std::make_unique<WebClient>(config);
    } catch (const std::invalid_argument& error) {
        DBG->Log(DBG_ERROR, {"Caught an exception: ", error.what()});
        exit(0);  // the logger's destructor still writes the log
    }
}

void MainLoop::read_serial_number()
{
    try {
        const ConfigFile file(keys::SN_FILE_PATH.text_in(*config), ':');
        serial_number = file.getStringValue("serial", "");
    } catch (const std::invalid_argument& error) {
        serial_number.clear();
        DBG->Log(DBG_WARN, {"Caught an exception: ", error.what()});
        return;
    }
    if (serial_number.empty())
        DBG->Log(DBG_INFO, "Serial Number is not defined.");
    else
        DBG->Log(DBG_INFO, {"Serial Number: ", serial_number});
}

void MainLoop::start()
{
    running = true;
    // A stop() between the check of the flag and the wait takes effect when the wait ends. This is
    // fixed: supervisors allow the daemon more than these 60 seconds.
    while (running) {
        if (receiver->WaitForPackets(WAIT_MS) > 0) {
            drain_qos_socket();
            drain_voice_socket();
        }
        const std::int32_t now = seconds_now();
        static std::int32_t last_service_time = now;
        if (seconds_between(last_service_time, now) >= SERVICE_INTERVAL_SECONDS) {
            send_service_reports();
            last_service_time = seconds_now();
        }
    }
    stop_components();
}

void MainLoop::drain_qos_socket()
{
    while (receiver->ReceiveQoSPacket(buffer.data(), BUFFER_SIZE) > 0) {
        report.emplace(buffer.data(), serial_number);
        file_logger->FL_Write(&*report);
        if (!report->is_eos())
            web_client->WC_Write(&*report);
        report.reset();
    }
}

void MainLoop::drain_voice_socket()
{
    int received = 0;
    while ((received = receiver->ReceiveVoicePacket(buffer.data(), BUFFER_SIZE)) > 0)
        write_voice_records(static_cast<std::size_t>(received));
}

void MainLoop::write_voice_records(std::size_t datagram_size)
{
    VoiceDatagram datagram(buffer.data(), datagram_size);
    int length = 0;
    while (const char* record = datagram.next_record(length)) {
        voice_packet.init_pcap_packet(record, length);
        file_logger->FL_Write(&voice_packet);
    }
    if (datagram.bytes_left() > 0)
        DBG->Log(DBG_WARN, {"Dropped the rest of a voice datagram: no whole record at offset ",
                            std::to_string(datagram.offset()), ", ",
                            std::to_string(datagram.bytes_left()), " bytes left"});
}

void MainLoop::send_service_reports()
{
    for (const auto print_report : {min_loss_packet, max_loss_packet}) {
        (void)print_report(buffer.data());
        report.emplace(buffer.data(), serial_number);
        web_client->WC_Write(&*report);
        report.reset();
    }
}

// The receiver stops first, so that no reports arrive while the files are flushed. The posts may
// take long, so the web client stops last.
void MainLoop::stop_components()
{
    receiver->nr_stop();
    file_logger->fl_stop();
    web_client->wc_stop();
}
