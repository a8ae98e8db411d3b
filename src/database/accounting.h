// Records, value tables and global list heads of the accounting database.
//
// Every record lives on the heap on its own, has one owner that frees it, and
// is chained by links inside it, so that moving one between lists allocates
// nothing. All of it is guarded by the global `mutex`; nothing here locks.
#ifndef METERD_DATABASE_ACCOUNTING_H
#define METERD_DATABASE_ACCOUNTING_H

#include <netinet/in.h>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "database/linked-list.h"

struct pw_auth_hdr;
typedef struct pw_auth_hdr AUTH_HDR;

// queue_type
enum {
    QUEUE_TYPE_NONE = 0,
    QUEUE_TYPE_INTERIM = 1,
    QUEUE_TYPE_REQUEST = 2,
    QUEUE_TYPE_FAIL = 3,
    QUEUE_TYPE_BACKLOG = 4,  // meterd -k: waiting for a server of its profile to answer
    QUEUE_TYPE_LOOKUP = 5,   // meterd -l: an Interim-Update waiting for its look-ups (delivery/lookups.h)
};

// Accounting status: the RFC 2866 Acct-Status-Type value.
enum {
    ACCOUNTING_START = 1,
    ACCOUNTING_STOP = 2,
    ACCOUNTING_INTERIM = 3,
    ACCOUNTING_ON = 7,
    ACCOUNTING_OFF = 8,
};

// Server selector of a node.
enum {
    SERVER_NONE = 0,
    SERVER_PRIMARY = 1,
    SERVER_BACKUP = 2,
};

// Profile family, the `type` argument.
enum {
    PROFILE_TYPE_NORMAL = 0,
    PROFILE_TYPE_PORTAL = 1,
};

// Fixed delivery constants of every configured profile.
enum {
    RADIUS_TIME_OUT = 5,
    RADIUS_RETRY_COUNT = 3,
};

// Extended delivery only (meterd -k): whether a server answers, and its
// probes. All zero in the design, which never reads it.
struct server_state {
    unsigned char dead;
    unsigned char probe_in_flight;  // a Status-Server waits for its answer
    unsigned char probe_source;     // its socket and Identifier
    uint8_t probe_id;
    unsigned char probe_vector[16];  // its Request Authenticator, to verify the answer
    unsigned char by_request;        // Status-Server goes unanswered: a request probes instead
    time_t since;                    // when it last became dead or live; 0: never changed
    time_t next_probe;
    uint32_t probes;         // probes sent (Status-Server or a request)
    uint32_t probe_answers;  // ... answered
    uint32_t unanswered;     // probes in a row without an answer
    time_t last_answer;      // of any request or probe: a server that answers is not dead
};

typedef struct radius_accounting_server {
    struct in_addr acct_ip;  // from hostname before each send
    char hostname[64];
    int acct_port;           // host byte order
    char secret[65];
    struct server_state state;
} radius_server;

struct accounting_radius {
    int acc_interim;  // seconds; portal family only, the interim queue key
    char interface[64];
    radius_server *primary_server;  // owned, NULL when none
    radius_server *backup_server;   // owned, NULL when none
    struct in_addr nas_ip;
    char nas_id[128];
    int retry_count;  // limit: 3 once configured
    int time_out;     // seconds: 5 once configured
    struct list_head user_node_header;     // session nodes (radius_profile_list)
    struct list_head total_radius_server;  // link on the family list
    unsigned char acct_status;             // ACCOUNTING_ON, then ACCOUNTING_OFF once removed
    int on_off_count;                      // on/off nodes begun and not ended
};

typedef struct conn_s {
    uint64_t rx;
    uint64_t tx;
} conn_t;

struct user_node_info {
    time_t login_time;
    char user_name[64];
    struct in_addr user_ip;  // network byte order
    char user_mac[18];       // canonical text AA-BB-CC-DD-EE-FF
    int uam_logout_cause;
    char session_id[32];
    char called_station_id[128];
    int accounting_start;
};

