#include "test_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "database/accounting_db_api.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"

namespace testenv {
time_t now = 1000000;
std::vector<SentDatagram> sent;
int send_fails = 0;
}  // namespace testenv

namespace {
time_t fake_clock() { return testenv::now; }

ssize_t capture_send(int, const void *buf, size_t len, const struct sockaddr_in *to)
{
    if (testenv::send_fails)
        return -1;
    SentDatagram d;
    d.bytes.assign(static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + len);
    d.to = *to;
    testenv::sent.push_back(d);
    return static_cast<ssize_t>(len);
}

void free_queue(struct list_head *head)
{
    struct list_head *p = head->next;
    while (p != head) {
        struct list_head *next = p->next;
        free_accounting_node(reinterpret_cast<struct accounting_node *>(p));
        p = next;
    }
}

void free_profiles(struct list_head *head)
{
    while (!list_empty(head)) {
        auto *r = list_entry(head->next, struct accounting_radius, total_radius_server);
        remove_radius(r);
        empty_radius_profile(r);
        mtr_free(r);
    }
}
}  // namespace

size_t list_length(const struct list_head *head)
{
    size_t n = 0;
    for (const struct list_head *p = head->next; p != head; p = p->next)
        n++;
    return n;
}

void reset_database()
{
    mtr_alloc_fail_at(0);
    free_queue(&request_queue_header);
    free_queue(&fail_queue_header);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<struct interim_queue *>(total_interim_queue_header.next);
        free_queue(&q->interim_queue_header);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
    // Removing a profile frees its sessions wherever they wait.
    free_profiles(&total_radius_server_header);
    free_profiles(&portal_radius_server_header);
    while (!list_empty(&event_header)) {
        auto *e = list_entry(event_header.next, struct scheduler_event_register, register_event);
        list_del(&e->register_event);
        mtr_free(e);
    }
    for (auto &b : mac_hash_table) {
        if (!b.head.next)
            continue;
        while (!list_empty(&b.head)) {
            auto *u = list_entry(b.head.next, struct user_entry, user_list);
            list_del(&u->user_list);
            mtr_free(u);
        }
    }
}

void DbTest::SetUp()
{
    reset_database();
    testenv::now = 1000000;
    testenv::sent.clear();
    testenv::send_fails = 0;
    mtr_set_clock(fake_clock);
    radius_sendto = capture_send;
    char tmpl[] = "/tmp/meterd-console-XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    console_file_ = tmpl;
    console_path = console_file_.c_str();
    debug = 1;
}

void DbTest::TearDown()
{
    reset_database();
    debug = 0;
    console_path = "/dev/null";
    unlink(console_file_.c_str());
    mtr_set_clock(nullptr);
}

std::string DbTest::console()
{
    std::ifstream in(console_file_);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct accounting_radius *DbTest::make_profile(const char *iface, const char *primary,
                                               const char *secret, const char *backup,
                                               const char *backup_secret, int type)
{
    struct ovat_config_event cfg;
    memset(&cfg, 0, sizeof cfg);
    copy_text(cfg.interface, sizeof cfg.interface, iface);
    copy_text(cfg.hostname, sizeof cfg.hostname, primary);
    cfg.port = 1813;
    copy_text(cfg.secret, sizeof cfg.secret, secret);
    copy_text(cfg.backup_hostname, sizeof cfg.backup_hostname, backup);
    cfg.backup_port = 1813;
    copy_text(cfg.backup_secret, sizeof cfg.backup_secret, backup_secret);
    struct accounting_radius *r = add_radius(iface, type);
    if (r && update_radius_profile(r, &cfg, type) != 0)
        return nullptr;
    return r;
}

accounting_msg_t DbTest::login(const char *user, const char *mac, const char *iface, int interim)
{
    accounting_msg_t m;
    memset(&m, 0, sizeof m);
    copy_text(m.user_name, sizeof m.user_name, user);
    copy_text(m.calling_station_id, sizeof m.calling_station_id, mac);
    copy_text(m.called_station_id, sizeof m.called_station_id, "02-00-00-00-00-01:ssid");
    copy_text(m.interface, sizeof m.interface, iface);
    m.interim_interval = interim;
    return m;
}
