// The wireless driver's station events on its netlink socket.
#include "events/driver_events.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/portal_users.h"
#include "database/profiles.h"
#include "events/session_stop.h"
#include "frame/console.h"
#include "frame/meterd.h"
#include "platform/platform.h"

int netlink_socket_create(struct sockaddr_nl *local)
{
    int fd = socket(AF_NETLINK, SOCK_RAW, meterd_netlink_protocol);
    if (fd < 0)
        return -1;
    int rcvbufsz2 = 0;
    socklen_t optlen = sizeof rcvbufsz2;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbufsz2, &optlen) < 0) {
        perror("getsockopt(sock, SOL_SOCKET, SO_RCVBUF, &rcvbufsz2, &optlen)");
        close(fd);
        return -1;
    }
    int rcvbufsz = rcvbufsz2 * 2;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbufsz, sizeof rcvbufsz) < 0) {
        fprintf(stderr, "Unable to set socket rcv buf size to %d\n", rcvbufsz);
        close(fd);
        return -1;
    }
    memset(local, 0, sizeof *local);
    local->nl_family = AF_NETLINK;
    local->nl_groups = NETLINK_GROUP_STA;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(local), sizeof *local) < 0) {
        close(fd);
        return -2;
    }
    return fd;
}

namespace {

// atoi's reading of an index token, but a number beyond int is cut to it, so
// that a crafted name cannot make the zero-based index undefined.
int index_of(const char *token)
{
    long long v = strtoll(token, nullptr, 10);
    if (v > INT_MAX)
        v = INT_MAX;
    if (v < INT_MIN + 1LL)
        v = INT_MIN + 1LL;
    return static_cast<int>(v) - 1;
}

}  // namespace

int getInterfaceIdx(const char *if_name, int *radioIdx, int *wlanIdx)
{
    if (!if_name[0])
        return 0;
    char copy[17];
    copy_text(copy, sizeof copy, if_name);
    char *save = nullptr;
    strtok_r(copy, "-", &save);  // "wlan", or whatever the driver calls it
    const char *radio = strtok_r(nullptr, "-", &save);
    const char *wlan = radio ? strtok_r(nullptr, "-", &save) : nullptr;
    if (!wlan)
        return 0;
    *radioIdx = index_of(radio);
    *wlanIdx = index_of(wlan);
    return 1;
}

