// The opt-in extensions, each beside the design's behaviour it replaces.
#include <arpa/inet.h>

#include <set>

#include "database/nodes.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "delivery/transaction.h"
#include "events/session_stop.h"
#include "frame/extensions.h"
#include "platform/station_lookups.h"
#include "radius/compose.h"
#include "sim_env.h"
#include "test_support.h"

namespace {

class Extensions : public DbTest {
protected:
    SimDevice dev;
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "k");

    struct accounting_node *session(const char *mac = "aa:bb:cc:dd:ee:0f")
    {
        accounting_msg_t m = login_record("alice", mac, "wlan-1-1", 60);
        struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
        n->self->user->accounting_start = 1;
        return n;
    }
};

// Gigawords and the 64-bit reading are proven end to end by the radacct
// system test; here what it cannot shape: a failed look-up keeps the address
// and counters, and a lower driver report lowers nothing, but in the design.
TEST_F(Extensions, SteadyCountersKeepWhatTheSessionKnew)
{
    dev.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 6871947674 10415461204\n");
    struct accounting_node *n = session();
    extensions = EXT_STEADY_COUNTERS;
    ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
    dev.write("stations", "aa:bb:cc:dd:ee:0f - 12abc 7\n");  // neither an address nor a number
    ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
    EXPECT_EQ(n->self->user->user_ip.s_addr, inet_addr("192.0.2.7"));
    conn_t lower = {100, 100};
    accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
    EXPECT_EQ(n->self->conn_tx_rx_status.rx + n->self->conn_tx_rx_status.tx, 6871947674u + 10415461204u);
    extensions = 0;
    accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
    EXPECT_EQ(n->self->conn_tx_rx_status.rx, 100u);
}

TEST_F(Extensions, IdentifiersInFlightAreNeverReused)
{
    extensions = EXT_UNIQUE_IDS;
    debug = 0;  // 258 packets' worth of console lines cost seconds
    std::vector<struct accounting_node *> nodes;
    for (int i = 0; i < 258; i++) {
        nodes.push_back(session());
        transaction_begin(nodes.back(), ACCOUNTING_START);
    }
    // 256 in flight, all different; two wait, composed, sending nothing.
    std::set<int> ids;
    for (const SentDatagram &d : testenv::sent)
        ids.insert(d.bytes[1]);
    EXPECT_EQ(testenv::sent.size(), 256u);
    EXPECT_EQ(ids.size(), 256u);
    EXPECT_EQ(list_length(&id_wait_header), 2u);
    // An answer sets one free, and the oldest waiting request takes it.
    const uint8_t freed = testenv::sent[5].bytes[1];
    std::vector<uint8_t> fifth = testenv::sent[5].bytes;
    testenv::sent.push_back({fifth, {}});
    answer_last_request("k");
    ASSERT_EQ(testenv::sent.size(), 258u);
    EXPECT_EQ(testenv::sent.back().bytes[1], freed);
    EXPECT_EQ(nodes[256]->self->request->id, freed);
    EXPECT_EQ(list_length(&id_wait_header), 1u);
    // Retransmissions keep Identifier and bytes; the release of a profile
    // takes its waiting nodes too (the teardown checks that nothing leaks).
    EXPECT_EQ(list_length(&request_queue_header), 256u);
}

TEST_F(Extensions, AnAnswerRenewsTheRetryBudget)
{
    for (unsigned mode : {0u, unsigned{EXT_RETRY_PER_REQUEST}}) {
        extensions = mode;
        testenv::sent.clear();
        struct accounting_node *n = session();
        transaction_begin(n, ACCOUNTING_START);
        // Two time-outs, then the retransmission is answered.
        for (int i = 0; i < 2; i++) {
            testenv::now += 9;
            scheduler_pass(testenv::now);
            testenv::now += 3;
            scheduler_pass(testenv::now);
        }
        answer_last_request("k");
        EXPECT_EQ(n->self->retry_count, mode ? 1 : 3);
        // The next request: 4 transmissions with a fresh budget, 2 without.
        const size_t before = testenv::sent.size();
        testenv::now += 60;
        for (int i = 0; i < 40; i++)
            scheduler_pass(testenv::now += 3);
        EXPECT_EQ(testenv::sent.size() - before, mode ? 4u : 2u);
        clear_database();
        r = make_profile("wlan-1-1", "127.0.0.1", "k");
    }
}

}  // namespace