struct user_accounting_info {
    struct user_node_info *user;  // owned; NULL marks an on/off node
    unsigned short queue_type;    // last queue asked for; nothing decides on it
    // Delivery counters (radius/client_stats): 1 + the table row of the
    // server that the current packet last went to, 0 before it went anywhere;
    // and when it went, in monotonic milliseconds. On 64-bit targets both
    // stand where padding was, so a node is no larger.
    unsigned char sent_to;
    // The socket whose Identifiers the packet's belongs to: 0 but with
    // unique Identifiers (radius_source_open). In padding as well.
    unsigned char source;
    uint32_t sent_ms;
    struct accounting_radius *acct_radius;  // not owned
    AUTH_HDR *request;            // owned; the packet of the current transaction
    int retry_count;
    unsigned char server;
    time_t time_out;              // remains 0
    time_t report_time;           // next due second; request queue sort key
    int acc_interim;
    char auth_module[32];
    char nas_ip_info[64];
    char nas_id_info[128];
    unsigned char acc_class[128];
    int class_length;
    conn_t conn_tx_rx_status;
    // Steady counters only: the device's last reading and what was counted
    // before its counters were last reset (delivery/policy.cc).
    conn_t conn_seen;
    conn_t conn_base;
    // Extended delivery only: the event the current request reports (the
    // login, the disassociation, the Interim-Update's due second), kept
    // through every resend, and the request's Acct-Status-Type.
    time_t event_time;
    unsigned char status;
    unsigned char probing;  // the request is a probe of a dead server: one transmission
    // meterd -l only: whether the last look-up found the station's address
    // (then in user_ip), and which look-up of the daemon the node waits for
    // on lookup_header. Where padding was, on 64-bit targets.
    unsigned char address_found;
    uint32_t lookup_gen;
    time_t budget_since;    // when the request's budget with its server began
};

struct accounting_node {
    struct list_head queue;  // first field: the link's address is the node's
    struct list_head address_sorting_list;
    struct list_head radius_profile_list;
    struct list_head ip_change_list;
    struct user_accounting_info *self;  // owned
};
static_assert(offsetof(accounting_node, queue) == 0, "queue link must be first");

struct interim_queue {
    struct list_head total_interim_queue;  // first field
    int interim;
    struct list_head interim_queue_header;
};
static_assert(offsetof(interim_queue, total_interim_queue) == 0, "link must be first");

typedef void (*scheduler_func)(struct list_head *header);

struct scheduler_event_register {
    struct list_head register_event;
    time_t register_time;
    scheduler_func handler;
    struct list_head *header;
};

// The nine global heads; self-linked from the start of the program.
extern struct list_head mac_address_header;
extern struct list_head portal_mac_address_header;
extern struct list_head ip_change_header;
extern struct list_head total_interim_queue_header;
extern struct list_head total_radius_server_header;
extern struct list_head portal_radius_server_header;
extern struct list_head event_header;
extern struct list_head request_queue_header;
extern struct list_head fail_queue_header;

// The login record of the authenticator: a wire format, 648 bytes, host order.
typedef struct accounting_msg_s {
    char user_name[64];
    char calling_station_id[32];
    char called_station_id[128];
    char interface[64];
    char auth_module[32];
    int interim_interval;
    char nas_ip_acct[32];
    char nas_id_acct[128];
    unsigned char attr_class[128];
    int class_length;
    char session_id[32];
} accounting_msg_t;
static_assert(sizeof(accounting_msg_t) == 648, "login record is 648 bytes");
static_assert(offsetof(accounting_msg_t, interface) == 224, "layout");
static_assert(offsetof(accounting_msg_t, interim_interval) == 320, "layout");
static_assert(offsetof(accounting_msg_t, nas_id_acct) == 356, "layout");
static_assert(offsetof(accounting_msg_t, attr_class) == 484, "layout");
static_assert(offsetof(accounting_msg_t, class_length) == 612, "layout");
static_assert(offsetof(accounting_msg_t, session_id) == 616, "layout");

// Bounded text copy: at most size-1 characters and a terminator; longer text
// is cut. Reads src only up to its terminator or size-1 characters.
void copy_text(char *dst, size_t size, const char *src);
// The same for a source field of src_size bytes that may lack a terminator.
void copy_field(char *dst, size_t size, const char *src, size_t src_size);

#endif
