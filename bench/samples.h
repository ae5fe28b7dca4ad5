// Input of the benchmarks: what the voice software typically sends.
#pragma once

#include <array>
#include <cstddef>
#include <string>

// A session report of 500 bytes. Its statistics line has 139 bytes.
inline const std::string SESSION_REPORT = "QOS_EV_TYPE=QOS_NEAREND\n"
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

constexpr std::size_t VOICE_PAYLOAD = 160;

// A voice record of 160 bytes of payload behind its 24-byte header.
inline std::array<char, 24 + VOICE_PAYLOAD> voice_record()
{
    std::array<char, 24 + VOICE_PAYLOAD> record{};
    record[3] = static_cast<char>(VOICE_PAYLOAD);
    return record;
}
