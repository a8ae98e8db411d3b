#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "radius/radius_send_recieve.h"
#include "sim_env.h"
#include "test_support.h"

namespace {

class LookupTest : public DbTest {
protected:
    SimDevice sim;
    int found = -1;

    std::string getip(const char *mac)
    {
        struct in_addr ip;
        ip.s_addr = htonl(0x0a000001);  // must be cleared on every path
        found = whal_getip(mac, &ip);
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &ip, text, sizeof text);
        return text;
    }
    conn_t counters(const char *rrm_mac)
    {
        conn_t c = {7, 7};
        EXPECT_EQ(get_connection_status_by_ip(rrm_mac, &c), 0);
        return c;
    }
};

}  // namespace

TEST_F(LookupTest, StationAddress)
{
    sim.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 1 1\nAABBCCDDEE10 - 1 1\n");
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-0F"), "192.0.2.7");
    EXPECT_NE(found, 0);
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-10"), "0.0.0.0");  // no address known
    EXPECT_EQ(found, 0);
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-11"), "0.0.0.0");  // no such station
    EXPECT_EQ(found, 0);

    sim.fake_ovat("echo '  IPv4:  192.0.2.8'; echo '  IPv4:  198.51.100.1'");
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-0F"), "192.0.2.8");  // the first line only
    sim.fake_ovat("echo '  IPv4:  0.0.0.0'");
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-0F"), "0.0.0.0");
    EXPECT_NE(found, 0);  // a good address, though zero
    sim.fake_ovat("echo '  IPv4:  garbage'");
    EXPECT_EQ(getip("AA-BB-CC-DD-EE-0F"), "0.0.0.0");
    EXPECT_EQ(found, 0);
    EXPECT_NE(console().find("STA IP invaild:(garbage)\n"), std::string::npos);

    // The MAC goes into a shell command line: no shell for anything else.
    sim.fake_ovat("touch " + sim.dir() + "/ran");
    EXPECT_EQ(getip("AA'; touch x; '"), "0.0.0.0");
    EXPECT_NE(access((sim.dir() + "/ran").c_str(), F_OK), 0);
}

TEST_F(LookupTest, CountersAreBothSetOrBothZero)
{
    sim.write("mac", "02:00:00:00:00:aa\n");  // names the statistics table
    sim.write("stations", "aa:bb:cc:00:00:01 - 100 200\n"
                          "aa:bb:cc:00:00:02 - 12abc 7\n"
                          "aa:bb:cc:00:00:03 - 100 0\n"
                          "aa:bb:cc:00:00:04 - - 5\n"
                          "aa:bb:cc:00:00:05 - 5 -\n"
                          "aa:bb:cc:00:00:06 - 99999999999 7\n");
    conn_t c = counters("aa:bb:cc:00:00:01");
    EXPECT_EQ(c.rx, 100u);
    EXPECT_EQ(c.tx, 200u);
    c = counters("aa:bb:cc:00:00:02");  // reading stops at the first non-digit
    EXPECT_EQ(c.rx, 12u);
    EXPECT_EQ(c.tx, 7u);
    for (const char *mac : {"aa:bb:cc:00:00:03", "aa:bb:cc:00:00:04", "aa:bb:cc:00:00:05",
                            "aa:bb:cc:00:00:06", "aa:bb:cc:00:00:07"}) {
        c = counters(mac);
        EXPECT_EQ(c.rx + c.tx, 0u) << mac;
    }
}
