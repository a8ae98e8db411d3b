// The opt-in extensions and the delivery policy of -k, each beside the
// design's behaviour it replaces.

#include "database/accounting_db_api.h"
#include "delivery/lookups.h"
#include "delivery/servers.h"
#include "events/profile_events.h"
#include "events/session_stop.h"
#include "platform/station_lookups.h"
#include "radius/compose.h"
#include "test_support.h"

namespace {

const in_addr_t PRIMARY = inet_addr("127.0.0.1");

// Where datagrams went from `from` on: p or b, upper case for a Stop, ? for a Status-Server.
std::string route_of(size_t from = 0)
{
    std::string s;
    for (size_t k = from; k < testenv::sent.size(); k++) {
        const SentDatagram &d = testenv::sent[k];
        AUTH_HDR h = {};
        uint32_t status = 0;
        memcpy(&h, d.bytes.data(), std::min(d.bytes.size(), sizeof h));
        radius_msg_get_attr_int32(&h, RADIUS_ATTR_ACCT_STATUS_TYPE, &status);
        char c = d.to.sin_addr.s_addr == PRIMARY ? 'p' : 'b';
        s += h.code == RADIUS_CODE_STATUS_SERVER ? '?' : status == 2 ? c - 32 : c;
    }
    return s;
}

void run(int seconds)
{
    for (int i = 0; i < seconds; i++)
        scheduler_pass(++testenv::now);
}

class Extensions : public DbTest {
protected:
    SimDevice dev;
    struct accounting_radius *r = make_profile("wlan-1-1", "127.0.0.1", "k");