namespace {

enum { WLAN_IDX_NO_STOP = 9, OWE_WLAN_FIRST = 14, OWE_WLAN_LAST = 16 };

// Bytes of the event that a command reads; a shorter payload is dropped.
const size_t STA_MAC_END = offsetof(sarnet_event, data.u.sta.macaddr) + 6;
const size_t STA_COUNTERS_END = offsetof(sarnet_event, data.u.sta.rx_bytes) + 8;

// Stops the first node of the family whose MAC is mac and, when interface
// is given, whose profile is that interface's. At most one per call.
void stop_first(int type, const char *mac, const char *interface)
{
    conn_t conn_status = {0, 0};
    struct list_head *p, *n;
    list_for_each_safe(p, n, session_list(type)) {
        auto *node = list_entry(p, struct accounting_node, address_sorting_list);
        struct user_node_info *user = node->self->user;
        TRACE("node mac is: %s\nevent mac is: %s\n", user->user_mac, mac);
        if (interface && strcmp(node->self->acct_radius->interface, interface) != 0)
            continue;
        if (strcmp(user->user_mac, mac) == 0) {
            accounting_stop_by_mac(node, type, &conn_status);
            return;
        }
    }
}

void sta_disassoc(const struct sarnet_sta_info *sta, const char *ifi_name, int wlanIdx)
{
    TRACE("Into accounting_sta_disassoc\n");
    static const uint8_t zero[6] = {0};
    if (memcmp(sta->macaddr, zero, sizeof zero) == 0) {
        TRACE("000000000..Orz\n");
        return;
    }
    if (wlanIdx == WLAN_IDX_NO_STOP)
        return;
    TRACE("recieve user disassoc event\n");
    char mac_buf[MAC_TEXT_SIZE];
    mac_bytes_to_text(mac_buf, sta->macaddr);
    stop_first(PROFILE_TYPE_NORMAL, mac_buf, ifi_name);
    if (is_cloud)
        stop_first(PROFILE_TYPE_PORTAL, mac_buf, ifi_name);
}

void sta_counters(const struct sarnet_sta_info *sta)
{
    char mac_buf[MAC_TEXT_SIZE];
    mac_bytes_to_text(mac_buf, sta->macaddr);
    conn_t conn_status;
    memcpy(&conn_status.tx, &sta->tx_bytes, sizeof conn_status.tx);
    memcpy(&conn_status.rx, &sta->rx_bytes, sizeof conn_status.rx);
    accounting_update_tx_rx(mac_buf, PROFILE_TYPE_NORMAL, &conn_status);
    accounting_update_tx_rx(mac_buf, PROFILE_TYPE_PORTAL, &conn_status);
}

// A user known from the portal user table opens a new portal session,
// which then waits for its address like a normal one.
void sta_assoc(const struct sarnet_sta_info *sta, int radioIdx, int wlanIdx)
{
    TRACE("Into accounting_sta_assoc\n");
    TRACE("recieve user assoc event\n");
    char sta_mac[MAC_TEXT_SIZE];
    mac_bytes_to_text(sta_mac, sta->macaddr);
    char interface[64];
    snprintf(interface, sizeof interface, "wlan-%d-%d", radioIdx + 1, wlanIdx + 1);
    int table_index = hash_func(sta_mac);
    char ssid_profile_name[64];
    snprintf(ssid_profile_name, sizeof ssid_profile_name, "SSID%d", wlanIdx + 1);

    struct list_head *p, *n;
    list_for_each_safe(p, n, &mac_hash_table[table_index].head) {
        auto *entry = list_entry(p, struct user_entry, user_list);
        if (!portal_user_matches(entry, sta_mac, ssid_profile_name))
            continue;
        // An older portal session of this station ends wherever it ran.
        stop_first(PROFILE_TYPE_PORTAL, sta_mac, nullptr);
        struct accounting_radius *radius = search_radius_by_interface(interface, PROFILE_TYPE_PORTAL);
        if (!radius) {
            TRACE("the mac %s cannot sending accounting start because search radius fail\n", sta_mac);
            return;
        }
        // Converted for each entry, as a device MAC it cannot read is
        // reported (and seen on the console) with each session it would name.
        char ap_mac[MAC_TEXT_SIZE];
        memset(ap_mac, 0, sizeof ap_mac);
        change_mac_format(ap_mac, global_ap_mac);
        accounting_msg_t msg;
        memset(&msg, 0, sizeof msg);
        copy_text(msg.calling_station_id, sizeof msg.calling_station_id, sta_mac);
        snprintf(msg.called_station_id, sizeof msg.called_station_id, "%s:%s", ap_mac, entry->ssid_name);
        copy_text(msg.user_name, sizeof msg.user_name, entry->username);
        add_new_node(&msg, radius, PROFILE_TYPE_PORTAL, 1);
    }
}

// payload holds the payload_len bytes of the event that ev copies.
void sta_ip(const unsigned char *payload, size_t payload_len, const struct sarnet_event *ev)
{
    // The address stands where the record's own header says, wherever that
    // is inside what the driver sent, the record's own end not withstanding.
    size_t at = offsetof(sarnet_event, data) + ev->data.hdr.len;
    if (at + 4 > payload_len)
        return;
    char sta_mac[MAC_TEXT_SIZE];
    mac_bytes_to_text(sta_mac, ev->data.u.sta.macaddr);
    struct in_addr ip;
    memcpy(&ip, payload + at, sizeof ip);
    struct list_head *p;
    list_for_each(p, &mac_address_header) {
        auto *node = list_entry(p, struct accounting_node, address_sorting_list);
        struct user_node_info *user = node->self->user;
        TRACE("node mac is: %s\n sta mac is: %s\n", user->user_mac, sta_mac);
        if (strcmp(user->user_mac, sta_mac) == 0) {
            user->user_ip = ip;
            TRACE("ip: %s\n", inet_ntoa(ip));
        }
    }
}

// One SARNET_ATTR_EVENT payload of payload_len bytes; ifi_name is terminated.
void accounting_sta_disassoc(const unsigned char *e, size_t payload_len, const char *ifi_name)
{
    struct sarnet_event ev;
    memset(&ev, 0, sizeof ev);
    memcpy(&ev, e, payload_len < sizeof ev ? payload_len : sizeof ev);
    if (payload_len < STA_MAC_END)
        return;
    unsigned cmd = ev.hdr.cmd;

    // No name, no indexes: -1 keeps the WLAN rules from matching by accident.
    int radioIdx = -1, wlanIdx = -1;
    if (ifi_name[0]) {
        if (!getInterfaceIdx(ifi_name, &radioIdx, &wlanIdx)) {
            fprintf(stderr, "in %s,ifi_name is NULL !!!event_type (%x/%x) ", __func__, cmd & 0xff00,
                    cmd & 0xff);
            return;
        }
        if (wlanIdx + 1 >= OWE_WLAN_FIRST && wlanIdx + 1 <= OWE_WLAN_LAST) {
            oweconf_t owetm_vap_conf;
            memset(&owetm_vap_conf, 0, sizeof owetm_vap_conf);
            if (wpa3_get_owetm_info(radioIdx + 1, wlanIdx + 1, &owetm_vap_conf) == -1)
                return;
            wlanIdx = owetm_vap_conf.openssid_idx - 1;
        }
    }

    switch (cmd) {
    case SARNET_CMD_STA_ASSOC:
        if (is_cloud && ifi_name[0])
            sta_assoc(&ev.data.u.sta, radioIdx, wlanIdx);
        break;
    case SARNET_CMD_STA_DISASSOC:
        sta_disassoc(&ev.data.u.sta, ifi_name, wlanIdx);
        break;
    case SARNET_CMD_STA_COUNTERS:
        if (payload_len >= STA_COUNTERS_END)
            sta_counters(&ev.data.u.sta);
        break;
    case SARNET_CMD_STA_IP:
        if (is_cloud)
            sta_ip(e, payload_len, &ev);
        break;
    default:
        break;
    }
}

// The attributes of one wireless event message of len bytes (len >= 16).
void walk_attributes(const unsigned char *h, int32_t len)
{
    int32_t budget = len - SARNET_ATTR_OFFSET;
    if (budget <= 0)
        return;
    // The name may fill its field; one byte more keeps it a C string.
    char ifi_name[sizeof(sarnet_ifinfomsg::ifi_name) + 1];
    copy_field(ifi_name, sizeof ifi_name, reinterpret_cast<const char *>(h + SARNET_IFINFO_OFFSET),
               sizeof ifi_name - 1);
    const unsigned char *a = h + SARNET_ATTR_OFFSET;
    while (budget >= static_cast<int32_t>(sizeof(struct nlattr))) {
        struct nlattr attr;
        memcpy(&attr, a, sizeof attr);
        if (attr.nla_len < static_cast<int32_t>(sizeof attr) || attr.nla_len > budget)
            break;
        if (attr.nla_type == SARNET_ATTR_EVENT)
            accounting_sta_disassoc(a + sizeof attr, attr.nla_len - sizeof attr, ifi_name);
        int32_t step = NLA_ALIGN(attr.nla_len);
        if (step >= budget)
            break;
        budget -= step;
        a += step;
    }
}

}  // namespace

void netlink_input(const void *buf, size_t len)
{
    const unsigned char *h = static_cast<const unsigned char *>(buf);
    int64_t left = static_cast<int64_t>(len);
    while (left >= static_cast<int64_t>(sizeof(struct nlmsghdr))) {
        struct nlmsghdr hdr;
        memcpy(&hdr, h, sizeof hdr);
        int32_t msg_len = static_cast<int32_t>(hdr.nlmsg_len);
        if (msg_len > left || msg_len < static_cast<int32_t>(sizeof hdr))
            return;
        if (hdr.nlmsg_type == SARNETM_WIRELESS_EVENT)
            walk_attributes(h, msg_len);
        int64_t step = NLMSG_ALIGN(static_cast<int64_t>(msg_len));
        if (step >= left)
            return;
        left -= step;
        h += step;
    }
}
