// Running out of memory on every path that allocates: the 1st, 2nd, ...
// allocation of the path fails in turn, until it runs without a failure.
// Whatever fails, the daemon says so (on stderr or on the console), leaves
// every list somewhere between where it stood before the event and where
// the event takes it when all goes well, and leaks nothing.
#include <regex>

#include "events/driver_events.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "events/uam_events.h"
#include "daemon/control.h"
#include "test_support.h"

// Sanitized builds only.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

// What the daemon says when memory runs out, wherever it does.
const std::regex OUT_OF_MEMORY("insufficient memory|alloc failed in accounting_msg\\(\\)");

struct Path {
    const char *name;
    void (*setup)();
    void (*run)();
};

// The lengths of every list the paths touch: profiles of both families, the
// request queue, interim nodes and queues, sessions waiting for an address,
// portal users and datagrams sent. Scheduler entries are not among them: a
// queue whose entry could not be had simply has none until its next node.
std::vector<size_t> state()
{
    size_t interim = 0, users = 0;
    for (list_head *p = total_interim_queue_header.next; p != &total_interim_queue_header; p = p->next)
        interim += list_length(&reinterpret_cast<interim_queue *>(p)->interim_queue_header);
    for (const hash_table &b : mac_hash_table)
        users += list_length(&b.head);
    return {list_length(&total_radius_server_header), list_length(&portal_radius_server_header),
            list_length(&request_queue_header), interim, list_length(&total_interim_queue_header),
            list_length(&ip_change_header), users, testenv::sent.size()};
}

// True when the path made fewer than n allocations, so that the failure set
// for the nth is still pending: then it falls on one of n probes.
bool still_pending(unsigned long n)
{
    bool hit = false;
    for (unsigned long i = 0; i < n && !hit; i++) {
        void *p = mtr_malloc(1);
        hit = !p;
        mtr_free(p);
    }
    mtr_alloc_fail_at(0);
    return hit;
}

ovat_config_event config(const char *iface = "") { return profile_config(iface, "127.0.0.1", "k", "127.0.0.2", "b"); }

void control(const accounting_event_t &ev)
{
    accounting_event_t rec;
    ovat_event_input(&rec, &ev, sizeof ev);
}

void init() { control(control_event(ACCOUNTING_EVENT_INIT, config("wlan-1-1"))); }
void take_down() { control(control_event(ACCOUNTING_EVENT_REMOVE, "wlan-1-1")); }

// A portal profile for wlan-1-1 (cloud mode), as the portal channel gives it.
void portal()
{
    static portal_event_t rec;
    portal_event_t p{};
    p.event_id = ACCOUNTING_EVENT_MODIFY_FOR_PORTAL;
    p.for_portal_profile[0][0] = config();
    portal_event_input(&rec, &p, sizeof p);
}

// The station thread's inputs, under its lock.
const uint8_t MAC[6] = {2, 0, 0, 0, 0, 1};
void login() { locked([] { deliver(station_login_input, login_record("alice", "02:00:00:00:00:01", "wlan-1-1", 60)); }); }
void report() { locked([] { deliver(station_report_input, station_report(MAC, 0)); }); }
void driver(uint16_t cmd) { locked([=] { deliver(netlink_input, driver_message(cmd, "wlan-1-1", MAC)); }); }
void answer() { answer_last_request("k"); }
void pass() { locked([] { scheduler_pass(testenv::now); }); }

void uam() { deliver(uam_event_input, uam_login("bob", "02:00:00:00:00:01", "wlan-1-1", "SSID1")); }

const Path paths[] = {
    {"control event 4, a profile and its Accounting-On", [] {}, init},
    {"control event 2, the Accounting-Off and the removal", [] { init(); login(); }, take_down},
    {"control event 5, an Accounting-Off for each profile",
     [] { init(); control(control_event(ACCOUNTING_EVENT_INIT, config("wlan-1-2"))); },
     [] { control(control_event(ACCOUNTING_EVENT_EXIT)); }},
    {"a login", init, login},
    {"the station report that starts a session", [] { init(); answer(); login(); }, report},
    {"the disassociation that stops a session", [] { init(); answer(); login(); report(); },
     [] { driver(SARNET_CMD_STA_DISASSOC); }},
    {"the association that opens a portal session",
     [] { is_cloud = 1; portal(); portal_user_add("02:00:00:00:00:01", "bob", "ssid", "SSID1"); },
     [] { driver(SARNET_CMD_STA_ASSOC); }},
    {"a portal datagram", [] { is_cloud = 1; }, portal},
    {"a UAM login", [] { is_cloud = 1; portal(); answer(); }, uam},
    {"the answer to a Start", [] { init(); answer(); login(); report(); }, answer},
    // A started session whose Start was answered waits on its interim queue.
    {"the answer to an Interim-Update",
     [] { init(); answer(); login(); report(); answer(); testenv::now += 60; pass(); }, answer},
    {"the answer to an Accounting-Off", [] { init(); take_down(); }, answer},
    {"a scheduler pass that sends an Interim-Update",
     [] { init(); answer(); login(); report(); answer(); testenv::now += 60; }, pass},
};

struct Seen {
    bool failed;  // the nth allocation came, and failed
    std::string said;  // stderr and console
    std::vector<size_t> before, after;  // state() before and after the run
};

// The path from its own start, with its nth allocation failing (0: none).
Seen run_failing(const Path &path, unsigned long n)
{
    clear_database();
    is_cloud = 0;
    testenv::now = 1000000;
    testenv::sent.clear();
    path.setup();
    std::vector<size_t> before = state();

    Captured out(true);
    mtr_alloc_fail_at(n);
    path.run();
    bool failed = n && !still_pending(n);  // which turns the failure off
    return {failed, out.text(), before, state()};
}

using AllocFail = DbTest;

}  // namespace

TEST_F(AllocFail, EveryAllocationOfEveryPath)
{
    SimDevice dev;  // station look-ups that find nothing, quietly
    for (const Path &path : paths) {
        SCOPED_TRACE(path.name);
        Seen clean = run_failing(path, 0);
        const std::vector<size_t> &before = clean.before, &after = clean.after;
        ASSERT_NE(before, after);
        unsigned long n = 1;
        for (Seen got; (got = run_failing(path, n)).failed; n++) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            EXPECT_TRUE(std::regex_search(got.said, OUT_OF_MEMORY)) << got.said;
            for (size_t i = 0; i < before.size(); i++)
                EXPECT_TRUE(got.after[i] >= std::min(before[i], after[i]) &&
                            got.after[i] <= std::max(before[i], after[i]))
                    << "list " << i << ": " << got.after[i] << " outside " << before[i] << ".." << after[i];
        }
        EXPECT_GT(n, 1u);  // the path allocates at all
        clear_database();
        EXPECT_EQ(__lsan_do_recoverable_leak_check ? __lsan_do_recoverable_leak_check() : 0, 0);
    }
}
