// Composition of Accounting-Requests.
#include "radius/compose.h"

#include <arpa/inet.h>

#include <cstring>

#include "database/nodes.h"
#include "database/profiles.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"

// Nothing assigns it: every packet carries NAS-Port 0.
unsigned short local_port = 0;

// Keyed by the node's uam_logout_cause, not by the UAM library's event numbers.
const termination_cause_t termination_cause_array[TERMINATION_CAUSE_COUNT] = {
    {1, 4, "Idle-Timeout"},
    {2, 5, "Session-Timeout"},
    {3, 10, "NAS-Request due to lease timeout"},
    {4, 10, "NAS-Request due to reauth timeout"},
    {5, 10, "NAS-Request due to admin force logout"},
    {6, 1, "User-Request"},
    {7, 1, "User-Request"},
};

namespace {

struct compose_rules rules;

// A wall clock before this (2020) was never set: the access point booted
// without the time of day, and an Event-Timestamp would lie.
constexpr time_t CLOCK_SET = 1577836800;

enum {
    ACCT_AUTHENTIC_RADIUS = 1,
    NAS_PORT_TYPE_ETHERNET = 15,
    TERMINATE_CAUSE_ADMIN_RESET = 6,
    TERMINATE_CAUSE_NAS_REBOOT = 11,
    VENDOR_SUBTYPE_AUTH_MODULE = 5,
};

// Length of a text field without its terminator, never beyond the field
// nor beyond what one attribute value holds.
size_t field_len(const char *text, size_t field_size)
{
    size_t cap = field_size < size_t{RADIUS_ATTR_MAX_VALUE} ? field_size : size_t{RADIUS_ATTR_MAX_VALUE};
    return strnlen(text, cap);
}

template <size_t N>
void add_text(AUTH_HDR *req, uint8_t type, const char (&field)[N])
{
    radius_msg_add_attr(req, type, reinterpret_cast<const unsigned char *>(field),
                        field_len(field, N));
}

void add_address(AUTH_HDR *req, uint8_t type, struct in_addr addr)
{
    unsigned char bytes[4];
    memcpy(bytes, &addr.s_addr, sizeof bytes);  // already in network order
    radius_msg_add_attr(req, type, bytes, sizeof bytes);
}

// Framed-IP-Address. A Stop, and the Start that follows the station's IP
// report, carry the stored address as it is; every other packet asks the
// device afresh, at this point of the packet, and carries nothing when the
// device does not know.
void add_framed_ip(AUTH_HDR *req, struct accounting_node *node, int status)
{
    struct user_node_info *user = node->self->user;
    if (status == ACCOUNTING_STOP || (status == ACCOUNTING_START && user->accounting_start == 1)) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &user->user_ip, text, sizeof text);
        TRACE("STA %s IP:%s \n", status == ACCOUNTING_STOP ? "ACCOUNTING_STOP" : "ACCOUNTING_START",
              text);
        add_address(req, RADIUS_ATTR_FRAMED_IP_ADDRESS, user->user_ip);
        return;
    }
    struct in_addr ip;
    if (radius_client()->address(node, &ip) != 0)
        add_address(req, RADIUS_ATTR_FRAMED_IP_ADDRESS, ip);
}

// NAS-IP-Address. With neither an address nor an identifier the node takes
// the loopback address and keeps it for its later packets. Text that is no
// IPv4 address gives no attribute.
void add_nas_ip(AUTH_HDR *req, struct user_accounting_info *self)
{
    if (!self->nas_ip_info[0]) {
        if (self->nas_id_info[0])
            return;
        copy_text(self->nas_ip_info, sizeof self->nas_ip_info, "127.0.0.1");
    }
    struct in_addr addr;
    if (inet_pton(AF_INET, self->nas_ip_info, &addr) == 1)
        add_address(req, RADIUS_ATTR_NAS_IP_ADDRESS, addr);
}

