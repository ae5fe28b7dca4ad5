// Refuses every allocation that the running daemon makes in a short life, one by one: once, and ten
// in a row. A sample of them by default; all of them when VOXSTAT_FULL_SWEEP is set.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>
#include <new>
#include <sstream>

#include "faults/daemon.h"
#include "filelog/file_logger.h"
#include "records/qos_packet.h"
#include "web/web_client.h"

namespace {

constexpr const char* EPOCH = "1970-Jan-01 00:00:00.000 +0000";

std::string session_line()
{
    char line[256];
    snprintf(line, sizeof line, "%s %9s %11s near_end %15s %5d %7d %4d %5.1f %6d %5d %10s %5s s",
             EPOCH, "", "", "", 0, 0, 0, 0.0, 0, 0, "", "0");
    return line;
}

std::string summary_line()
{
    char line[256];
    snprintf(line, sizeof line,
             "%s %9s %11s near_end %15s %5d %5d %7d %4d %5.1f %6d %6d %6d %6d %12s %12s %10s %5s e",
             EPOCH, "", "", "", 0, 0, 0, 0, 0.0, 0, 0, 0, 0, "00:00:00.000", "00:00:00.000", "",
             "0");
    return line;
}

struct MemoryLife {
    int n, times;  // the allocations refused: from the n-th on, so many
    HttpServer server{};
    Daemon daemon{"log.default=4\nlog.network=4\nlog.http=4\nlog.file=d\nmax_file_size_rtp=50\n"
                  "elastic_url=" +
                  server.url};
    int phases = 0;

    int allocations() const { return daemon.faults->calls("allocation"); }

    // Phases, until one that began when nothing was refused any more, or two untouched ones.
    void run()
    {
        daemon.faults->refuse_memory(n, times);
        daemon.start();
        for (bool arrived = false, over = false; !arrived || !(over || allocations() < n);) {
            ASSERT_FALSE(daemon.has_ended()) << daemon.said();
            over = allocations() >= n + times - 1;
            arrived = send_phase(over ? 20 : 1) && phases > 1;
            ASSERT_TRUE(arrived || phases == 1 || !over) << daemon.said();
        }
        EXPECT_EQ(0, daemon.stop()) << daemon.said();
        EXPECT_TRUE(text_is_whole("QoS_Stat.txt", session_line()));
        EXPECT_TRUE(text_is_whole("QoS_Stat_Sessions_Summary.txt", summary_line()));
        EXPECT_TRUE(dumps_are_whole());
        EXPECT_TRUE(posts_are_whole());
        EXPECT_TRUE(log_is_whole());
        EXPECT_LE(missing(), std::min(times, std::max(0, allocations() - n + 1)));
    }

    // One report of each kind. Whether they have reached files and server, in that many seconds.
    bool send_phase(int seconds)
    {
        const std::string number = std::to_string(++phases);
        daemon.send_qos("QOS_EV_TYPE=QOS_EOS_FAREND\nQOS_EV_RTCP_CNAME=e" + number);
        daemon.send_voice(voice_record("v" + number + "\n"));
        daemon.send_qos("QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=s" + number);
        const auto arrived = [&, looks = 0]() mutable {
            if (looks++ % 50 == 0)
                daemon.faults->clock_shift += 100;  // old enough for short tails and batches
            return has_arrived(number);
        };
        return eventually(arrived, seconds);
    }

    bool has_arrived(const std::string& number)
    {
        return count(posted(), "s" + number + "\"}") == 1 &&
               count(dumped(), "v" + number + "\n") == 1 &&
               count(read_file(daemon.dir / "QoS_Stat.txt"), "s" + number + "\n") == 1 &&
               count(read_file(daemon.dir / "QoS_Stat_Sessions_Summary.txt"),
                     "e" + number + "\n") == 1;
    }

    // How many of the phases' records are not in the files.
    int missing() const
    {
        const std::string written = read_file(daemon.dir / "QoS_Stat.txt") + dumped() +
                                    read_file(daemon.dir / "QoS_Stat_Sessions_Summary.txt");
        int result = 0;
        for (int phase = 1; phase <= phases; phase++)
            for (const char* const kind : {"s", "e", "v"})
                result += count(written, kind + std::to_string(phase) + "\n") != 1;
        return result;
    }

    std::string posted()
    {
        std::string result;
        for (const HttpServer::Request& request : server.requests())
            result += request.body;
        return result;
    }

    std::vector<std::string> dumps() const
    {
        std::vector<std::string> result;
        for (const auto& entry : std::filesystem::directory_iterator(daemon.dir.path))
            if (entry.path().extension() == ".pcap")
                result.push_back(read_file(entry.path()));
        return result;
    }

    std::string dumped() const
    {
        std::string result;
        for (const std::string& dump : dumps())
            result += dump;
        return result;
    }

    // A header, and lines that differ in a number at their end only. Empty ones stand for reports
    // that had no memory for their line.
    bool text_is_whole(const std::string& name, const std::string& line) const
    {
        std::istringstream text(read_file(daemon.dir / name));
        std::string row;
        bool whole = std::getline(text, row) && row.ends_with(" SN RTCP_CNAME");
        while (std::getline(text, row))
            whole &= !text.eof() &&
                     (row.empty() ||
                      (row.starts_with(line) &&
                       row.find_first_not_of("0123456789", line.size()) == std::string::npos));
        return whole;
    }

