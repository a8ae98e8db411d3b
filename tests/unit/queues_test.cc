#include <arpa/inet.h>

#include <vector>

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"
#include "test_support.h"

namespace {

using Nodes = std::vector<struct accounting_node *>;
Nodes on(struct list_head *head)
{
    Nodes v;
    for (struct list_head *p = head->next; p != head; p = p->next)
        v.push_back(reinterpret_cast<struct accounting_node *>(p));
    return v;
}

std::vector<time_t> entry_times()
{
    std::vector<time_t> v;
    for (struct list_head *p = event_header.next; p != &event_header; p = p->next)
        v.push_back(list_entry(p, struct scheduler_event_register, register_event)->register_time);
    return v;
}

// On/off nodes holding stored requests with the Identifiers 1, 2, 3.
Nodes three_with_requests(struct accounting_radius *r)
{
    Nodes v;
    for (uint8_t id = 1; id <= 3; id++) {
        auto *req = static_cast<AUTH_HDR *>(mtr_calloc(1, sizeof(AUTH_HDR)));
        req->code = RADIUS_CODE_ACCOUNTING_REQUEST;
        req->id = id;
        req->length = htons(RADIUS_HDR_LEN);
        v.push_back(add_new_node_for_on_off(r));
        v.back()->self->request = req;
    }
    return v;
}

using QueuesTest = DbTest;
struct list_head *const rq = &request_queue_header;

TEST_F(QueuesTest, RequestQueueSortsAndReplacesItsEntry)
{
    const time_t t = testenv::now;
    Nodes n = three_with_requests(make_profile("wlan-1-1", "192.0.2.1", "s"));
    insert_node_to_queue(n[0], QUEUE_TYPE_REQUEST);
    insert_node_to_queue(n[1], QUEUE_TYPE_REQUEST);  // equal deadline: behind, no entry
    testenv::now = t - 10;                           // a clock stepped back
    insert_node_to_queue(n[2], QUEUE_TYPE_REQUEST);
    EXPECT_EQ(on(rq), (Nodes{n[2], n[0], n[1]}));
    EXPECT_EQ(entry_times(), (std::vector<time_t>{t - 5}));

    // The first node not due gets the one new entry, and the walk stops.
    scheduler_pass(testenv::now = t - 5);
    EXPECT_EQ(on(&fail_queue_header), (Nodes{n[2]}));
    EXPECT_EQ(entry_times(), (std::vector<time_t>{t - 5, t + 5}));
    EXPECT_TRUE(testenv::sent.empty());

    // All answered meanwhile: the left-over entries fire on nothing.
    for (struct accounting_node *node : n)
        free_accounting_node(node);
    scheduler_pass(t + 5);
    EXPECT_TRUE(entry_times().empty());
}

TEST_F(QueuesTest, FailQueueSendsEveryDueNodeInOneWalk)
{
    Nodes n = three_with_requests(make_profile("wlan-1-1", "192.0.2.1", "s"));
    for (struct accounting_node *node : n)
        insert_node_to_queue(node, QUEUE_TYPE_FAIL);
    scheduler_pass(testenv::now);
    ASSERT_EQ(testenv::sent.size(), 3u);
    for (uint8_t i = 0; i < 3; i++)
        EXPECT_EQ(testenv::sent[i].bytes[1], i + 1);
    EXPECT_EQ(on(rq), n);
}

TEST_F(QueuesTest, MixedIntervalsOnTheSharedQueue)
{
    const time_t t = testenv::now;
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "s");
    accounting_msg_t m[] = {login("zero", "02:00:00:00:00:10", "wlan-1-1", 0),
                            login("long", "02:00:00:00:00:11", "wlan-1-1", 300),
                            login("short", "02:00:00:00:00:12", "wlan-1-1", 60)};
    Nodes s;
    for (accounting_msg_t &msg : m)
        s.push_back(add_new_node(&msg, r, PROFILE_TYPE_NORMAL, 0));
    insert_node_to_queue(s[0], QUEUE_TYPE_INTERIM);
    EXPECT_TRUE(entry_times().empty());  // interval 0 sets no timer
    free_accounting_node(s[0]);

    insert_node_to_queue(s[1], QUEUE_TYPE_INTERIM);
    testenv::now = t + 10;
    insert_node_to_queue(s[2], QUEUE_TYPE_INTERIM);
    EXPECT_EQ(entry_times(), (std::vector<time_t>{t + 300}));
    // The short interval waits for the entry of the node ahead of it.
    scheduler_pass(testenv::now = t + 72);
    EXPECT_TRUE(testenv::sent.empty());
    scheduler_pass(testenv::now = t + 300);
    EXPECT_EQ(testenv::sent.size(), 2u);
    EXPECT_EQ(on(rq), (Nodes{s[1], s[2]}));
}

TEST_F(QueuesTest, FindRequestBadTypeAndNoMemory)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "s");
    Nodes n = three_with_requests(r);
    free_accounting_msg(n[0]->self);
    n[2]->self->request->id = 2;
    for (struct accounting_node *node : n) {
        insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
        testenv::now++;
    }
    EXPECT_EQ(find_request(2), n[1]);  // past the node without a packet, earlier of two
    insert_node_to_queue(n[1], QUEUE_TYPE_FAIL);
    EXPECT_EQ(find_request(2), n[2]);  // the fail queue is not searched

    testing::internal::CaptureStderr();
    insert_node_to_queue(n[2], 0);
    insert_node_to_queue(n[2], 4);
    r->acc_interim = 777;
    mtr_alloc_fail_at(1);  // no memory for that key's queue
    insert_node_to_queue(n[2], QUEUE_TYPE_INTERIM);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error queue type\nerror queue type\ninsufficient memory\n");
    EXPECT_EQ(on(rq), (Nodes{n[0], n[2]}));
}

}  // namespace