void add_head(AUTH_HDR *req, struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    struct user_node_info *user = self->user;
    if (user) {
        TRACE("user name:%s, length:%zu\n", user->user_name,
              field_len(user->user_name, sizeof user->user_name));
        TRACE("user mac:%s\n", user->user_mac);
        TRACE("session id:%s\n", user->session_id);
        add_text(req, RADIUS_ATTR_USER_NAME, user->user_name);
        add_framed_ip(req, node, status);
        add_text(req, RADIUS_ATTR_ACCT_SESSION_ID, user->session_id);
    }
    radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_STATUS_TYPE, status);
    radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_AUTHENTIC, ACCT_AUTHENTIC_RADIUS);
    if (self->nas_id_info[0])
        add_text(req, RADIUS_ATTR_NAS_IDENTIFIER, self->nas_id_info);
    add_nas_ip(req, self);
    TRACE("nas id:%s, length:%zu\n", self->nas_id_info,
          field_len(self->nas_id_info, sizeof self->nas_id_info));
    TRACE("nas ip:%s, length:%zu\n", self->nas_ip_info,
          field_len(self->nas_ip_info, sizeof self->nas_ip_info));
    radius_msg_add_attr_int32(req, RADIUS_ATTR_NAS_PORT, local_port);
    radius_msg_add_attr_int32(req, RADIUS_ATTR_NAS_PORT_TYPE, NAS_PORT_TYPE_ETHERNET);
}

void add_session_block(AUTH_HDR *req, struct user_accounting_info *self)
{
    struct user_node_info *user = self->user;
    add_text(req, RADIUS_ATTR_CALLING_STATION_ID, user->user_mac);
    add_text(req, RADIUS_ATTR_CALLED_STATION_ID, user->called_station_id);
    if (self->auth_module[0])
        radius_msg_add_vendor_attr(req, ACCOUNTING_VENDOR_ID, VENDOR_SUBTYPE_AUTH_MODULE,
                                   reinterpret_cast<const unsigned char *>(self->auth_module),
                                   field_len(self->auth_module, sizeof self->auth_module));
    if (self->class_length >= 1 && self->class_length <= RADIUS_ATTR_MAX_VALUE)
        radius_msg_add_attr(req, RADIUS_ATTR_CLASS, self->acc_class,
                            static_cast<size_t>(self->class_length));
}

void add_stop_cause(AUTH_HDR *req, struct user_node_info *user)
{
    const char *reason = "";
    int cause = get_termination_cause(user->uam_logout_cause, &reason);
    TRACE("reason code:%d, reason:%s\n", cause, reason);
    if (cause)
        radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_TERMINATE_CAUSE, cause);
}

void add_tail(AUTH_HDR *req, struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    if (status == ACCOUNTING_ON) {
        radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_TERMINATE_CAUSE, TERMINATE_CAUSE_NAS_REBOOT);
        return;
    }
    if (status == ACCOUNTING_OFF || !self->user) {
        radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_TERMINATE_CAUSE,
                                  TERMINATE_CAUSE_ADMIN_RESET);
        return;
    }
    if (status != ACCOUNTING_START && status != ACCOUNTING_INTERIM && status != ACCOUNTING_STOP)
        return;
    add_session_block(req, self);
    if (status == ACCOUNTING_STOP)
        add_stop_cause(req, self->user);
    accounting_report_sta(node, status, req);
}

// Acct-Delay-Time (RFC 2866): how long the event has waited for this
// packet. A clock set back meanwhile gives 0, not a wrapped count.
void add_delay(AUTH_HDR *req, const struct user_accounting_info *self)
{
    time_t now = mtr_time();
    time_t delay = now > self->event_time ? now - self->event_time : 0;
    radius_msg_add_attr_int32(req, RADIUS_ATTR_ACCT_DELAY_TIME,
                              static_cast<int>(static_cast<uint32_t>(delay)));
}

void sign(struct user_accounting_info *self)
{
    // send_accounting composes only for a node whose server exists.
    const radius_server *server = node_server(self);
    if (server)
        get_accounting_vector(self->request, server->secret);
}

}  // namespace

int get_termination_cause(int uam_logout_cause, const char **reason)
{
    for (const termination_cause_t &row : termination_cause_array) {
        if (row.uam_event == uam_logout_cause) {
            *reason = row.reason;
            return row.acct_termination_cause;
        }
    }
    return 0;
}