    bool dumps_are_whole() const
    {
        constexpr std::size_t FILE_HEADER = 24, RECORD_HEADER = 16;
        bool whole = true;
        for (const std::string& dump : dumps()) {
            std::size_t at = FILE_HEADER;
            while (at + RECORD_HEADER <= dump.size())
                at += RECORD_HEADER + static_cast<unsigned char>(dump[at + 8]);  // short records
            whole &= at == dump.size();
        }
        return whole;
    }

    // One array behind the other.
    bool posts_are_whole()
    {
        const std::string text = posted(), line = "{\"message\": \"";
        return text.starts_with("[\n" + line) && text.ends_with("\"}\n]") &&
               count(text, "{") == count(text, line) &&
               count(text, line) ==
                   1 + count(text, "\"},\n" + line) + count(text, "\"}\n][\n" + line);
    }

    // Where a line has a thread identifier, it has a time stamp and a level before it, and no other
    // line in front of them.
    bool log_is_whole() const
    {
        std::istringstream log(read_file(daemon.dir / "root/var/log/current/d.log"));
        bool whole = true;
        for (std::string line; std::getline(log, line);)
            whole &= !log.eof() &&
                     line.find("] [0x", line.find("] [0x") == 27 ? 28 : 0) == std::string::npos;
        return whole;
    }
};

// Lives, several at a time, for each n that next() gives; it ends with 0.
void live_through(int times, const std::function<int()>& next, std::atomic<int>& last)
{
    std::vector<std::jthread> lives(8);
    for (std::jthread& thread : lives)
        thread = std::jthread([&] {
            for (int n; (n = next()) > 0 && !testing::Test::HasFailure();) {
                SCOPED_TRACE("allocation #" + std::to_string(n) + ", " + std::to_string(times));
                MemoryLife life{n, times};
                life.run();
                if (life.allocations() < n)
                    last = std::min<int>(last, n);
            }
        });
}

}  // namespace

TEST(MemorySweep, CostsTheWorkInHandOnly)
{
    std::atomic<int> untouched{INT_MAX};  // the smallest n that was not reached
    MemoryLife whole{INT_MAX - 10, 1};
    whole.run();
    const bool full = std::getenv("VOXSTAT_FULL_SWEEP") != nullptr;
    const int step = full ? 1 : std::max(1, whole.allocations() / 12);
    for (const int times : {1, 10}) {
        std::atomic<int> next{1 - step};
        untouched = INT_MAX;
        live_through(
            times, [&] { return untouched == INT_MAX ? next += step : 0; }, untouched);
        EXPECT_LT(whole.allocations() / 2, untouched);
        printf("allocations: %d, %d in a row\n", untouched.load() - 1, times);
    }
}

// A buffer grows when it holds 10240 bytes. With lines of 208 characters that is between a line and
// its line feed, with lines of 192 between a JSON line and the separator behind it.
TEST(Memory, BuffersTakeALineWholeOrNotAtAll)
{
    constexpr int LINES = 120;
    Faults& faults = Faults::self();
    for (const std::size_t length : {192U, 208U}) {
        const TempDir dir;
        ConfigFile config =
            config_of("qos_stat_dir=" + dir.path + "\nelastic_url=http://127.0.0.1:1/");
        FileLogger file_logger(&config);
        file_logger.fl_stop();
        faults.arm("pthread_create", 1, EAGAIN, true);
        WebClient web_client(&config);
        const std::string name(length - session_line().size(), '0');
        QoSPacket packet(("QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=s" + name).c_str(), "");
        const auto write_refused_once = [&](const auto& write) {
            faults.refuse_memory(1, 1);
            try {
                write();
                return 0;
            } catch (const std::bad_alloc&) {
                write();
                return 1;
            }
        };
        poll(nullptr, 0, 0);  // from now on allocations count
        int refused = 0;
        for (int i = 0; i < LINES; i++) {
            refused += write_refused_once([&] { file_logger.FL_Write(&packet); });
            refused += write_refused_once([&] { web_client.WC_Write(&packet); });
        }
        faults.disarm();
        EXPECT_EQ(4, refused);  // each buffer twice
        std::string lines, batch;
        for (int i = 0; i < LINES; i++) {
            lines += std::string(packet.log_string()) + "\n";
            batch += std::string(batch.empty() ? "[\n" : ",\n") + packet.http_log_string();
        }
        file_logger.fl_write_file(QOS_STAT, false, true);
        EXPECT_TRUE(read_file(dir / "QoS_Stat.txt").ends_with("RTCP_CNAME\n" + lines));
        std::string body;
        Faults::watch = [&body](std::string_view function, long option, long value) {
            if (function == "curl_easy_setopt" && option == CURLOPT_POSTFIELDS)
                body = reinterpret_cast<const char*>(value);
        };
        web_client.wc_perform();
        Faults::watch = nullptr;
        EXPECT_EQ(batch + "\n]", body);
    }
}
