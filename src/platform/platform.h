// The device under the daemon: what the access point's own libraries offer.
// The `sim` backend implements these over files in /tmp/devsim; the `device`
// backend links the real libraries, which define the same symbols.
#ifndef METERD_PLATFORM_PLATFORM_H
#define METERD_PLATFORM_PLATFORM_H

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

extern "C" {

// Device-kit library: the operating mode (WHOPMODE_*).
int merra_wlan_get_hybridmode(void);

// Common radio library: the device MAC as text of at most len bytes, maybe
// ending in a line feed.
int rrm_get_common_mac(char *buf, int len);

// Closed parser library: function table of a module.
enum parser_role { PARSER_CLI = 0, PARSER_SRV = 1 };
typedef struct parser_module {
    void *handle;
    int (*get_id)(void);
    int (*parser)(void *ctx, const char *buf, int len);
    int (*get_addr)(void *ctx, char *buf, int len);
    void *(*init_sock)(int role);
    int (*handle_tlv)(void *ctx, const void *tlv, int len);
    int (*comm_server)(void *ctx);
    void (*close_sock)(void *client, int flags);
    // Runs the command given as words ended by a null pointer; leaves its
    // answer as terminated text in result (1024 bytes).
    int (*gen_cmd)(void *client, char *result, ...);
} parser_module;
parser_module *parser_open(const char *name);
void parser_close(parser_module *module);

// WPA3 information library: the OWE transition record of a WLAN.
typedef struct oweconf_s {
    int owetmvap_idx;
    char ssidname[33];
    char mac[20];
    int openssid_idx;  // WLAN index, from 1, of the open SSID of this WLAN
    char band[20];
} oweconf_t;
// radio and wlan count from 1. -1 on failure; any other value fills conf.
int wpa3_get_owetm_info(int radio, int wlan, oweconf_t *conf);

// UAM client library.
struct uam_handle {
    int fd;
    u_int8_t mode;
};

enum {
    UAM_EVENT_USER_LOGIN = 1,
    UAM_EVENT_USER_SOCIAL_LOGIN_STAGE1 = 2,
    UAM_EVENT_USER_SOCIAL_LOGIN_STAGE2 = 3,
    UAM_EVENT_USER_LOGOUT = 4,
    UAM_EVENT_USER_LOGOUT2 = 5,
    UAM_EVENT_USER_REAUTH_TIMEOUT = 6,
    UAM_EVENT_USER_LEASE_TIMEOUT = 7,
    UAM_EVENT_USER_IDLE_TIMEOUT = 8,
    UAM_EVENT_USER_SESSION_TIMEOUT = 9,
    UAM_EVENT_FOREIGN_USER_LOGOUT = 10,
    UAM_EVENT_USER_FORCE_LOGOUT = 18,
    UAM_EVENT_LIMIT = 39,
};
enum { USR_FROM_FOREIGN = 2 };
#define UAM_NO_IP 0xFFFFFFFFu

// 1144 bytes, filled by uam_read_event. Text fields are NUL-terminated by
// the library when they fit; readers stay within each field.
struct uam_event {
    int event;
    int count;
    int sub_event;
    char service[32];
    char username[64];
    char real_username[64];
    char define_name[64];
    char unique[65];
    u_int32_t ip;
    u_int32_t dst_ip;
    u_int32_t tunnel_ip;
    unsigned char attribute;
    unsigned char type;
    union {
        unsigned int lease_time;
        unsigned int reauth_time;
    } update;
    struct in6_addr ip6;
    struct in6_addr dst_ip6;
    struct in6_addr tunnel_ip6;
    unsigned int event_flag;
    int default_lease_time;
    int default_reauth_time;
    unsigned int match_flag;
    unsigned int idle_timeout;
    int idle_timeout_form_acct_flag;
    unsigned int session_timeout;
    char radius_profile_name[128];
    char old_radius_profile_name[128];
    int accounting_status;
    int notify_cc;
    char method[32];
    char locale[16];
    char gender[16];
    char age[16];
    char auth_time[16];
    char ssid_name[64];
    char ssid_profile_name[64];
    char ssid_vap_iface[16];
    char sta_mac[32];
    int usr_from;
    int ga_acct_status;
    char ga_binding_token[128];
    int wispr_bw_up;
    int wispr_bw_down;
    char ssh_tty[64];
};

struct uam_handle *uam_create_handle(int flags);
int uam_set_mode(struct uam_handle *h, int mode);
// Negative on error, 0 when timeout (microseconds) passed with no event,
// positive when e has been filled.
int uam_read_event(struct uam_handle *h, struct uam_event *e, int timeout);

}  // extern "C"

static_assert(sizeof(oweconf_t) == 84, "layout");
static_assert(offsetof(oweconf_t, openssid_idx) == 60, "layout");
static_assert(sizeof(uam_event) == 1144, "UAM event is 1144 bytes");
static_assert(offsetof(uam_event, service) == 12, "layout");
static_assert(offsetof(uam_event, real_username) == 108, "layout");
static_assert(offsetof(uam_event, ip) == 304, "layout");
static_assert(offsetof(uam_event, update) == 320, "layout");
static_assert(offsetof(uam_event, radius_profile_name) == 400, "layout");
static_assert(offsetof(uam_event, method) == 664, "layout");
static_assert(offsetof(uam_event, ssid_name) == 760, "layout");
static_assert(offsetof(uam_event, ssid_profile_name) == 824, "layout");
static_assert(offsetof(uam_event, ssid_vap_iface) == 888, "layout");
static_assert(offsetof(uam_event, sta_mac) == 904, "layout");
static_assert(offsetof(uam_event, usr_from) == 936, "layout");
static_assert(offsetof(uam_event, ga_binding_token) == 944, "layout");
static_assert(offsetof(uam_event, ssh_tty) == 1080, "layout");

// Netlink protocol of the wireless driver on this backend.
extern const int meterd_netlink_protocol;

#endif
