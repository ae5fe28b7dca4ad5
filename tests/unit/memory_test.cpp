// Buffers of lines that have no memory to grow.
#include <gtest/gtest.h>
#include <poll.h>

#include <new>

#include "filelog/file_logger.h"
#include "records/qos_packet.h"
#include "unit/harness.h"
#include "web/web_client.h"

static Faults& faults = Faults::self();

template <typename Write>
static int write_refused_once(const Write& write)  // how often it was refused
{
    int refused = 0;
    poll(nullptr, 0, 0);  // from now on allocations count
    faults.refuse_memory(1, 1);
    try {
        write();
    } catch (const std::bad_alloc&) {
        refused++;
        write();
    }
    faults.disarm();
    return refused;
}

// A buffer grows when it holds 10240 bytes. With lines of 208 characters that is between a line and
// its line feed, with lines of 192 between a JSON line and the separator behind it.
TEST(Memory, BuffersTakeALineWholeOrNotAtAll)
{
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
        int refused = 0;
        std::string lines, batch;
        for (int i = 0; i < 120; i++) {
            refused += write_refused_once([&] { file_logger.FL_Write(&packet); });
            refused += write_refused_once([&] { web_client.WC_Write(&packet); });
            lines += std::string(packet.log_string()) + "\n";
            batch += std::string(batch.empty() ? "[\n" : ",\n") + packet.http_log_string();
        }
        EXPECT_EQ(4, refused);  // each buffer twice
        file_logger.fl_write_file(QOS_STAT, false, true);
        EXPECT_TRUE(read_file(dir / "QoS_Stat.txt").ends_with("RTCP_CNAME\n" + lines));
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
