// Station thread inputs as raw bytes: what the driver, the authenticator
// and the HAL can send that the system tests cannot easily shape.
#include <climits>
#include <regex>

#include "events/driver_events.h"
#include "events/session_stop.h"
#include "events/station_events.h"
#include "test_support.h"

namespace {

const uint8_t MAC[6] = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x01};

void feed(const std::vector<uint8_t> &d) { netlink_input(d.data(), d.size()); }
void driver(uint16_t cmd, const char *ifname, uint64_t tx = 0, uint64_t rx = 0)
{
    feed(driver_message(cmd, ifname, MAC, tx, rx));
}

class Station : public DbTest {
protected:
    SimDevice dev;
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "k");

    struct accounting_node *session(bool started)
    {
        accounting_msg_t m = login_record("alice", "aa:bb:cc:dd:ee:01", "wlan-1-1");
        EXPECT_EQ(station_login_input(&m, sizeof m), 0);
        auto *n = list_entry(mac_address_header.prev, struct accounting_node, address_sorting_list);
        if (started)
            report();
        return n;
    }
    static void report(size_t len = sizeof(staStatus_t))
    {
        staStatus_t s = station_report(MAC, 0x0a000007);  // 10.0.0.7
        station_report_input(&s, len);
    }
};

TEST_F(Station, LoginsWaitForTheirReportOneAtATime)
{
    accounting_msg_t m = login_record("bob", "aa:bb:cc:dd:ee:01", "wlan-9-9");
    EXPECT_EQ(station_login_input(&m, sizeof m), -1);  // no profile: the pass ends
    EXPECT_EQ(station_login_input(&m, sizeof m - 1), 0);  // short: dropped
    EXPECT_TRUE(list_empty(&mac_address_header));

    struct accounting_node *a = session(false), *b = session(false);
    report(sizeof(staStatus_t) - 1);  // short: starts nothing
    EXPECT_EQ(testenv::sent.size(), 0u);
    report();
    EXPECT_EQ(a->self->user->accounting_start, 1);
    EXPECT_EQ(b->self->user->accounting_start, 0);
    EXPECT_EQ(testenv::sent.size(), 1u);
    report();
    EXPECT_EQ(b->self->user->accounting_start, 1);
    EXPECT_TRUE(list_empty(&ip_change_header));
}

TEST_F(Station, StopOfEachKindOfSession)
{
    session(false);
    driver(SARNET_CMD_STA_DISASSOC, "wlan-1-1");
    EXPECT_TRUE(list_empty(&mac_address_header));  // never started: gone, no packet
    EXPECT_EQ(testenv::sent.size(), 0u);

    struct accounting_node *n = session(true);  // the Start stays unanswered
    driver(SARNET_CMD_STA_COUNTERS, "wlan-1-1", 700, 900);
    driver(SARNET_CMD_STA_COUNTERS, "wlan-1-1", 5, 0);  // a zero in the pair: not stored
    EXPECT_EQ(n->self->conn_tx_rx_status.tx, 700u);
    EXPECT_EQ(n->self->conn_tx_rx_status.rx, 900u);
    driver(SARNET_CMD_STA_DISASSOC, "wlan-1-2");  // another interface
    EXPECT_EQ(testenv::sent.size(), 1u);
    driver(SARNET_CMD_STA_DISASSOC, "wlan-1-1");
    EXPECT_EQ(testenv::sent.size(), 2u);  // the Stop (its attributes and cause are the radacct test's)
    EXPECT_TRUE(list_empty(&mac_address_header));
}

