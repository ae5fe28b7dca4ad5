// Reports. The test of the main loop covers voice records.
#include <gmock/gmock.h>

#include "records/qos_packet.h"
#include "unit/harness.h"

using testing::HasSubstr;

static const std::string NEAR = "QOS_EV_TYPE=QOS_NEAREND\n", EOS = "QOS_EV_TYPE=QOS_EOS_NEAREND\n",
                         TIME = "QOS_EV_TIME_STAMP_";

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
        const char* what;
        std::string report, serial, part_of_line, logged;
    };
    const Row rows[] = {
        {"the report's serial number wins", NEAR + "QOS_EV_SERIAL_NUM=ABC", "77", " ABC ", ""},
        {"empty serial number: the unit's", NEAR + "QOS_EV_SERIAL_NUM=", "77", "  77 ", ""},
        {"no serial number at all", NEAR, "", "   0.0      0     0                0 ", ""},
        {"serial number that is too long", NEAR, std::string(2000, 's'), " sssss ", ""},
        {"time beyond the calendar",
         NEAR + TIME + "SEC=9223372036854775807\n" + TIME + "USEC=1500000", "",
         "1970-Jan-01 00:00:00.1500 +000 ", ""},
        {"time before the epoch", EOS + "QOS_EV_FIRST_PACKET_SEC=-1\nQOS_EV_LAST_PACKET_USEC=-1500",
         "", " 23:59:59.000 00:00:00.-00 ", ""},
        {"carriage return", NEAR + "QOS_EV_SSRC=1\r\n", "", "       1\r ", ""},
        {"keys that nearly match", NEAR + "qos_ev_ssrc=9\n\nQOS_EV_SSRC =8=7\nROS_EV_SSRC=6\nx", "",
         "                0 ",
         unknown + "qos_ev_ssrc\n" + unknown + "QOS_EV_SSRC \n" + unknown + "ROS_EV_SSRC\n" +
             unknown + "x\n"},
        {"a key twice, the second without a value",
         NEAR + "QOS_EV_SSRC=6\nQOS_EV_TID=5\nQOS_EV_SSRC=7\nQOS_EV_TID", "",
         "           near_end                     0       0    0   0.0      0     0          7 ",
         ""},
        {"value with '=' and a quote", name + "a=b=\"c", "", " 0 a=b=\"c", ""},
        {"as long as allowed", name + full, "", "   0 " + full, ""},
        {"one character too long", name + full + "y" + std::string(30000, '='), "", "   0 " + full,
         cut},
        {"cut after a whole line", before, "", "    0   0.0 ", ""},
        {"cut at a line feed", before + "\nQOS_EV_LOST=9", "", "    0   0.0 ", cut},
        {"cut inside a key", before + "_PERCENT=5", "", "    7   0.0 ", cut},
        {"session report wider than its columns", "QOS_EV_TYPE=QOS_FAREND\n" + wide, "",
         "+0000 123456789 12345678901  far_end 123.123.123.123 123456 12345678 12345 1234.6 "
         "1234567 "
         "123456 12345678901 12345 a b",
         ""},
        {"summary wider than its columns", "QOS_EV_TYPE=QOS_EOS_FAREND\n" + wide, "",
         "+0000 123456789 12345678901 near_end 123.123.123.123 123456 -12345 12345678 54321 1000.0 "
         "1234567 -7654321 123456 1234567 00:00:00.000 00:00:00.000 12345678901 12345 a b",
         ""},
        {"unknown type", "QOS_EV_TYPE=QOS_NEAREND\r\n", "", "",
         " [INFO] QoSPacket::fmt_log_string() Ignoring unknown event: QOS_NEAREND\r\n"
         "[ERROR] Failed to allocate _log_string event for QoS packet...\n"},
    };
    stop_the_clock();
    LogCapture log;
    for (const Row& row : rows) {
        const QoSPacket packet(row.report.c_str(), row.serial);
        EXPECT_THAT(packet.log_string(), HasSubstr(row.part_of_line)) << row.what;
        EXPECT_EQ(row.part_of_line.empty(), packet.log_string()[0] == '\0') << row.what;
        EXPECT_THAT(packet.log_string(), testing::Not(HasSubstr("xy"))) << row.what;
        EXPECT_EQ(row.logged, log.take()) << row.what;
    }
    const QoSPacket packet("", "");
    EXPECT_EQ(0, packet.key_to_index("QOS_EV_TYPE"));
    EXPECT_EQ(24, packet.key_to_index("QOS_EV_LAST_PACKET_USEC"));
    EXPECT_EQ(25, packet.key_to_index("QOS_EV_TYPE "));
}
