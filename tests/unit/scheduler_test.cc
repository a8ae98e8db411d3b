// The scheduler, and the request, fail and interim queues and the retries
// that it drives.

#include "test_support.h"

static struct list_head a, b, c, d, *const rq = &request_queue_header, *const fq = &fail_queue_header;
static std::vector<struct list_head *> fired;
static void record(struct list_head *h) { fired.push_back(h); }

using Entries = std::vector<std::pair<time_t, struct list_head *>>;
static Entries entries()
{
    Entries v;
    for (struct list_head *p = event_header.next; p != &event_header; p = p->next)
        v.emplace_back(list_entry(p, struct scheduler_event_register, register_event)->register_time,
                       list_entry(p, struct scheduler_event_register, register_event)->header);
    return v;
}

using Nodes = std::vector<struct accounting_node *>;
static Nodes on(struct list_head *head)
{
    Nodes v;
    for (struct list_head *p = head->next; p != head; p = p->next)
        v.push_back(reinterpret_cast<struct accounting_node *>(p));
    return v;
}

// Passes 3 seconds apart, as the thread makes them, until the queues are
// empty. Gives the seconds, from the start, of each datagram and of the end.
static std::vector<time_t> run_passes(time_t limit = 120)
{
    const time_t t0 = testenv::now;
    std::vector<time_t> times(testenv::sent.size(), 0);
    while (!(list_empty(rq) && list_empty(fq)) && testenv::now < t0 + limit) {
        scheduler_pass(testenv::now += SCHEDULER_TICK);
        times.resize(testenv::sent.size(), testenv::now - t0);
    }
    times.push_back(testenv::now - t0);
    return times;
}

using Delivery = DbTest;

TEST_F(Delivery, SchedulerOrderFiringAndHandlersChangingTheList)
{
    fired.clear();
    for (auto [t, h] : Entries{{20, &b}, {10, &a}, {30, &a}, {20, &c}, {20, &d}, {25, &b}})
        register_schedule(t, record, h);
    // Only a strictly earlier entry goes ahead: the newest stands first among equals.
    EXPECT_EQ(entries(), (Entries{{10, &a}, {20, &d}, {20, &c}, {20, &b}, {25, &b}, {30, &a}}));
    EXPECT_EQ(unregister_schedule(&b), 0);  // the latest entry of that head
    EXPECT_EQ(unregister_schedule(&event_header), -1);
    scheduler_pass(20);  // equal to now is due; later entries are visited and stay
    EXPECT_EQ(fired, (std::vector<struct list_head *>{&a, &d, &c, &b}));
    mtr_alloc_fail_at(1);
    EXPECT_EQ(register_schedule(40, record, &a), -1);
    EXPECT_EQ(entries(), (Entries{{30, &a}}));

    fired.clear();
    register_schedule(10, [](struct list_head *h) { record(h); unregister_schedule(h); }, &c);  // itself
    register_schedule(10, [](struct list_head *h) {
        record(h);
        register_schedule(10, record, &d);  // lands ahead of the cursor: next pass
        register_schedule(500, record, h);
    }, &a);
    register_schedule(10, record, &b);
    // Runs while b's entry is the noted one, and frees it under the pass.
    register_schedule(10, [](struct list_head *h) { record(h); unregister_schedule(&b); }, &a);
    scheduler_pass(10);
    EXPECT_EQ(fired, (std::vector<struct list_head *>{&a, &a, &c}));
    EXPECT_EQ(entries(), (Entries{{10, &d}, {30, &a}, {500, &a}}));
}

TEST_F(Delivery, RequestQueueSortsReplacesItsEntryAndIsSearched)
{
    const time_t t = testenv::now;
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "s");
    Nodes n = {add_new_node_for_on_off(r), add_new_node_for_on_off(r), add_new_node_for_on_off(r)};
    for (int i : {0, 1}) {  // two requests of Identifier 2, and a node without a packet
        n[i]->self->request = static_cast<AUTH_HDR *>(mtr_calloc(1, sizeof(AUTH_HDR)));
        n[i]->self->request->id = 2;
    }
    insert_node_to_queue(n[0], QUEUE_TYPE_REQUEST);
    insert_node_to_queue(n[1], QUEUE_TYPE_REQUEST);  // equal deadline: behind, no entry
    testenv::now = t - 10;                           // a clock stepped back
    insert_node_to_queue(n[2], QUEUE_TYPE_REQUEST);  // first now: its entry replaces the old one
    EXPECT_EQ(on(rq), (Nodes{n[2], n[0], n[1]}));
    EXPECT_EQ(entries(), (Entries{{t - 5, rq}}));
    EXPECT_EQ(find_request(2), n[0]);  // past the node without a packet; the earlier of two
    // The first node not due gets the one new entry, and the walk stops; the
    // fail queue's entry, made during the pass, waits for the next one.
    scheduler_pass(testenv::now = t - 5);
    EXPECT_EQ(on(fq), (Nodes{n[2]}));
    EXPECT_EQ(entries(), (Entries{{t - 5, fq}, {t + 5, rq}}));
    insert_node_to_queue(n[0], QUEUE_TYPE_FAIL);
    EXPECT_EQ(find_request(2), n[1]);  // the fail queue is not searched
    insert_node_to_queue(n[1], 0);     // no such queue: the node stays
    EXPECT_EQ(on(rq), (Nodes{n[1]}));
}

