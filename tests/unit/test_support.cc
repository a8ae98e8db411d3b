#include "test_support.h"

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "database/accounting_db_api.h"
#include "delivery/retry.h"
#include "events/driver_events.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/md5.h"
#include "radius/radius_send_recieve.h"

namespace testenv {
time_t now = 1000000;
std::vector<SentDatagram> sent;
}  // namespace testenv

namespace {

// One file a process: ctest runs the tests in parallel processes.
const std::string console_file = "/tmp/meterd-console-" + std::to_string(getpid());

ssize_t capture_send(int, const void *buf, size_t len, const struct sockaddr_in *to)
{
    auto *bytes = static_cast<const uint8_t *>(buf);
    testenv::sent.push_back({{bytes, bytes + len}, *to});
    return static_cast<ssize_t>(len);
}

// A removed profile lives on only through its on/off nodes: the first of
// them found lets it go, with the others.
void drain(struct list_head *queue)
{
    while (!list_empty(queue)) {
        auto *node = reinterpret_cast<struct accounting_node *>(queue->next);
        struct accounting_radius *r = node->self->acct_radius;
        if (r && !r->total_radius_server.next)
            release_radius_profile(node);
        free_accounting_node(node);
    }
}

void free_profiles(struct list_head *head)
{
    while (!list_empty(head)) {
        auto *r = list_entry(head->next, struct accounting_radius, total_radius_server);
        remove_radius(r);  // frees the sessions that wait on no queue
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
    drain(&request_queue_header);
    drain(&fail_queue_header);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<struct interim_queue *>(total_interim_queue_header.next);
        drain(&q->interim_queue_header);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
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
    mtr_set_clock([] { return testenv::now; });
    radius_sendto = capture_send;
    console_path = console_file.c_str();
    debug = 1;
}

void DbTest::TearDown()
{
    reset_database();
    debug = 0;
    console_path = "/dev/null";
    unlink(console_file.c_str());
    mtr_set_clock(nullptr);
}

std::string DbTest::console()
{
    std::ifstream f(console_file);
    return {std::istreambuf_iterator<char>(f), {}};
}

struct accounting_radius *DbTest::make_profile(const char *iface, const char *primary, const char *secret,
                                               const char *backup, const char *backup_secret, int type)
{
    struct ovat_config_event cfg{};
    copy_text(cfg.interface, sizeof cfg.interface, iface);
    copy_text(cfg.hostname, sizeof cfg.hostname, primary);
    copy_text(cfg.secret, sizeof cfg.secret, secret);
    copy_text(cfg.backup_hostname, sizeof cfg.backup_hostname, backup);
    copy_text(cfg.backup_secret, sizeof cfg.backup_secret, backup_secret);
    cfg.port = cfg.backup_port = 1813;
    struct accounting_radius *r = add_radius(iface, type);
    return r && update_radius_profile(r, &cfg, type) == 0 ? r : nullptr;
}

accounting_msg_t DbTest::login(const char *user, const char *mac, const char *iface, int interim)
{
    accounting_msg_t m{};
    copy_text(m.user_name, sizeof m.user_name, user);
    copy_text(m.calling_station_id, sizeof m.calling_station_id, mac);
    copy_text(m.called_station_id, sizeof m.called_station_id, "02-00-00-00-00-01:ssid");
    copy_text(m.interface, sizeof m.interface, iface);
    m.interim_interval = interim;
    return m;
}

std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac, uint64_t tx,
                                    uint64_t rx)
{
    sarnet_event ev{};
    ev.hdr.cmd = cmd;
    memcpy(ev.data.u.sta.macaddr, mac, 6);
    ev.data.u.sta.tx_bytes = tx;
    ev.data.u.sta.rx_bytes = rx;
    std::vector<uint8_t> m(SARNET_ATTR_OFFSET + sizeof(nlattr) + sizeof ev);
    nlmsghdr h{static_cast<uint32_t>(m.size()), SARNETM_WIRELESS_EVENT, 0, 0, 0};
    nlattr a{static_cast<uint16_t>(sizeof(nlattr) + sizeof ev), SARNET_ATTR_EVENT};
    memcpy(m.data(), &h, sizeof h);
    memcpy(m.data() + SARNET_IFINFO_OFFSET, ifname, strnlen(ifname, 16));
    memcpy(m.data() + SARNET_ATTR_OFFSET, &a, sizeof a);
    memcpy(m.data() + SARNET_ATTR_OFFSET + sizeof a, &ev, sizeof ev);
    return m;
}

void answer_last_request(const char *secret)
{
    const std::vector<uint8_t> &req = testenv::sent.back().bytes;
    AUTH_HDR r{};
    r.code = 5;
    r.id = req[1];
    r.length = htons(RADIUS_HDR_LEN);
    memcpy(r.vector, &req[4], sizeof r.vector);
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, reinterpret_cast<unsigned char *>(&r), RADIUS_HDR_LEN);
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret), static_cast<unsigned>(strlen(secret)));
    pra_MD5Final(r.vector, &ctx);
    radius_response_input(&r);
}
