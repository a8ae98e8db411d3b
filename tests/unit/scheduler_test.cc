#include <vector>

#include "delivery/scheduler.h"
#include "frame/memory.h"
#include "test_support.h"

namespace {

struct list_head a, b, c, d;
std::vector<struct list_head *> fired;
void record(struct list_head *h) { fired.push_back(h); }

using Entries = std::vector<std::pair<time_t, struct list_head *>>;
Entries entries()
{
    Entries v;
    for (struct list_head *p = event_header.next; p != &event_header; p = p->next) {
        auto *e = list_entry(p, struct scheduler_event_register, register_event);
        v.emplace_back(e->register_time, e->header);
    }
    return v;
}

using SchedulerTest = DbTest;

TEST_F(SchedulerTest, OrderTieBreaksFiringAndNoMemory)
{
    fired.clear();
    for (auto [t, h] : Entries{{20, &b}, {10, &a}, {30, &a}, {20, &c}, {20, &d}, {25, &b}})
        register_schedule(t, record, h);
    EXPECT_EQ(entries(), (Entries{{10, &a}, {20, &d}, {20, &c}, {20, &b}, {25, &b}, {30, &a}}));
    EXPECT_EQ(unregister_schedule(&b), 0);  // the latest entry of that head
    EXPECT_EQ(unregister_schedule(&event_header), -1);
    scheduler_pass(20);  // equal to now is due; later entries are visited and stay
    EXPECT_EQ(fired, (std::vector<struct list_head *>{&a, &d, &c, &b}));
    EXPECT_EQ(entries(), (Entries{{30, &a}}));

    mtr_alloc_fail_at(1);
    EXPECT_EQ(register_schedule(40, record, &a), -1);
    EXPECT_EQ(entries(), (Entries{{30, &a}}));
    EXPECT_NE(console().find("insufficient memory\n"), std::string::npos);
}

TEST_F(SchedulerTest, HandlersChangingTheListDuringAPass)
{
    fired.clear();
    register_schedule(10, record, &c);
    register_schedule(10, [](struct list_head *h) {
        record(h);
        register_schedule(10, record, &d);  // lands ahead of the cursor: next pass
        register_schedule(500, record, h);
    }, &a);
    register_schedule(10, record, &b);
    // Runs while b's entry is the noted one, and frees it under the pass.
    register_schedule(10, [](struct list_head *h) {
        record(h);
        unregister_schedule(&b);
    }, &a);
    scheduler_pass(10);
    EXPECT_EQ(fired, (std::vector<struct list_head *>{&a, &a, &c}));
    EXPECT_EQ(entries(), (Entries{{10, &d}, {500, &a}}));
}

}  // namespace
