// Configuration lines, time stamps, reports and voice records.
#include <gmock/gmock.h>

#include <climits>
#include <iomanip>
#include <map>
#include <random>
#include <sstream>

#include "log/utils.h"
#include "records/qos_packet.h"
#include "records/voice_datagram.h"
#include "records/voice_packet.h"
#include "support/harness.h"

using testing::EndsWith;
using testing::HasSubstr;

TEST(Configuration, EveryLine)
{
    struct Row {
        std::string text;
        char separator;
        const char* key;
        std::string value;  // "-": absent, and the line logged as invalid
    };
    static const Row rows[] = {
        {"key=value", '=', "key", "value"},
        {"  key\t=\tvalue  ", '=', "key", "value"},
        {"key = a b  c \t", '=', "key", "a b  c"},
        {"a = b:c=d", '=', "a", "b:c=d"},
        {"a b = c", '=', "a", "c"},
        {"a:b = c", '=', "a", "c"},
        {"a = x#y", '=', "a", "x"},
        {"#a=1\n    \n\na=1\na=2", '=', "a", "2"},
        {"a=5\r\n", '=', "a", "5\r"},
        {"  =x", '=', "", "x"},
        {"port: 5", ':', "port", "5"},
        {"serial = X", ':', "serial", "-"},
        {"\t", '=', "", "-"},
        {"=value", '=', "", "-"},
        {"key=  \t", '=', "key", "-"},
        {"key = # note", '=', "key", "-"},
    };
    LogCapture log;
    for (const Row& row : rows) {
        const ConfigFile config = config_of(row.text, row.separator);
        EXPECT_EQ(row.value, config.getStringValue(row.key, "-")) << row.text;
        EXPECT_EQ(row.value != "-", config.keyExists(row.key)) << row.text;
        const std::string logged = " [INFO] KeyValueParser::parseLine ignoring invalid line: " +
                                   row.text.substr(0, row.text.find('#')) + "\n";
        EXPECT_EQ(row.value == "-" ? logged : "", log.take());
    }
    const ConfigFile config = config_of("a=5x\nb=abc\nc=-7\r\nd=0x10\ne=2.5e1");
    for (const auto& [key, value] :
         std::map<std::string, int>{{"a", 5}, {"b", 0}, {"c", -7}, {"d", 0}, {"z", 3}})
        EXPECT_EQ(value, config.getIntValue(key, 3)) << key;
    EXPECT_EQ(25.0, config.getFloatValue("e", 0));
    EXPECT_THROW(ConfigFile("/nonexistent/cfg", '='), std::invalid_argument);
    std::string line = "\t a= ";
    EXPECT_FALSE(config.validLine(line));
    EXPECT_EQ("a= ", line);
    for (auto [text, valid] :
         std::map<std::string, bool>{{" =1", false}, {"a:1", false}, {"a=\t", true}})
        EXPECT_EQ(valid, config.validLine(line = text)) << text;
}

TEST(TimeStamps, EveryForm)
{
    struct Row {
        const char* zone;
        timeval time;
        std::string date, clock, offset;
    };
    static const Row rows[] = {
        {"UTC", {1700000000, 123456}, "2023-Nov-14 ", "22:13:20.123 ", "+0000"},
        {"IST-5:30", {1704418389, 4000}, "2024-Jan-05 ", "07:03:09.004 ", "+0530"},
        {"EST5", {0, 999}, "1969-Dec-31 ", "19:00:00.000 ", "-0500"},
        {"UTC", {0, 1500000}, "1970-Jan-01 ", "00:00:00.1500 ", "+0000"},
        {"UTC", {0, -1500}, "1970-Jan-01 ", "00:00:00.-001 ", "+0000"},
        {"UTC", {LONG_MAX, 999999}, "1970-Jan-01 ", "00:00:00.999 ", "+0000"},
        {"UTC", {LONG_MIN, 0}, "1970-Jan-01 ", "00:00:00.000 ", "+0000"},
    };
    for (const Row& row : rows) {
        setenv("TZ", row.zone, 1);
        tzset();
        EXPECT_EQ(row.date + row.clock + row.offset, Utils::t_stamp_tz(row.time));
        EXPECT_EQ(row.date.substr(5) + row.clock, Utils::t_stamp(row.time, false));
        EXPECT_EQ(row.clock, Utils::t_stamp(row.time, true));
    }
}

static const std::string NEAR = "QOS_EV_TYPE=QOS_NEAREND\n", EOS = "QOS_EV_TYPE=QOS_EOS_NEAREND\n";

