// Reports and voice records.
#include <gmock/gmock.h>

#include "records/qos_packet.h"
#include "records/voice_datagram.h"
#include "records/voice_packet.h"
#include "unit/harness.h"

using testing::HasSubstr;

static const std::string NEAR = "QOS_EV_TYPE=QOS_NEAREND\n", EOS = "QOS_EV_TYPE=QOS_EOS_NEAREND\n";

TEST(Report, EveryRule)
{
    const std::string name = NEAR + "QOS_EV_RTCP_CNAME=", full(1023 - name.size(), 'x');
    const std::string lost = EOS + "QOS_EV_LOST=7\nQOS_EV_GCID=", rest = "\nQOS_EV_LOST";
    const std::string before = lost + std::string(1023 - lost.size() - rest.size(), 'g') + rest;
    const std::string unknown = " [WARN] ignoring unknown key: ";
    const std::string cut =
        " [WARN] ignoring what follows the first 1023 characters of a QoS report\n";
    const std::string wide =  // every value wider than its column
        "QOS_EV_GCID=1234567890\nQOS_EV_TID=123456789012\nQOS_EV_FAR_END_IP=123.123.123.123x\n"
        "QOS_EV_PORT=123456\nQOS_EV_PACKETS=12345678\nQOS_EV_LOST_SINCE_LAST_REPORT=12345x\n"
        "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=1234.56\nQOS_EV_LOST=54321\n"
        "QOS_EV_LOST_PERCENT=999.99\nQOS_EV_JITTER_AVG=1234567\nQOS_EV_JITTER_MAX=-7654321\n"
        "QOS_EV_RTT_AVG=123456\nQOS_EV_RTT_MAX=1234567\nQOS_EV_DURATION=-12345\n"
        "QOS_EV_SSRC=12345678901\nQOS_EV_SERIAL_NUM=123456\nQOS_EV_RTCP_CNAME=a b\n";
    struct Row {
        std::string report, serial, part_of_line, logged;
    };
    const Row rows[] = {
        {NEAR + "QOS_EV_SERIAL_NUM=ABC", "77", " ABC ", ""},
        {NEAR + "QOS_EV_SERIAL_NUM=", "77", "  77 ", ""},
        {NEAR, "", "   0.0      0     0                0 ", ""},
        {NEAR, std::string(2000, 's'), " sssss ", ""},
        {NEAR + "QOS_EV_SSRC=1\r\n", "", "       1\r ", ""},
        {NEAR + "qos_ev_ssrc=9\n\nQOS_EV_SSRC =8=7\nROS_EV_SSRC=6\nx", "", "                0 ",
         unknown + "qos_ev_ssrc\n" + unknown + "QOS_EV_SSRC \n" + unknown + "ROS_EV_SSRC\n" +
             unknown + "x\n"},
        {NEAR + "QOS_EV_SSRC=6\nQOS_EV_TID=5\nQOS_EV_SSRC=7\nQOS_EV_TID", "",
         "           near_end                     0       0    0   0.0      0     0          7 ",
         ""},
        {name + "a=b=\"c", "", " 0 a=b=\"c", ""},
        {name + full, "", "   0 " + full, ""},
        {name + full + "y" + std::string(30000, '='), "", "   0 " + full, cut},
        {before, "", "    0   0.0 ", ""},
        {before + "\nQOS_EV_LOST=9", "", "    0   0.0 ", cut},
        {before + "_PERCENT=5", "", "    7   0.0 ", cut},
        {"QOS_EV_TYPE=QOS_FAREND\n" + wide, "",
         "+0000 123456789 12345678901  far_end 123.123.123.123 123456 12345678 12345 1234.6 "
         "1234567 "
         "123456 12345678901 12345 a b",
         ""},
        {"QOS_EV_TYPE=QOS_EOS_FAREND\n" + wide, "",
         "+0000 123456789 12345678901 near_end 123.123.123.123 123456 -12345 12345678 54321 1000.0 "
         "1234567 -7654321 123456 1234567 00:00:00.000 00:00:00.000 12345678901 12345 a b",
         ""},
        {"QOS_EV_TYPE=QOS_NEAREND\r\n", "", "",
         " [INFO] QoSPacket::fmt_log_string() Ignoring unknown event: QOS_NEAREND\r\n"
         "[ERROR] Failed to allocate _log_string event for QoS packet...\n"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        const QoSPacket packet(row.report.c_str(), row.serial);
        EXPECT_THAT(packet.log_string(), HasSubstr(row.part_of_line)) << row.report;
        EXPECT_EQ(row.part_of_line.empty(), packet.log_string()[0] == '\0') << row.report;
        EXPECT_THAT(packet.log_string(), testing::Not(HasSubstr("xy")));
        EXPECT_EQ(row.logged, log.take()) << row.report;
    }
}

static std::string bytes(std::string hex)  // blanks do not matter
{
    std::erase(hex, ' ');
    std::string result;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        result += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return result;
}

TEST(Voice, RecordsAreConvertedByteForByte)
{
    VoicePacket packet;
    const auto convert = [&packet](std::size_t length) {
        const std::string record = voice_record(std::string(length, '\x5A'));
        packet.init_pcap_packet(record.data(), static_cast<int>(record.size()));
        return std::string(reinterpret_cast<const char*>(packet.get_pcap_packet()),
                           static_cast<std::size_t>(packet.get_pcap_size()));
    };
    EXPECT_EQ(bytes("00F15365 40E20100 CA000000 CA000000 AAAAAAAAAAAA BBBBBBBBBBBB 0800 45 00 00BC"
                    "0000 4000 40 11 0000 C0000201 CB007105 138C 1F90 00A8 0000") +
                  std::string(160, '\x5A'),
              convert(160));
    for (const std::size_t length : {0U, 1989U, 1990U, 2024U, 2025U, 3000U}) {
        const std::string record = convert(length);
        const std::size_t counted = length > 2024 ? 2023 : length;
        const std::size_t stored = length > 1989 ? 0 : counted;
        const auto number = [&record](std::size_t low, std::size_t high) {
            return static_cast<std::uint8_t>(record[low]) +
                   256U * static_cast<std::uint8_t>(record[high]);
        };
        EXPECT_EQ(58 + stored, record.size()) << length;
        EXPECT_EQ(42 + stored, number(8, 9)) << length;
        EXPECT_EQ(42 + counted, number(12, 13)) << length;
        EXPECT_EQ(28 + counted, number(33, 32)) << length;
        EXPECT_EQ(8 + counted, number(55, 54)) << length;
    }
}

TEST(Voice, TheWalkStaysInsideTheDatagram)
{
    struct Row {
        std::string datagram;
        std::vector<int> lengths;
        std::size_t left;
    };
    const std::string whole = voice_record("1234");
    const Row rows[] = {
        {voice_record(std::string(160, 'a')) + voice_record("") + voice_record("123456789012"),
         {184, 24, 36},
         0},
        {"", {}, 0},
        {whole.substr(0, 3), {}, 3},
        {whole + whole.substr(0, 23), {28}, 23},
        {whole + voice_record("1234", 5), {28}, 28},
        {voice_record("1234", 3), {27}, 1},
        {whole + voice_record("", 0xFFFFFFE8), {28}, 24},
        {voice_record("1234", 0xFFFFFFFF) + whole, {}, 56},
        {voice_record("1234", 0x80000000), {}, 28},
    };
    for (const Row& row : rows) {
        const std::vector<char> exact(row.datagram.begin(), row.datagram.end());
        VoiceDatagram walk(exact.data(), exact.size());
        std::vector<int> lengths;
        for (int length = 0; const char* record = walk.next_record(length);) {
            EXPECT_EQ(exact.data() + walk.offset() - length, record);
            lengths.push_back(length);
        }
        EXPECT_EQ(row.lengths, lengths);
        EXPECT_EQ(row.left, walk.bytes_left());
    }
}
