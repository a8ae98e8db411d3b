// Wire records of the control channel (and, for ovat_config_event, of the
// portal channel). Host byte order; sender and receiver share the machine.
// Text fields are NUL-terminated by the sender; readers stay within them.
#ifndef METERD_FRAME_OVAT_EVENT_H
#define METERD_FRAME_OVAT_EVENT_H

#include <netinet/in.h>
#include <cstddef>
#include <cstdint>

enum {
    ACCOUNTING_EVENT_REMOVE = 2,
    ACCOUNTING_EVENT_AC_IP_CHANGE = 3,
    ACCOUNTING_EVENT_INIT = 4,
    ACCOUNTING_EVENT_EXIT = 5,
    ACCOUNTING_EVENT_MODIFY_FOR_PORTAL = 6,
    ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE = 7,
    ACCOUNTING_EVENT_DEBUG_OFF = 100,
    ACCOUNTING_EVENT_DEBUG_ON = 101,
    ACCOUNTING_EVENT_DEBUG_DUMP = 102,
    // Beyond the design: the delivery counters, answered to the sender
    // alone; it reads no payload and changes nothing.
    ACCOUNTING_EVENT_DELIVERY_STATS = 103,
};

struct ovat_ac_ip_change {
    char old_ac_ip[64];  // event 7: the controller's address
    char new_ac_ip[64];  // event 7: the new shared secret
};

struct ovat_config_event {
    char interface[64];
    char hostname[64];
    int port;
    char backup_hostname[64];
    int backup_port;
    char secret[65];
    char backup_secret[65];
    struct in_addr nas_ip;  // network byte order; portal family only
    char nas_id[65];        // portal family only
    int acct_interim;       // minutes; portal family only
};

struct ovat_remove_event {
    char interface[64];
};

struct ovat_exit_event {
    unsigned char status;
};

// event_id is 64 bits wide on every target, so that the record keeps its
// 416 bytes on 32-bit devices too.
typedef struct accounting_event_s {
    int64_t event_id;
    union {
        struct ovat_ac_ip_change ip_change_event;
        struct ovat_config_event radius_profile;
        struct ovat_remove_event remove_profile;
        struct ovat_exit_event exit_event;
    } u;
} accounting_event_t;

static_assert(sizeof(ovat_ac_ip_change) == 128, "layout");
static_assert(sizeof(ovat_config_event) == 408, "layout");
static_assert(offsetof(ovat_config_event, port) == 128, "layout");
static_assert(offsetof(ovat_config_event, backup_hostname) == 132, "layout");
static_assert(offsetof(ovat_config_event, backup_port) == 196, "layout");
static_assert(offsetof(ovat_config_event, secret) == 200, "layout");
static_assert(offsetof(ovat_config_event, backup_secret) == 265, "layout");
static_assert(offsetof(ovat_config_event, nas_ip) == 332, "layout");
static_assert(offsetof(ovat_config_event, nas_id) == 336, "layout");
static_assert(offsetof(ovat_config_event, acct_interim) == 404, "layout");
static_assert(sizeof(accounting_event_t) == 416, "control datagram is 416 bytes");
static_assert(offsetof(accounting_event_t, u) == 8, "layout");

#endif