TEST_F(Station, DriverDatagramsAreReadOnlyWithinTheirBytes)
{
    struct accounting_node *n = session(true);
    auto stopped = [&] { return list_empty(&mac_address_header); };
    std::vector<uint8_t> ev = driver_message(SARNET_CMD_STA_DISASSOC, "wlan-1-1", MAC);

    // A cut datagram (what may lie past its bytes is fuzz_netlink's to find).
    netlink_input(ev.data(), ev.size() - 1);
    // A name that gives no indexes, and an OWE WLAN without its record: dropped.
    for (const char *name : {"br0", "wlan-1-14"})
        driver(SARNET_CMD_STA_DISASSOC, name);
    EXPECT_FALSE(stopped());
    EXPECT_NE(n->self->user->accounting_start, 0);
    // The tenth WLAN never stops a session, even one that runs there.
    make_profile("wlan-1-10", "127.0.0.1", "k");
    accounting_msg_t m = login_record("dave", "aa:bb:cc:dd:ee:01", "wlan-1-10");
    station_login_input(&m, sizeof m);
    report();
    driver(SARNET_CMD_STA_DISASSOC, "wlan-1-10");
    EXPECT_EQ(list_length(&mac_address_header), 2u);
    // Index tokens beyond int are cut to it rather than left undefined.
    int radio = 0, wlan = 0;
    EXPECT_EQ(getInterfaceIdx("x-1-2147483648", &radio, &wlan), 1);
    EXPECT_EQ(wlan, INT_MAX - 1);
    free_accounting_node(list_entry(mac_address_header.prev, struct accounting_node, address_sorting_list));

    // A short message of another type ahead of the event: skipped, event served.
    std::vector<uint8_t> two(16);
    nlmsghdr h{16, 3, 0, 0, 0};
    memcpy(two.data(), &h, sizeof h);
    two.insert(two.end(), ev.begin(), ev.end());
    feed(two);
    EXPECT_TRUE(stopped());
}

// A device MAC that cannot be read is reported with each session it would name.
TEST_F(Station, CloudAssociationAddressOweRuleAndUnreadableDeviceMac)
{
    Captured out;
    is_cloud = 1;
    const std::string ap_mac = global_ap_mac;
    global_ap_mac[0] = '\0';
    struct accounting_radius *portal = make_profile("wlan-1-3", "127.0.0.1", "k", "", "", PROFILE_TYPE_PORTAL);
    for (int i = 0; i < 2; i++)  // twice: each opens a session that names the device, ending the one before
        ASSERT_NE(portal_user_add("aa:bb:cc:dd:ee:01", "carol", "Guest", "SSID3"), nullptr);
    dev.write("owe", "1 14 3\n");
    driver(SARNET_CMD_STA_ASSOC, "wlan-1-14");  // the open SSID of WLAN 14 is 3
    copy_text(global_ap_mac, sizeof global_ap_mac, ap_mac.c_str());
    ASSERT_EQ(list_length(&portal_mac_address_header), 1u);
    auto *n = list_entry(portal_mac_address_header.next, struct accounting_node, address_sorting_list);
    EXPECT_STREQ(n->self->user->user_name, "carol");
    EXPECT_EQ(n->self->acct_radius, portal);
    const std::string said = out.text(), trace = "unknow format !!!";
    EXPECT_EQ((said.size() - std::regex_replace(said, std::regex(trace), "").size()) / trace.size(), 2u);

    // The address stands hdr.len bytes into the record: dropped where it
    // would lie beyond what the driver sent (one byte short at 189 of 192),
    // taken wherever it lies within, even past the record's end (the last
    // four of 200).
    struct accounting_node *s = session(false);
    for (auto [at, extra, addr] : {std::tuple<uint16_t, size_t, uint32_t>{189, 0, 9}, {196, 8, 11}}) {
        std::vector<uint8_t> ip = driver_message(SARNET_CMD_STA_IP, "wlan-1-1", MAC);
        ip.resize(ip.size() + extra);
        const size_t req = SARNET_ATTR_OFFSET + 4 + offsetof(sarnet_event, data);
        uint32_t total = static_cast<uint32_t>(ip.size());
        uint16_t attr = static_cast<uint16_t>(4 + sizeof(sarnet_event) + extra);
        memcpy(&ip[0], &total, 4);
        memcpy(&ip[SARNET_ATTR_OFFSET], &attr, 2);
        memcpy(&ip[req], &at, 2);
        memcpy(&ip[std::min(req + at, ip.size() - 4)], &addr, 4);
        feed(ip);
    }
    EXPECT_EQ(s->self->user->user_ip.s_addr, 11u);
}

}  // namespace
