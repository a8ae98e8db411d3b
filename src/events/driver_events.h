// The wireless driver's netlink messages: association, disassociation, byte
// counters and address of a station. Records are in the device's byte order
// with natural alignment; explicit padding keeps offsets equal on every
// target. Everything here runs on the station thread with `mutex` held.
#ifndef METERD_EVENTS_DRIVER_EVENTS_H
#define METERD_EVENTS_DRIVER_EVENTS_H

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>

enum { SARNETM_BASE = 1, SARNETM_WIRELESS_EVENT = 1, __SARNETM_MAX = 2 };
enum { SARNET_ATTR_EVENT = 0x8000 };
enum {
    SARNET_CMD_STA_ASSOC = 0x8001,
    SARNET_CMD_STA_DISASSOC = 0x8002,
    SARNET_CMD_STA_COUNTERS = 0x8008,
    SARNET_CMD_STA_IP = 0x8101,
};
enum { NETLINK_READ_SIZE = 256, NETLINK_GROUP_STA = 1 };

struct sarnet_ifinfomsg {
    char ifi_name[16];  // wlan-R-W; may fill all 16 bytes with no terminator
    unsigned short ifi_type;
    unsigned char pad[2];
    int ifi_index;
};
static_assert(sizeof(sarnet_ifinfomsg) == 24, "layout");
static_assert(offsetof(sarnet_ifinfomsg, ifi_index) == 20, "layout");
static_assert(sizeof(struct nlmsghdr) == 16, "layout");

struct sarnet_sta_info {
    uint16_t vid;
    uint8_t macaddr[6];
    uint8_t isBTMSupported : 1;
    uint8_t isRRMSupported : 1;
    uint8_t rssi;
    uint8_t authorized;
    uint8_t is_reassoc;
    uint8_t auth_alg;
    uint8_t ssid[32];
    uint8_t pad1;
    uint16_t event_code;
    uint16_t reason_code;
    char event_type[64];
    uint8_t reassoc_ap[6];
    char security[32];
    uint64_t tx_bytes;
    uint64_t rx_bytes;
    uint8_t channel;
    uint8_t mld_macaddr[6];
    uint8_t pad2;
    uint32_t mlo_cap;
    uint8_t pad3[4];
};
static_assert(sizeof(sarnet_sta_info) == 184, "layout");
static_assert(offsetof(sarnet_sta_info, macaddr) == 2, "layout");
static_assert(offsetof(sarnet_sta_info, ssid) == 13, "layout");
static_assert(offsetof(sarnet_sta_info, event_code) == 46, "layout");
static_assert(offsetof(sarnet_sta_info, reassoc_ap) == 114, "layout");
static_assert(offsetof(sarnet_sta_info, tx_bytes) == 152, "layout");
static_assert(offsetof(sarnet_sta_info, rx_bytes) == 160, "layout");
static_assert(offsetof(sarnet_sta_info, mlo_cap) == 176, "layout");

struct sarnet_dhcp_info {
    uint8_t macaddr[6];
    uint8_t status;
    uint8_t reason;
    char hostname[64];
    uint8_t hostname_len;
    uint8_t pad[3];
    uint32_t ip;
    uint8_t type;
    uint8_t pad2[3];
    uint32_t server_ip;
    uint32_t gateway_ip;
    uint32_t latency;
};
static_assert(sizeof(sarnet_dhcp_info) == 96, "layout");
static_assert(offsetof(sarnet_dhcp_info, ip) == 76, "layout");

struct sarnet_req_data {
    struct {
        uint16_t len;  // SARNET_CMD_STA_IP: offset of the address in this record
        uint16_t ext_len;
    } hdr;
    uint8_t pad[4];
    union {
        struct sarnet_sta_info sta;
        struct sarnet_dhcp_info dhcp_info;
    } u;
};
static_assert(sizeof(sarnet_req_data) == 192, "layout");
static_assert(offsetof(sarnet_req_data, u) == 8, "layout");

struct sarnet_event {
    struct {
        uint16_t len;
        uint16_t cmd;
    } hdr;
    uint8_t pad[4];
    struct sarnet_req_data data;
};
static_assert(sizeof(sarnet_event) == 200, "layout");
static_assert(offsetof(sarnet_event, data) == 8, "layout");

// Offsets of a wireless event message: header, interface, first attribute.
enum { SARNET_IFINFO_OFFSET = 16, SARNET_ATTR_OFFSET = 40 };

// The driver's socket, bound to group 1 with a doubled receive buffer: the
// descriptor, -1 if the socket or a buffer option fails, -2 if bind fails.
int netlink_socket_create(struct sockaddr_nl *local);

// Zero-based radio and WLAN of a wlan-R-W name: 1 with both set, 0 with
// neither (empty name, or fewer than two numbers after the first token).
int getInterfaceIdx(const char *if_name, int *radioIdx, int *wlanIdx);

// Walks the messages of one datagram of len bytes and serves each station
// event in it. Reads nothing outside the bytes given.
void netlink_input(const void *buf, size_t len);

#endif