TEST(Report, WorkedExamples)
{
    setenv("TZ", "UTC", 1);
    const std::string common =
        "QOS_EV_GCID=3-1016\nQOS_EV_TID=2.117\nQOS_EV_FAR_END_IP=203.0.113.5\nQOS_EV_PORT=5004\n"
        "QOS_EV_SSRC=3735928559\nQOS_EV_SERIAL_NUM=12345678\nQOS_EV_RTCP_CNAME=unit7\n";
    const std::string report =
        NEAR + common +
        "QOS_EV_TIME_STAMP_SEC=1700000000\nQOS_EV_TIME_STAMP_USEC=123456\n"
        "QOS_EV_PACKETS=250\nQOS_EV_LOST_SINCE_LAST_REPORT=2\nQOS_EV_JITTER_AVG=12\n"
        "QOS_EV_LOST_LOST_SINCE_LAST_REPORT_PERCENT=0.8\nQOS_EV_RTT_AVG=40";
    const QoSPacket session(report.c_str(), "9");
    const std::string line =
        "2023-Nov-14 22:13:20.123 +0000    3-1016       2.117 near_end     203.0.113.5  5004     "
        "250    2   0.8     12    40 3735928559 12345 unit7";
    EXPECT_EQ(line, session.log_string());
    EXPECT_EQ("{\"message\": \"" + line + "\"}", session.http_log_string());
    EXPECT_TRUE(session.is_not_eos() && !session.is_eos());
    const std::string summary =
        EOS + common +
        "QOS_EV_TIME_STAMP_SEC=1700000095\nQOS_EV_TIME_STAMP_USEC=500000\n"
        "QOS_EV_DURATION=95\nQOS_EV_PACKETS=4750\nQOS_EV_LOST=12\nQOS_EV_LOST_PERCENT=0.3\n"
        "QOS_EV_JITTER_AVG=9\nQOS_EV_JITTER_MAX=31\nQOS_EV_RTT_AVG=38\nQOS_EV_RTT_MAX=77\n"
        "QOS_EV_RTT_MIN=5\nQOS_EV_FIRST_PACKET_SEC=1700000000\nQOS_EV_FIRST_PACKET_USEC=20000\n"
        "QOS_EV_LAST_PACKET_SEC=1700000094\nQOS_EV_LAST_PACKET_USEC=980000\n";
    const QoSPacket eos(summary.c_str(), "9");
    EXPECT_STREQ(
        "2023-Nov-14 22:14:55.500 +0000    3-1016       2.117  far_end     203.0.113.5  5004    "
        "95    4750   12   0.3      9     31     38     77 22:13:20.020 22:14:54.980 3735928559 "
        "12345 unit7",
        eos.log_string());
    EXPECT_TRUE(eos.is_eos() && !eos.is_not_eos());
}