TEST_F(Delivery, MixedIntervalsOnTheSharedInterimQueue)
{
    const time_t t = testenv::now;
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "s");  // key 0
    Nodes s;
    for (int interval : {0, 300, 60}) {
        accounting_msg_t m = login_record("alice", "02:00:00:00:00:10", "wlan-1-1", interval);
        s.push_back(add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0));
    }
    insert_node_to_queue(s[0], QUEUE_TYPE_INTERIM);
    EXPECT_TRUE(entries().empty());  // interval 0 sets no timer
    free_accounting_node(s[0]);
    insert_node_to_queue(s[1], QUEUE_TYPE_INTERIM);
    testenv::now = t + 10;
    insert_node_to_queue(s[2], QUEUE_TYPE_INTERIM);
    // The short interval waits for the entry of the node ahead of it.
    scheduler_pass(testenv::now = t + 72);
    EXPECT_TRUE(testenv::sent.empty());
    scheduler_pass(testenv::now = t + 300);
    EXPECT_EQ(testenv::sent.size(), 2u);
    EXPECT_EQ(on(rq), (Nodes{s[1], s[2]}));
}

TEST_F(Delivery, FourToThePrimaryThenFourToTheBackup)
{
    struct accounting_radius *r =
        make_profile("wlan-1-1", "192.0.2.1", "primary-secret", "192.0.2.2", "backup-secret");
    transaction_begin(add_new_node_for_on_off(r), ACCOUNTING_ON);
    // A name that never resolved leaves 0.0.0.0, which means this host: its
    // node waits and fails like the others, but nothing is sent.
    transaction_begin(add_new_node_for_on_off(make_profile("wlan-1-2", "0.0.0.0", "s")), ACCOUNTING_ON);
    EXPECT_EQ(list_length(rq), 2u);
    // Retransmissions three passes apart; given up at 69 s, the last entry
    // being the end. That each copy is the first one, re-signed for the
    // backup, is checked at the system test's peers.
    EXPECT_EQ(run_passes(), (std::vector<time_t>{0, 9, 18, 27, 36, 45, 54, 63, 69}));
    for (size_t i = 0; i < testenv::sent.size(); i++)
        EXPECT_STREQ(inet_ntoa(testenv::sent[i].to.sin_addr), i < 4 ? "192.0.2.1" : "192.0.2.2");
}

// LeakSanitizer checks the releases: a removed profile is on no list that
// the fixture clears. The two on/off nodes end in one walk, so a release by
// the first would free the walk's next node under it.
TEST_F(Delivery, RemovedProfileIsReleasedByItsLastOnOffNode)
{
    // Without a server nothing is sent, and the node is dropped at its deadline.
    struct accounting_radius *r = make_profile("wlan-1-3", "", "");
    transaction_begin(add_new_node_for_on_off(r), ACCOUNTING_OFF);
    remove_radius(r);
    EXPECT_EQ(run_passes(), (std::vector<time_t>{6}));
    r = make_profile("wlan-1-1", "192.0.2.1", "s");
    transaction_begin(add_new_node_for_on_off(r), ACCOUNTING_ON);
    transaction_begin(add_new_node_for_on_off(r), ACCOUNTING_OFF);
    remove_radius(r);
    // Another profile's node, failing over to its backup, outlives the release
    // on the same queues.
    struct accounting_radius *other = make_profile("wlan-1-2", "192.0.2.9", "s", "192.0.2.10", "s");
    transaction_begin(add_new_node_for_on_off(other), ACCOUNTING_ON);
    run_passes(36);
    EXPECT_EQ(list_length(fq) + list_length(rq), 1u);
}