    struct accounting_node *session(const char *mac = "aa:bb:cc:dd:ee:0f", int interim = 60)
    {
        accounting_msg_t m = login_record("alice", mac, "wlan-1-1", interim);
        struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
        n->self->user->accounting_start = 1;
        return n;
    }
    // The primary 127.0.0.1 ("k") and the backup 127.0.0.2 ("b"), under these options.
    void two_servers(unsigned options, const char *primary = "127.0.0.1")
    {
        clear_database();
        r = make_profile("wlan-1-1", primary, "k", "127.0.0.2", "b");
        policy_choose(options);
        testenv::sent.clear();
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
    auto counted = [&] { return std::make_pair(n->self->conn_tx_rx_status.rx, n->self->conn_tx_rx_status.tx); };
    for (unsigned mode : {unsigned{EXT_GIGAWORDS}, unsigned{EXT_STEADY_COUNTERS}}) {
        policy_choose(mode);
        n->self->conn_tx_rx_status = conn_t{};
        ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
        EXPECT_EQ(counted(), std::make_pair(big.rx, big.tx)) << mode;
    }
    dev.write("stations", "aa:bb:cc:dd:ee:0f - 12abc 7\n");  // neither an address nor a number
    ASSERT_EQ(accounting_msg(n, ACCOUNTING_INTERIM), 0);
    EXPECT_EQ(n->self->user->user_ip.s_addr, inet_addr("192.0.2.7"));
    EXPECT_EQ(counted(), std::make_pair(big.rx, big.tx));
    // The driver restarts: its counters begin again, and the session's go on
    // from its total; a pair with a zero is no reading.
    for (conn_t lower : {conn_t{100, 200}, conn_t{150, 300}, conn_t{0, 900}}) {
        accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
        const conn_t device = lower.rx ? lower : conn_t{150, 300};
        EXPECT_EQ(counted(), std::make_pair(big.rx + device.rx, big.tx + device.tx)) << lower.rx;
    }
    policy_choose(0);  // the design takes the lower reading as it is
    conn_t lower = {100, 100};
    accounting_update_tx_rx("AA-BB-CC-DD-EE-0F", PROFILE_TYPE_NORMAL, &lower);
    EXPECT_EQ(counted(), std::make_pair(uint64_t{100}, uint64_t{100}));
}

// With the budget per request an answer sends the next request to the
// first server with all its transmissions, and a Stop that replaces an
// unanswered Interim-Update has all its own; the design goes on with the
// server and the count the session had.
TEST_F(Extensions, AnAnswerAndAStopRenewTheRetryBudget)
{
    for (unsigned mode : {0u, unsigned{EXT_RETRY_PER_REQUEST}}) {
        two_servers(mode);
        struct accounting_node *n = session();
        transaction_begin(n, ACCOUNTING_START);
        run(30);  // four to the primary, the second to the backup is answered
        ASSERT_EQ(route_of(), "ppppbb");
        answer_last_request("b");
        run(66);  // the Interim-Update at 60 s, and its second transmission
        conn_t counters = {1, 1};
        accounting_stop_by_mac(n, PROFILE_TYPE_NORMAL, &counters);
        run(400);
        EXPECT_EQ(route_of(6), mode ? "ppPPPPBBBB" : "bbBB") << mode;
    }
}

// A profile with only a backup (the profile store allows it) under -r: an
// answer leaves the session on the backup, so its next request leaves at
// once; and a Stop composed at the fail queue's resend (its first
// composition found no memory) is still a Stop, which ends the session.
TEST_F(Extensions, ABackupOnlyProfileKeepsItsServerAndItsStop)
{
    two_servers(EXT_RETRY_PER_REQUEST, "");
    struct accounting_node *n = session();
    transaction_begin(n, ACCOUNTING_START);
    answer_last_request("b");
    run(60);
    ASSERT_EQ(route_of(), "bb");
    answer_last_request("b");
    mtr_alloc_fail_at(1);
    conn_t counters = {1, 1};
    accounting_stop_by_mac(n, PROFILE_TYPE_NORMAL, &counters);
    run(6);
    answer_last_request("b");
    run(100);
    EXPECT_EQ(route_of(), "bbB");
    EXPECT_TRUE(list_empty(&r->user_node_header));
}

// Unique Identifiers with one socket: requests that find all 256 held wait
// in the order they came; an answer frees one for the oldest at once; the
// Identifier of a request left unanswered rests before it is taken again.
TEST_F(Extensions, WaitersGoInOrderAndAnAbandonedIdentifierRests)
{
    policy_choose(EXT_UNIQUE_IDS);
    radius_source_limit = 1;
    debug = 0;
    std::vector<struct accounting_node *> n;
    for (int i = 0; i < 258; i++) {
        n.push_back(session());
        if (i != 256)
            transaction_begin(n.back(), ACCOUNTING_START);
    }
    ASSERT_EQ(testenv::sent.size(), 256u);
    // The first session's Start is abandoned by its Stop, whose Identifier
    // it cannot take yet: the Stop waits, and a Start behind it.
    conn_t counters = {1, 1};
    accounting_stop_by_mac(n[0], PROFILE_TYPE_NORMAL, &counters);
    transaction_begin(n[257], ACCOUNTING_START);
    EXPECT_EQ(testenv::sent.size(), 256u);
    EXPECT_EQ(list_length(&id_wait_header), 2u);
    const SentDatagram first = testenv::sent[0], second = testenv::sent[1];
    reply(second, "k");
    ASSERT_EQ(route_of(256), "P");
    EXPECT_EQ(testenv::sent.back().bytes[1], second.bytes[1]);
    // The rest is over, but before the pass that wakes the waiters a new
    // request still goes behind them.
    testenv::now += 10;
    transaction_begin(n[256], ACCOUNTING_START);
    EXPECT_EQ(testenv::sent.size(), 257u);
    scheduler_pass(testenv::now);
    ASSERT_EQ(testenv::sent.size(), 258u);
    EXPECT_EQ(testenv::sent.back().bytes[1], first.bytes[1]);
    EXPECT_NE(n[257]->self->request, nullptr);
    EXPECT_EQ(n[256]->self->request, nullptr);
    // A request moved to the fail queue still holds its Identifier.
    insert_node_to_queue(n[2], QUEUE_TYPE_FAIL);
    transaction_begin(session(), ACCOUNTING_START);
    EXPECT_EQ(testenv::sent.size(), 258u);
    EXPECT_EQ(list_length(&id_wait_header), 2u);
}

// -k: a server that lets a request's whole budget pass is dead; it is
// probed with Status-Server, less often up to the cap, and only a verified
// answer makes it live again, when new requests go to it with a whole budget.
// That the probe verifies at FreeRADIUS, and failback, are the system test's.
TEST_F(Extensions, ADeadServerIsProbedUpToTheCapAndRevivedOnlyByAVerifiedAnswer)
{
    two_servers(EXT_KEEP_RECORDS);
    transaction_begin(session("aa:bb:cc:dd:ee:01", 0), ACCOUNTING_START);
    run(23);
    ASSERT_EQ(route_of(), "ppppb");
    answer_last_request("b");
    const time_t death = testenv::now;
    ovat_exit_remove_radius_all();  // its Accounting-Off, sent once, to the live server
    ASSERT_EQ(route_of(5), "b");
    std::vector<time_t> probes;
    for (size_t seen = testenv::sent.size(); testenv::now < death + 160; seen = testenv::sent.size()) {
        run(1);
        if (testenv::sent.size() == seen)
            continue;
        probes.push_back(testenv::now - death);
        ASSERT_EQ(route_of(seen), "?");
        ASSERT_EQ(testenv::sent.back().to.sin_addr.s_addr, PRIMARY);
        if (probes.size() > 1)
            continue;
        // The first probe's answer with a wrong secret, Code or Identifier: the next request still goes to the backup.
        const SentDatagram probe = testenv::sent.back();
        for (auto [secret, code, shift] : std::initializer_list<std::tuple<const char *, uint8_t, uint8_t>>{
                 {"wrong", 5, 0}, {"k", 2, 0}, {"k", 5, 1}}) {
            reply(probe, secret, code, shift);
            transaction_begin(session("aa:bb:cc:dd:ee:01", 0), ACCOUNTING_START);
            EXPECT_EQ(route_of(testenv::sent.size() - 1), "b") << secret << int{code} << int{shift};
            answer_last_request("b");
        }
    }
    EXPECT_EQ(probes, (std::vector<time_t>{PROBE_FIRST, 30, 60, 90, 120, 150}));
    reply(testenv::sent.back(), "k");
    const size_t seen = testenv::sent.size();
    transaction_begin(session("aa:bb:cc:dd:ee:01", 0), ACCOUNTING_START);
    run(6);
    EXPECT_EQ(route_of(seen), "pp");
}

// On a lossy path a request may lose its whole budget while its server
// answers others: the server stays live and the request goes to it again.
TEST_F(Extensions, AServerThatAnswersOthersIsNotDead)
{
    two_servers(EXT_KEEP_RECORDS);
    transaction_begin(session("aa:bb:cc:dd:ee:01", 0), ACCOUNTING_START);
    run(1);
    transaction_begin(session("aa:bb:cc:dd:ee:02", 0), ACCOUNTING_START);
    answer_last_request("k");
    run(23);
    EXPECT_EQ(route_of(), "pppppp");
    EXPECT_EQ(r->primary_server->state.dead, 0);
}

// -k with both servers dead: nothing is given up. Requests wait on the
// backlog without a packet; a server's return takes them oldest first, at
// most PACE in flight, each packet with Acct-Delay-Time (its value and the
// event times are checked in radacct by the system test, as is a server that
// ignores Status-Server).
TEST_F(Extensions, NothingIsGivenUpAndTheBacklogGoesOutPaced)
{
    two_servers(EXT_KEEP_RECORDS);
    debug = 0;
    std::vector<struct accounting_node *> n;
    for (int i = 0; i < PACE + 8; i++) {
        n.push_back(session());
        transaction_begin(n.back(), ACCOUNTING_START);
    }
    run(46);
    ASSERT_EQ(list_length(&backlog_header), n.size());
    // The primary answers its probe: the oldest PACE go to it, the rest
    // wait for answers, each of which lets the next go at once.
    const SentDatagram probe = testenv::sent[route_of().rfind('?')];  // the primary's, as the route shows
    const size_t mark = testenv::sent.size();
    reply(probe, "k");
    ASSERT_EQ(route_of(mark), std::string(PACE, 'p'));
    for (size_t k = 0; k < PACE; k++)
        EXPECT_EQ(testenv::sent[mark + k].bytes[1], n[k]->self->request->id) << k;
    reply(testenv::sent.back(), "k");
    EXPECT_EQ(route_of(mark), std::string(PACE + 1, 'p'));
    // Each ends with Acct-Delay-Time; no packet of the design's does (the compose test).
    for (size_t k = mark; k < testenv::sent.size(); k++) {
        const SentDatagram d = testenv::sent[k];
        EXPECT_EQ(d.bytes[d.bytes.size() - 6], RADIUS_ATTR_ACCT_DELAY_TIME) << k;
        reply(d, "k");
    }
    EXPECT_EQ(route_of(mark), std::string(n.size(), 'p'));
    EXPECT_TRUE(list_empty(&backlog_header) && list_empty(&request_queue_header));
}

}  // namespace

// meterd -l: a worker's three steps taken by hand, with a Stop, a profile's
// removal or a newer look-up of the session between the take and the finish.
// What the worker holds is then never followed (ASan would see a freed node
// touched): it ends as a look-up for a session gone, and only the look-up of
// the node as it still is sends, with the address and counters it found.
TEST_F(Extensions, ALookUpFindsItsSessionAgainOrLetsItBe)
{
    dev.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 500 600\n");
    for (std::string between : {"nothing", "stop", "removal", "again"}) {
        two_servers(EXT_LOOKUPS);
        struct accounting_node *n = session();
        transaction_begin(n, ACCOUNTING_START);
        answer_last_request("k");
        run(60);  // due: it waits for its look-up, nothing goes
        ASSERT_EQ(testenv::sent.size(), 1u);
        lookups_counts before, after;
        lookups_counts_of(&before);
        lookup_job job, second;
        ASSERT_TRUE(lookup_take(&job, 0));
        EXPECT_FALSE(lookup_take(&second, 1));  // never two look-ups of one session
        conn_t counters = {1, 1};
        if (between == "stop")
            accounting_stop_by_mac(n, PROFILE_TYPE_NORMAL, &counters);
        if (between == "removal")
            profile_take_down(r);
        if (between == "again") {  // out and back: a newer look-up
            queue_remove(n);
            lookups_begin(n);
        }
        const size_t sent = testenv::sent.size();
        for (bool first = true; first || lookup_take(&job, 1); first = false) {
            lookup_run(&job);
            lookup_finish(&job);
        }
        lookups_counts_of(&after);
        EXPECT_EQ(after.gone - before.gone, between == "nothing" ? 0u : 1u) << between;
        EXPECT_EQ(route_of(sent), between == "nothing" || between == "again" ? "p" : "") << between;
        if (testenv::sent.size() > sent) {
            AUTH_HDR *h = reinterpret_cast<AUTH_HDR *>(testenv::sent.back().bytes.data());
            uint32_t ip = 0, rx = 0;
            radius_msg_get_attr_int32(h, RADIUS_ATTR_FRAMED_IP_ADDRESS, &ip);
            radius_msg_get_attr_int32(h, RADIUS_ATTR_ACCT_INPUT_OCTETS, &rx);
            EXPECT_EQ(std::make_pair(ip, rx), std::make_pair(ntohl(inet_addr("192.0.2.7")), 500u));
        }
    }
}