int accounting_report_sta(struct accounting_node *node, int status, AUTH_HDR *request)
{
    struct user_accounting_info *self = node->self;
    struct user_node_info *user = self->user;
    if (!user)
        return 0;

    // 32-bit arithmetic on the low words, as the attribute is 32 bits wide.
    // With event times the session is timed to its event, however late the
    // packet leaves.
    time_t at = rules.event_times ? self->event_time : mtr_time();
    uint32_t session_time = static_cast<uint32_t>(at) - static_cast<uint32_t>(user->login_time);
    radius_msg_add_attr_int32(request, RADIUS_ATTR_ACCT_SESSION_TIME,
                              static_cast<int>(session_time));

    // A Stop reports what the session stored; an Interim-Update asks the device now.
    conn_t counters = self->conn_tx_rx_status;
    if (status == ACCOUNTING_INTERIM)
        radius_client()->counters(node, &counters);
    if (status == ACCOUNTING_STOP || status == ACCOUNTING_INTERIM) {
        // No Gigawords attributes: only the low 32 bits travel.
        radius_msg_add_attr_int32(request, RADIUS_ATTR_ACCT_INPUT_OCTETS,
                                  static_cast<int>(static_cast<uint32_t>(counters.rx)));
        radius_msg_add_attr_int32(request, RADIUS_ATTR_ACCT_OUTPUT_OCTETS,
                                  static_cast<int>(static_cast<uint32_t>(counters.tx)));
        if (rules.gigawords) {
            // RFC 2869: how many times each counter has passed 2^32.
            radius_msg_add_attr_int32(request, RADIUS_ATTR_ACCT_INPUT_GIGAWORDS,
                                      static_cast<int>(static_cast<uint32_t>(counters.rx >> 32)));
            radius_msg_add_attr_int32(request, RADIUS_ATTR_ACCT_OUTPUT_GIGAWORDS,
                                      static_cast<int>(static_cast<uint32_t>(counters.tx >> 32)));
        }
    }
    if (rules.event_times) {
        // Without the time of day Acct-Delay-Time alone tells the server.
        if (self->event_time >= CLOCK_SET)
            radius_msg_add_attr_int32(request, RADIUS_ATTR_EVENT_TIMESTAMP,
                                      static_cast<int>(static_cast<uint32_t>(self->event_time)));
        return 0;
    }
    // Read anew: the lookups above may have taken their time.
    radius_msg_add_attr_int32(request, RADIUS_ATTR_EVENT_TIMESTAMP,
                              static_cast<int>(static_cast<uint32_t>(mtr_time())));
    return 0;
}

int accounting_msg(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    if (self->request)
        free_accounting_msg(self);

    AUTH_HDR *req = static_cast<AUTH_HDR *>(mtr_calloc(1, sizeof(AUTH_HDR)));
    if (!req) {
        TRACE("%s: [%s:%d]: alloc failed in accounting_msg()\n", "radius_send_recieve", __func__,
              __LINE__);
        return -1;
    }

    req->code = RADIUS_CODE_ACCOUNTING_REQUEST;
    unsigned char source;
    int id = radius_client()->take_identifier(&source);
    if (id < 0) {
        mtr_free(req);
        return 1;
    }
    req->id = static_cast<uint8_t>(id);
    req->length = htons(RADIUS_HDR_LEN);

    add_head(req, node, status);
    add_tail(req, node, status);
    if (rules.event_times)
        add_delay(req, self);

    if (rules.fitted) {
        // Nothing is added to a stored request afterwards: its length is
        // all that is ever read of it. Without memory for the copy the
        // whole buffer serves as well.
        size_t len = ntohs(req->length);
        auto *fitted = static_cast<AUTH_HDR *>(mtr_malloc(len));
        if (fitted) {
            memcpy(fitted, req, len);
            mtr_free(req);
            req = fitted;
        }
    }
    self->request = req;
    self->sent_to = 0;
    self->source = source;
    sign(self);
    return 0;
}

void compose_configure(const struct compose_rules *r)
{
    rules = *r;
}