TEST(Report, EveryRule)
{
    const std::string name = NEAR + "QOS_EV_RTCP_CNAME=", full(1023 - name.size(), 'x');
    const std::string lost = EOS + "QOS_EV_LOST=7\nQOS_EV_GCID=", rest = "\nQOS_EV_LOST";
    const std::string before = lost + std::string(1023 - lost.size() - rest.size(), 'g') + rest;
    const std::string unknown = " [WARN] ignoring unknown key: ";
    const std::string cut =
        " [WARN] ignoring what follows the first 1023 characters of a QoS report\n";
    struct Row {
        std::string report, serial, part_of_line, logged;
    };
    const Row rows[] = {
        {NEAR + "QOS_EV_SERIAL_NUM=ABC", "77", " ABC ", ""},
        {NEAR + "QOS_EV_SERIAL_NUM=", "77", "  77 ", ""},
        {NEAR, "", "   0.0      0     0                0 ", ""},
        {NEAR, std::string(2000, 's'), " sssss ", ""},
        {NEAR + "QOS_EV_SSRC=1\r\n", "", "       1\r ", ""},
        {NEAR + "qos_ev_ssrc=9\n\nQOS_EV_SSRC =8=7\nx", "", "                0 ",
         unknown + "qos_ev_ssrc\n" + unknown + "QOS_EV_SSRC \n" + unknown + "x\n"},
        {name + full, "", "   0 " + full, ""},
        {name + full + "\n", "", "   0 " + full, cut},
        {name + full + "y" + std::string(30000, '='), "", "   0 " + full, cut},
        {before, "", "    0   0.0 ", ""},
        {before + "\nQOS_EV_LOST=9", "", "    0   0.0 ", cut},
        {before + "_PERCENT=5", "", "    7   0.0 ", cut},
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

// Keys, widths and kinds of the columns: s is cut to its width, w is not; d and f are numbers,
// t and z times, T is the type.
static const char* const SESSION_LINE =
    "TIME_STAMP 30 z GCID 9 s TID 11 s TYPE 8 T FAR_END_IP 15 s PORT 5 d PACKETS 7 d "
    "LOST_SINCE_LAST_REPORT 4 d LOST_LOST_SINCE_LAST_REPORT_PERCENT 5 f JITTER_AVG 6 d "
    "RTT_AVG 5 d SSRC 10 w SERIAL_NUM 5 s RTCP_CNAME 0 w ";
static const char* const EOS_LINE =
    "TIME_STAMP 30 z GCID 9 s TID 11 s TYPE 8 T FAR_END_IP 15 s PORT 5 d DURATION 5 d PACKETS 7 d "
    "LOST 4 d LOST_PERCENT 5 f JITTER_AVG 6 d JITTER_MAX 6 d RTT_AVG 6 d RTT_MAX 6 d "
    "FIRST_PACKET 12 t LAST_PACKET 12 t SSRC 10 w SERIAL_NUM 5 s RTCP_CNAME 0 w ";

// The line of a report that was read into a map, put together column by column.
static std::string model_line(std::map<std::string, std::string>& fields)
{
    std::string line, key;
    std::size_t width = 0;
    char kind = 0;
    std::istringstream columns(fields["TYPE"].starts_with("QOS_EOS") ? EOS_LINE : SESSION_LINE);
    while (columns >> key >> width >> kind) {
        const std::string value = fields[key];
        std::ostringstream text;
        if (kind == 't' || kind == 'z') {
            const time_t seconds = std::strtol(fields[key + "_SEC"].c_str(), nullptr, 10);
            const long milliseconds =
                std::strtol(fields[key + "_USEC"].c_str(), nullptr, 10) / 1000;
            text << std::put_time(gmtime(&seconds), kind == 't' ? "%T." : "%Y-%b-%d %T.")
                 << std::setfill('0') << std::setw(3) << milliseconds << " +0000";
        } else if (kind == 'T') {
            text << (value == "QOS_NEAREND" || value == "QOS_EOS_FAREND" ? "near_end" : "far_end");
        } else if (kind == 'd') {
            text << static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
        } else if (kind == 'f') {
            text << std::fixed << std::setprecision(1) << std::strtod(value.c_str(), nullptr);
        } else {
            text << (key == "SERIAL_NUM" && value.empty() ? "0" : value);
        }
        std::string cell = text.str();
        if (kind != 'd' && kind != 'f' && kind != 'w')
            cell.resize(std::min(width, cell.size()));
        line += (line.empty() ? "" : " ") + std::string(width - std::min(width, cell.size()), ' ') +
                cell;
    }
    return line;
}

TEST(Report, AgreesWithASimpleModel)
{
    setenv("TZ", "UTC", 1);
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    std::vector<std::string> keys;
    std::istringstream columns(std::string(SESSION_LINE) + EOS_LINE);
    for (std::string key, width, kind; columns >> key >> width >> kind;)
        for (const char* const end : {"", "_SEC", "_USEC"})
            if (key != "TYPE" && (end[0] == '\0') == (kind != "t" && kind != "z"))
                keys.push_back(key + end);
    for (int round = 0; round < 3000; round++) {
        static const char* const types[] = {"QOS_NEAREND", "QOS_FAREND", "QOS_EOS_NEAREND",
                                            "QOS_EOS_FAREND"};
        std::map<std::string, std::string> fields = {{"TYPE", types[below(4)]}};
        std::string report = "QOS_EV_TYPE=" + fields["TYPE"];
        while (report.size() < 900 && below(40) != 0) {
            std::string value(below(40), ' ');
            std::generate(value.begin(), value.end(),
                          [&] { return static_cast<char>(below(255) + 1); });
            std::replace(value.begin(), value.end(), '\n', '=');
            if (below(2) != 0)
                value = std::to_string(static_cast<int>(random()) >> below(31));
            const std::string key = keys[below(keys.size())];
            if (key.ends_with("SEC") && value[0] == '-')
                value.erase(0, 1);
            fields[key] = below(20) == 0 ? "" : value;
            report +=
                "\nQOS_EV_" + key + (fields[key].empty() && below(2) != 0 ? "" : "=" + fields[key]);
        }
        const QoSPacket packet(report.c_str(), "");
        ASSERT_EQ(model_line(fields), packet.log_string()) << report;
    }
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
