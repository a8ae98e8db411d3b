#include "test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "database/accounting_db_api.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"

namespace testenv {
time_t now = 1000000;
std::vector<SentDatagram> sent;
}  // namespace testenv

namespace {
time_t fake_clock() { return testenv::now; }

// The console is opened with mode "w" for every message, so a plain file
// would keep only the last one. It is a FIFO here, made large enough to hold
// everything a test writes, and read when the test asks.
int console_fd = -1;
std::string console_text;

ssize_t capture_send(int, const void *buf, size_t len, const struct sockaddr_in *to)
{
    SentDatagram d;
    d.bytes.assign(static_cast<const uint8_t *>(buf), static_cast<const uint8_t *>(buf) + len);
    d.to = *to;
    testenv::sent.push_back(d);
    return static_cast<ssize_t>(len);
}

// Frees a queue's nodes, noting the removed profiles that lived on only
// through them.
void free_queue(struct list_head *head, std::vector<struct accounting_radius *> &removed)
{
    struct list_head *p = head->next;
    while (p != head) {
        struct list_head *next = p->next;
        auto *node = reinterpret_cast<struct accounting_node *>(p);
        struct accounting_radius *r = node->self->acct_radius;
        bool off_list = r && !r->total_radius_server.next;
        if (off_list && std::find(removed.begin(), removed.end(), r) == removed.end())
            removed.push_back(r);
        free_accounting_node(node);
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
    std::vector<struct accounting_radius *> removed;
    free_queue(&request_queue_header, removed);
    free_queue(&fail_queue_header, removed);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<struct interim_queue *>(total_interim_queue_header.next);
        free_queue(&q->interim_queue_header, removed);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
    for (struct accounting_radius *r : removed) {
        empty_radius_profile(r);
        mtr_free(r);
    }
    // Removing a profile frees its sessions wherever they wait.
    free_profiles(&total_radius_server_header);
    free_profiles(&portal_radius_server_header);
    while (!list_empty(&event_header)) {
        auto *e = list_entry(event_header.next, struct scheduler_event_register, register_event);
        list_del(&e->register_event);
        mtr_free(e);
    }
}

void DbTest::SetUp()
{
    testenv::now = 1000000;
    testenv::sent.clear();
    mtr_set_clock(fake_clock);
    radius_sendto = capture_send;
    char tmpl[] = "/tmp/meterd-console-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    console_dir_ = tmpl;
    std::string fifo = console_dir_ + "/console";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    console_fd = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(fcntl(console_fd, F_SETPIPE_SZ, 1 << 20), 0);
    console_text.clear();
    static std::string path;
    path = fifo;
    console_path = path.c_str();
    debug = 1;
}

void DbTest::TearDown()
{
    reset_database();
    debug = 0;
    console_path = "/dev/null";
    close(console_fd);
    unlink((console_dir_ + "/console").c_str());
    rmdir(console_dir_.c_str());
    mtr_set_clock(nullptr);
}

std::string DbTest::console()
{
    char buf[4096];
    ssize_t n;
    while ((n = read(console_fd, buf, sizeof buf)) > 0)
        console_text.append(buf, static_cast<size_t>(n));
    return console_text;
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
