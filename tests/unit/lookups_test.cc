#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>

#include "platform/station_lookups.h"
#include "sim_env.h"

// A known station's answers reach FreeRADIUS in the system tests, and an
// unknown one's show in the composition test; here, the answers that are no good.
TEST(Lookups, AddressFromTheFirstLineOnlyAndCountersBothSetOrBothZero)
{
    SimDevice sim;
    for (auto [script, mac, want] : std::initializer_list<std::tuple<std::string, const char *, const char *>>{
             {"echo '  IPv4:  192.0.2.8'; echo '  IPv4:  198.51.100.1'", "AA-BB-CC-DD-EE-0F", "192.0.2.8"},
             {"echo '  IPv4:  0.0.0.0'", "AA-BB-CC-DD-EE-0F", "0.0.0.0"},  // a good address, though zero
             {"echo '  IPv4:  garbage'", "AA-BB-CC-DD-EE-0F", "none 0.0.0.0"},
             {"true", "AA-BB-CC-DD-EE-0F", "none 0.0.0.0"},  // not a line
             // The MAC goes into a shell command line: no shell for anything else.
             {"touch " + sim.dir() + "/ran", "AA'; touch x; '", "none 0.0.0.0"}}) {
        sim.fake_ovat(script);
        struct in_addr ip = {htonl(0x0a000001)};  // to be cleared on every path
        const bool found = whal_getip(mac, &ip) != 0;
        EXPECT_EQ((found ? "" : "none ") + std::string(inet_ntoa(ip)), want) << script;
    }
    EXPECT_NE(access((sim.dir() + "/ran").c_str(), F_OK), 0);

    sim.write("mac", "02:00:00:00:00:aa\n");  // the device's MAC names the statistics table
    sim.write("stations", "aa:bb:cc:00:00:01 - 12abc 7\naa:bb:cc:00:00:02 - 100 0\naa:bb:cc:00:00:03 - - 5\n"
                          "aa:bb:cc:00:00:04 - 5 -\naa:bb:cc:00:00:05 - 99999999999 7\n");
    // Reading stops at the first non-digit; one counter 0, missing or beyond
    // an int zeroes both, as an unknown station (06) does.
    for (auto [mac, rx, tx] : std::initializer_list<std::tuple<const char *, uint64_t, uint64_t>>{
             {"aa:bb:cc:00:00:01", 12, 7}, {"aa:bb:cc:00:00:02", 0, 0}, {"aa:bb:cc:00:00:03", 0, 0},
             {"aa:bb:cc:00:00:04", 0, 0}, {"aa:bb:cc:00:00:05", 0, 0}, {"aa:bb:cc:00:00:06", 0, 0}}) {
        conn_t c = {7, 7};
        EXPECT_EQ(get_connection_status_by_ip(mac, &c), 0);
        EXPECT_EQ(std::make_pair(c.rx, c.tx), std::make_pair(rx, tx)) << mac;
    }
}
