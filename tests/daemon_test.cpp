#include <gtest/gtest.h>

#include "support/harness.h"

TEST(Daemon, WritesAReportAndStops)
{
    for (const bool faulty : {false, true}) {
        Daemon daemon("", faulty);
        daemon.start();
        daemon.send_qos("QOS_EV_TYPE=QOS_NEAREND\nQOS_EV_RTCP_CNAME=one");
        EXPECT_TRUE(daemon.holds("QoS_Stat.txt", " one\n"));
        EXPECT_EQ(0, daemon.stop());
    }
}
