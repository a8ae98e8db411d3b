#include "records.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "database/portal_users.h"
#include "database/profiles.h"
#include "delivery/transaction.h"
#include "events/driver_events.h"
#include "frame/memory.h"
#include "radius/md5.h"
#include "radius/radius_msg.h"

namespace {

// Zeroed whole, padding too, as the peers memset their records.
template <class T>
T zeroed()
{
    T t;
    memset(&t, 0, sizeof t);
    return t;
}

// Each node ends as one whose profile has no server: a removed profile goes
// with the last of its on/off nodes, as in the daemon.
void drain(list_head *queue)
{
    while (!list_empty(queue))
        transaction_drop(reinterpret_cast<accounting_node *>(queue->next));
}

}  // namespace

ovat_config_event profile_config(const char *iface, const char *primary, const char *secret,
                                 const char *backup, const char *backup_secret, int interim_minutes)
{
    auto c = zeroed<ovat_config_event>();
    copy_text(c.interface, sizeof c.interface, iface);
    copy_text(c.hostname, sizeof c.hostname, primary);
    copy_text(c.secret, sizeof c.secret, secret);
    copy_text(c.backup_hostname, sizeof c.backup_hostname, backup);
    copy_text(c.backup_secret, sizeof c.backup_secret, backup_secret);
    c.port = c.backup_port = 1813;
    c.acct_interim = interim_minutes;
    return c;
}

accounting_event_t control_event(int64_t id, const ovat_config_event &profile)
{
    accounting_event_t ev = control_event(id);
    ev.u.radius_profile = profile;
    return ev;
}

accounting_event_t control_event(int64_t id, const char *iface)
{
    auto ev = zeroed<accounting_event_t>();
    ev.event_id = id;
    copy_text(ev.u.remove_profile.interface, sizeof ev.u.remove_profile.interface, iface);
    return ev;
}

accounting_msg_t login_record(const char *user, const char *mac, const char *iface, int interim)
{
    auto m = zeroed<accounting_msg_t>();
    copy_text(m.user_name, sizeof m.user_name, user);
    copy_text(m.calling_station_id, sizeof m.calling_station_id, mac);
    copy_text(m.interface, sizeof m.interface, iface);
    m.interim_interval = interim;
    return m;
}

staStatus_t station_report(const uint8_t *mac, uint32_t ip)
{
    auto r = zeroed<staStatus_t>();
    r.client_ip.s_addr = htonl(ip);
    memcpy(r.mac, mac, sizeof r.mac);
    return r;
}

std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac, uint64_t tx,
                                    uint64_t rx)
{
    auto ev = zeroed<sarnet_event>();
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

uam_event uam_login(const char *user, const char *mac, const char *iface, const char *ssid_profile)
{
    auto e = zeroed<uam_event>();
    e.event = UAM_EVENT_USER_LOGIN;
    copy_text(e.real_username, sizeof e.real_username, user);
    copy_text(e.ssid_vap_iface, sizeof e.ssid_vap_iface, iface);
    copy_text(e.ssid_profile_name, sizeof e.ssid_profile_name, ssid_profile);
    copy_text(e.sta_mac, sizeof e.sta_mac, mac);
    return e;
}

size_t signed_answer(uint8_t *out, const uint8_t *request, const uint8_t *body, size_t n, const char *secret)
{
    n = std::min(n, size_t{RADIUS_RECV_LEN - RADIUS_HDR_LEN});
    size_t len = RADIUS_HDR_LEN + (n ? n - 1 : 0);
    out[0] = n ? body[0] : 5;
    out[1] = request[1];
    out[2] = static_cast<uint8_t>(len >> 8);
    out[3] = static_cast<uint8_t>(len);
    memcpy(out + 4, request + 4, 16);
    if (n > 1)
        memcpy(out + RADIUS_HDR_LEN, body + 1, n - 1);
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, out, static_cast<unsigned>(len));
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret), static_cast<unsigned>(strlen(secret)));
    pra_MD5Final(out + 4, &ctx);
    return len;
}

void clear_database()
{
    mtr_alloc_fail_at(0);
    drain(&request_queue_header);
    drain(&fail_queue_header);
    drain(&id_wait_header);
    while (!list_empty(&total_interim_queue_header)) {
        auto *q = reinterpret_cast<interim_queue *>(total_interim_queue_header.next);
        drain(&q->interim_queue_header);
        list_del(&q->total_interim_queue);
        mtr_free(q);
    }
    for (list_head *head : {&total_radius_server_header, &portal_radius_server_header}) {
        while (!list_empty(head)) {
            auto *radius = list_entry(head->next, accounting_radius, total_radius_server);
            remove_radius(radius);  // frees the sessions that wait on no queue
            free_radius_profile(radius);
        }
    }
    while (!list_empty(&event_header)) {
        auto *e = list_entry(event_header.next, scheduler_event_register, register_event);
        list_del(&e->register_event);
        mtr_free(e);
    }
    for (hash_table &bucket : mac_hash_table) {
        while (!list_empty(&bucket.head)) {
            list_head *e = bucket.head.next;
            list_del(e);
            mtr_free(list_entry(e, user_entry, user_list));
        }
    }
}
