// If memory is exhausted, a queue loses one record and counts it.
#include <gtest/gtest.h>
#include <poll.h>

#include "filelog/file_logger.h"
#include "log/simple_logger.h"
#include "records/qos_packet.h"
#include "records/voice_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

static Faults& faults = Faults::self();

// A buffer grows when it holds 10240 bytes. With lines of 208 characters that is between a line and
// its line feed, with lines of 192 between a JSON object and the separator before it.
TEST(Memory, QueuesTakeARecordWholeOrCountIt)
{
    LogCapture log("log.default=1");
    const std::string report = "QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=";
    const std::string bare = QoSPacket(report.c_str(), "").log_string();
    for (const std::size_t length : {192U, 208U}) {
        const TempDir dir;
        ConfigFile config =
            config_of("qos_stat_dir=" + dir.path + "\nelastic_url=http://127.0.0.1:1/");
        FileLogger file_logger(&config);
        file_logger.fl_stop();
        faults.arm("pthread_create", 1, EAGAIN, true);
        WebClient web_client(&config);
        QoSPacket packet((report + std::string(length - bare.size(), '0')).c_str(), "");
        VoicePacket voice;
        voice.init_pcap_packet(voice_record(std::string(length, 'v')).c_str(), 0);
        const std::string line = std::string(packet.log_string()) + "\n",
                          record(reinterpret_cast<const char*>(voice.get_pcap_packet()),
                                 static_cast<std::size_t>(voice.get_pcap_size()));
        const auto refused_once = [](auto write) {
            poll(nullptr, 0, 0);  // from now on, allocations count
            faults.refuse_memory(1, 1);
            const bool is_lost = write() == 0;
            faults.disarm();
            if (is_lost)
                write();
            return is_lost;
        };
        int lost = 0;
        std::string lines, dump, batch;
        const std::string said = log.take([&] {
            for (int i = 0; i < 120; i++) {
                lost += refused_once([&] { return file_logger.FL_Write(&packet); });
                lost += refused_once([&] { return file_logger.FL_Write(&voice); });
                lost += refused_once([&] { return web_client.WC_Write(&packet); });
                lines += line;
                dump += record;
                batch += std::string(batch.empty() ? "[\n" : ",\n") + packet.http_log_string();
            }
        });
        EXPECT_EQ(2U, count(said, " [WARN] WebClient OVERFLOW: 1\n"));
        EXPECT_EQ(6, lost);  // each buffer grows twice
        EXPECT_EQ(" [WARN] QoS WRITE OVERFLOW: 2messages lost\n"
                  " [WARN] VOICE DUMP WRITE OVERFLOW: 2messages lost\n",
                  log.take([&] {
                      file_logger.fl_write_file(QOS_STAT, false, true);
                      file_logger.fl_write_rtp_dump(false, true);
                  }));
        EXPECT_TRUE(read_file(dir / "QoS_Stat.txt").ends_with("RTCP_CNAME\n" + lines));
        EXPECT_TRUE(read_file(dir / "RTP_Streams_No_Voice.pcap").ends_with(dump));
        std::string body;
        Faults::set_watch([&body](std::string_view function, long option, long value) {
            if (function == "curl_easy_setopt" && option == CURLOPT_POSTFIELDS)
                body = reinterpret_cast<const char*>(value);
        });
        web_client.wc_perform();
        Faults::set_watch(nullptr);
        EXPECT_EQ(batch + "\n]", body);
    }
}
