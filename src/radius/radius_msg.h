// The RADIUS packet: its record, the attribute numbers the daemon sends,
// appending and finding attributes, and the RFC 2866 authenticators. These
// operations touch only their arguments and need no lock.
#ifndef METERD_RADIUS_RADIUS_MSG_H
#define METERD_RADIUS_RADIUS_MSG_H

#include <netinet/in.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#ifndef ACCOUNTING_VENDOR_ID
#define ACCOUNTING_VENDOR_ID 32473  // RFC 5612 documentation number
// HMAC-MD5 (RFC 2104) of data under key: 16 bytes to digest.
void hmac_md5(const unsigned char *key, size_t key_len, const unsigned char *data, size_t len,
              unsigned char digest[16]);
// A Status-Server (RFC 5997) with Identifier id and Request Authenticator
// vector, naming the NAS by nas_id or else nas_ip, signed by its
// Message-Authenticator.
void status_server_msg(AUTH_HDR *req, uint8_t id, const unsigned char vector[16], const char *secret,
                       const char *nas_id, struct in_addr nas_ip);

#endif

enum {
    RADIUS_CODE_ACCOUNTING_REQUEST = 4,
    RADIUS_CODE_ACCOUNTING_RESPONSE = 5,
    RADIUS_CODE_STATUS_SERVER = 12,
    RADIUS_HDR_LEN = 20,
    RADIUS_DATA_LEN = 1024,
    RADIUS_BUF_LEN = RADIUS_HDR_LEN + RADIUS_DATA_LEN,  // 1044
    RADIUS_RECV_LEN = 1024,
    RADIUS_ATTR_MAX_VALUE = 128,
};

// RADIUS attribute types sent by the daemon.
enum {
    RADIUS_ATTR_USER_NAME = 1,
    RADIUS_ATTR_NAS_IP_ADDRESS = 4,
    RADIUS_ATTR_NAS_PORT = 5,
    RADIUS_ATTR_FRAMED_IP_ADDRESS = 8,
    RADIUS_ATTR_CLASS = 25,
    RADIUS_ATTR_VENDOR_SPECIFIC = 26,
    RADIUS_ATTR_CALLED_STATION_ID = 30,
    RADIUS_ATTR_CALLING_STATION_ID = 31,
    RADIUS_ATTR_NAS_IDENTIFIER = 32,
    RADIUS_ATTR_ACCT_STATUS_TYPE = 40,
    RADIUS_ATTR_ACCT_DELAY_TIME = 41,
    RADIUS_ATTR_ACCT_INPUT_OCTETS = 42,
    RADIUS_ATTR_ACCT_OUTPUT_OCTETS = 43,
    RADIUS_ATTR_ACCT_SESSION_ID = 44,
    RADIUS_ATTR_ACCT_AUTHENTIC = 45,
    RADIUS_ATTR_ACCT_SESSION_TIME = 46,
    RADIUS_ATTR_ACCT_TERMINATE_CAUSE = 49,
    RADIUS_ATTR_ACCT_INPUT_GIGAWORDS = 52,
    RADIUS_ATTR_ACCT_OUTPUT_GIGAWORDS = 53,
    RADIUS_ATTR_EVENT_TIMESTAMP = 55,
    RADIUS_ATTR_NAS_PORT_TYPE = 61,
    RADIUS_ATTR_MESSAGE_AUTHENTICATOR = 80,
};

// A packet: at once the wire format and the buffer it is built in. Only the
// first `length` bytes are the packet.
typedef struct pw_auth_hdr {
    u_char code;
    uint8_t id;
    u_short length;  // network byte order
    u_char vector[16];
    u_char data[RADIUS_DATA_LEN];
} AUTH_HDR;
static_assert(sizeof(AUTH_HDR) == 1044, "packet buffer is 1044 bytes");
static_assert(offsetof(AUTH_HDR, length) == 2, "layout");
static_assert(offsetof(AUTH_HDR, vector) == 4, "layout");
static_assert(offsetof(AUTH_HDR, data) == 20, "layout");

// Overlay of one attribute inside `data`; alignment 1, so any position is fine.
typedef struct attribute_s {
    uint8_t attribute;
    uint8_t length;  // header included
    unsigned char data[RADIUS_ATTR_MAX_VALUE];
} attribute_t;

typedef struct vendor_s {
    uint8_t vendor;
    uint8_t length;
    unsigned char data[RADIUS_ATTR_MAX_VALUE];
} vendor_t;
static_assert(alignof(attribute_t) == 1 && alignof(vendor_t) == 1, "overlays need alignment 1");

void radius_msg_add_attr(AUTH_HDR *request, uint8_t type, const unsigned char *data, size_t length);
void radius_msg_add_attr_int32(AUTH_HDR *request, unsigned char type, int data);
void radius_msg_add_vendor_attr(AUTH_HDR *request, unsigned int vendor, uint8_t subtype,
                                const unsigned char *data, size_t length);
// First attribute of that type within the packet's length, or NULL.
attribute_t *radius_msg_find_attr(AUTH_HDR *response, unsigned short type);
// 0 with *value in host order, or -1 (value untouched) if absent.
int radius_msg_get_attr_int32(AUTH_HDR *msg, unsigned short type, uint32_t *value);
// Writes the RFC 2866 Request Authenticator; may be repeated with another secret.
void get_accounting_vector(AUTH_HDR *request, const char *secret);
// 0 if the Response Authenticator of response is right for request, else -1.
// response is a receive buffer of RADIUS_RECV_LEN bytes; its vector is
// overwritten with the request's.
int verify_packet(const char *secret, AUTH_HDR *response, const AUTH_HDR *request);

// HMAC-MD5 (RFC 2104) of data under key: 16 bytes to digest.
void hmac_md5(const unsigned char *key, size_t key_len, const unsigned char *data, size_t len,
              unsigned char digest[16]);
// A Status-Server (RFC 5997) with Identifier id and Request Authenticator
// vector, naming the NAS by nas_id or else nas_ip, signed by its
// Message-Authenticator.
void status_server_msg(AUTH_HDR *req, uint8_t id, const unsigned char vector[16], const char *secret,
                       const char *nas_id, struct in_addr nas_ip);

#endif
