// The opt-in extensions, each beside the design's behaviour it replaces.
#include <arpa/inet.h>

#include <set>

#include "database/nodes.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "delivery/transaction.h"
#include "events/session_stop.h"
#include "delivery/identifiers.h"
#include "delivery/policy.h"
#include "platform/station_lookups.h"
#include "radius/compose.h"
#include "radius/radius_send_recieve.h"
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

// Gigawords end to end are the radacct system test's; here what it cannot
// shape: each option reads counters past 2^31 on its own, a failed look-up
// keeps the address and counters, and a reset of the device's counters adds
// to what the session had counted, where the design takes each reading.
TEST_F(Extensions, SteadyCountersSurviveFailuresAndResets)
{
    const conn_t big = {6871947674u, 10415461204u};
    dev.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 6871947674 10415461204\n");
    struct accounting_node *n = session();
    for (unsigned mode : {unsigned{EXT_GIGAWORDS}, unsigned{EXT_STEADY_COUNTERS}}) {
        policy_choose(mode);
        n->self->conn_tx_rx_status = conn_t{};
        ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
        EXPECT_EQ(n->self->conn_tx_rx_status.rx, big.rx) << mode;
        EXPECT_EQ(n->self->conn_tx_rx_status.tx, big.tx) << mode;
    }
    dev.write("stations", "aa:bb:cc:dd:ee:0f - 12abc 7\n");  // neither an address nor a number
    ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
    EXPECT_EQ(n->self->user->user_ip.s_addr, inet_addr("192.0.2.7"));
    EXPECT_EQ(n->self->conn_tx_rx_status.rx, big.rx);
    // The driver restarts: its counters begin again, and the session's go on from its total.
    for (uint64_t after : {100u, 150u}) {
        conn_t lower = {after, 2 * after};
        accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
        EXPECT_EQ(n->self->conn_tx_rx_status.rx, big.rx + after);
        EXPECT_EQ(n->self->conn_tx_rx_status.tx, big.tx + 2 * after);
    }
    conn_t one_zero = {0, 900};
    accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &one_zero);
    EXPECT_EQ(n->self->conn_tx_rx_status.tx, big.tx + 300);
    policy_choose(0);
    conn_t lower = {100, 100};
    accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
    EXPECT_EQ(n->self->conn_tx_rx_status.rx, 100u);
}

TEST_F(Extensions, IdentifiersInFlightAreNeverReused)
{
    policy_choose(EXT_UNIQUE_IDS);
    radius_source_limit = 2;  // two sockets: 512 Identifiers
    debug = 0;                // 514 packets' worth of console lines cost seconds
    std::vector<struct accounting_node *> nodes;
    for (int i = 0; i < 514; i++) {
        nodes.push_back(session());
        transaction_begin(nodes.back(), ACCOUNTING_START);
    }
    // 512 in flight, all different on each socket; two wait, composed,
    // sending nothing.
    std::set<std::pair<int, int>> ids;
    for (const SentDatagram &d : testenv::sent)
        ids.insert({d.fd, d.bytes[1]});
    ASSERT_EQ(testenv::sent.size(), 512u);
    EXPECT_EQ(ids.size(), 512u);
    EXPECT_EQ(list_length(&id_wait_header), 2u);
    // An answer on the second socket is its request's, though a request on
    // the first holds the same Identifier; the oldest waiting request takes
    // what it sets free, on that socket.
    const SentDatagram second = testenv::sent[300];
    testenv::sent.push_back(second);
    answer_last_request("k", 1);
    ASSERT_EQ(testenv::sent.size(), 514u);
    EXPECT_EQ(testenv::sent.back().fd, second.fd);
    EXPECT_EQ(testenv::sent.back().bytes[1], second.bytes[1]);
    EXPECT_EQ(nodes[300]->self->request, nullptr);
    EXPECT_EQ(nodes[512]->self->source, 1);
    EXPECT_EQ(list_length(&id_wait_header), 1u);
    // A request moved to the fail queue still holds its Identifier.
    insert_node_to_queue(nodes[0], QUEUE_TYPE_FAIL);
    transaction_begin(session(), ACCOUNTING_START);
    EXPECT_EQ(testenv::sent.size(), 514u);
    EXPECT_EQ(list_length(&id_wait_header), 2u);
    // The release of a profile takes its waiting nodes too (the teardown
    // checks that nothing leaks).
}

// With the budget per request, an answer sends the next request to the
// primary with all its transmissions, then to the backup; the design goes
// on with the server and the count the session had.
TEST_F(Extensions, AnAnswerRenewsTheRetryBudget)
{
    for (unsigned mode : {0u, unsigned{EXT_RETRY_PER_REQUEST}}) {
        clear_database();
        r = make_profile("wlan-1-1", "127.0.0.1", "k", "127.0.0.2", "b");
        policy_choose(mode);
        testenv::sent.clear();
        struct accounting_node *n = session();
        transaction_begin(n, ACCOUNTING_START);
        // Four to the primary, the second to the backup is answered.
        for (int i = 0; i < 1000 && testenv::sent.size() < 6; i++)
            scheduler_pass(testenv::now += 1);
        ASSERT_EQ(testenv::sent.size(), 6u);
        answer_last_request("b");
        std::string to;
        for (int i = 0; i < 400; i++)
            scheduler_pass(testenv::now += 1);
        for (size_t k = 6; k < testenv::sent.size(); k++)
            to += testenv::sent[k].to.sin_addr.s_addr == inet_addr("127.0.0.1") ? 'p' : 'b';
        EXPECT_EQ(to, mode ? "ppppbbbb" : "bbb");
    }
}

}  // namespace
