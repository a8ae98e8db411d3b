// Delivery counters: what the table alone decides. The figures themselves
// are checked end to end against scripted servers (system test "stats").

#include <array>

#include "radius/client_stats.h"
#include "test_support.h"

namespace {

class ClientStats : public DbTest {
protected:
    // A profile and its Accounting-On.
    static struct accounting_radius *add_profile(const std::string &iface, const std::string &server)
    {
        struct accounting_radius *r = make_profile(iface.c_str(), server.c_str(), "s");
        transaction_begin(add_new_node_for_on_off(r), ACCOUNTING_ON);
        return r;
    }

    // The row of server:1813, or an empty one with requests 99 if it has none.
    static client_stats_row row(const char *server)
    {
        struct in_addr addr;
        inet_aton(server, &addr);
        client_stats_row r = {};
        if (client_stats_of(addr, 1813, &r) != 0)
            r.requests = 99;
        return r;
    }

    static void pass(time_t seconds) { scheduler_pass(testenv::now += seconds); }
};

// A request is the first datagram of a packet that left: a packet whose send
// failed is no request, nor pending at its server, nor a time-out there, and
// counts when it leaves at its next deadline; each new packet of a node (the
// Interim-Update after an answered Start) is a request again.
TEST_F(ClientStats, OnlyAPacketThatLeftIsARequestPendingOrATimeOut)
{
    const radius_sendto_fn capture = radius_sendto;
    const radius_sendto_fn fail = [](int, const void *, size_t, const struct sockaddr_in *) -> ssize_t { return -1; };
    radius_sendto = fail;
    struct accounting_radius *profile = add_profile("wlan-1-1", "127.0.0.1");
    EXPECT_EQ(row("127.0.0.1").requests, 99u);  // no row: nothing went there
    radius_sendto = capture;
    pass(6);  // its deadline: no time-out of what never left
    pass(3);
    client_stats_row r = row("127.0.0.1");
    EXPECT_EQ((std::array<uint32_t, 3>{r.requests, r.retransmissions, r.timeouts}), (std::array<uint32_t, 3>{1, 0, 0}));
    answer_last_request("s");
    accounting_msg_t m = login_record("alice", "02:00:00:00:00:01", "wlan-1-1", 60);
    struct accounting_node *n = add_new_node(&m, profile, PROFILE_TYPE_NORMAL, 0);
    transaction_begin(n, ACCOUNTING_START);
    answer_last_request("s");
    radius_sendto = fail;
    pass(60);  // the Interim-Update, composed, goes nowhere
    EXPECT_EQ(row("127.0.0.1").pending, 0u);
    radius_sendto = capture;
    for (int i = 0; i < 11; i++)
        pass(1);  // its deadline; then it leaves, and its next deadline passes
    EXPECT_EQ(row("127.0.0.1").timeouts, 1u);
    radius_sendto = fail;
    pass(1);  // the retransmission goes nowhere
    EXPECT_EQ(row("127.0.0.1").pending, 0u);
    radius_sendto = capture;
    pass(5);
    r = row("127.0.0.1");
    EXPECT_EQ((std::array<uint32_t, 3>{r.requests, r.retransmissions, r.timeouts}), (std::array<uint32_t, 3>{3, 0, 1}));
}

TEST_F(ClientStats, ServersBeyondTheTableShareOneRow)
{
    for (int i = 1; i <= CLIENT_STATS_SERVERS + 2; i++)
        add_profile("wlan-1-" + std::to_string(i), "10.0.0." + std::to_string(i));
    EXPECT_EQ(row("10.0.0.32").requests, 1u);
    EXPECT_EQ(row("10.0.0.33").requests, 99u);
    char text[CLIENT_STATS_TEXT];
    client_stats_report(text, sizeof text);
    EXPECT_NE(std::string(text).find("\nserver other 0 requests 2 "), std::string::npos);
    // A report cut short is still a text.
    EXPECT_EQ(client_stats_report(text, 16), 15u);
    EXPECT_STREQ(text, "server 10.0.0.1");
}

}  // namespace
