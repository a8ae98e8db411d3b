// Packet operations: appending attributes, finding them, and the RFC 2866
// Request and Response Authenticators.
#include "radius/radius_msg.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "radius/md5.h"

namespace {

inline unsigned char *packet_bytes(AUTH_HDR *p) { return reinterpret_cast<unsigned char *>(p); }

inline size_t packet_length(const AUTH_HDR *p) { return ntohs(p->length); }

// End of the bytes that may be read: the packet, but never past the buffer.
inline size_t readable_end(const AUTH_HDR *p)
{
    size_t end = packet_length(p);
    return end > size_t{RADIUS_BUF_LEN} ? size_t{RADIUS_BUF_LEN} : end;
}

inline void grow(AUTH_HDR *p, size_t by)
{
    p->length = htons(static_cast<u_short>(packet_length(p) + by));
}

// Running out of the buffer is a composition bug, never an input, and the
// bytes behind the buffer belong to the heap: stop there in every build,
// release builds included, rather than write one byte past it.
#define PACKET_CHECK(cond) ((cond) ? (void)0 : packet_overflow(#cond, __func__))

[[noreturn]] void packet_overflow(const char *cond, const char *func)
{
    fprintf(stderr, "%s: packet buffer overflow (%s)\n", func, cond);
    abort();
}

// Offset at which an attribute of `total` bytes would be written.
size_t append_position(const AUTH_HDR *p, size_t total)
{
    size_t at = packet_length(p);
    PACKET_CHECK(at >= RADIUS_HDR_LEN && at + total <= RADIUS_BUF_LEN);
    return at;
}

}  // namespace

void radius_msg_add_attr(AUTH_HDR *request, uint8_t type, const unsigned char *data, size_t length)
{
    PACKET_CHECK(length <= RADIUS_ATTR_MAX_VALUE);
    size_t at = append_position(request, length + 2);
    unsigned char *pos = packet_bytes(request) + at;
    pos[0] = type;
    pos[1] = static_cast<unsigned char>(length + 2);
    grow(request, length + 2);
    if (length)
        memcpy(pos + 2, data, length);
}

void radius_msg_add_attr_int32(AUTH_HDR *request, unsigned char type, int data)
{
    uint32_t net = htonl(static_cast<uint32_t>(data));
    unsigned char bytes[4];
    memcpy(bytes, &net, sizeof bytes);
    radius_msg_add_attr(request, type, bytes, sizeof bytes);
}

void radius_msg_add_vendor_attr(AUTH_HDR *request, unsigned int vendor, uint8_t subtype,
                                const unsigned char *data, size_t length)
{
    PACKET_CHECK(length <= RADIUS_ATTR_MAX_VALUE);
    size_t at = append_position(request, length + 8);
    unsigned char *pos = packet_bytes(request) + at;
    pos[0] = RADIUS_ATTR_VENDOR_SPECIFIC;
    pos[1] = static_cast<unsigned char>(length + 8);
    grow(request, 6);
    // An empty value goes out with vendor number 0; composition never
    // appends one, but the wire form is kept as it always was.
    uint32_t v = length ? vendor : 0;
    pos[2] = static_cast<unsigned char>(v >> 24);
    pos[3] = static_cast<unsigned char>(v >> 16);
    pos[4] = static_cast<unsigned char>(v >> 8);
    pos[5] = static_cast<unsigned char>(v);
    unsigned char *sub = packet_bytes(request) + packet_length(request);
    sub[0] = subtype;
    sub[1] = static_cast<unsigned char>(length + 2);
    grow(request, length + 2);
    if (length)
        memcpy(sub + 2, data, length);
}

attribute_t *radius_msg_find_attr(AUTH_HDR *response, unsigned short type)
{
    // A length byte below 2 cannot move the cursor forward: stop there.
    size_t end = readable_end(response);
    unsigned char *base = packet_bytes(response);
    size_t pos = RADIUS_HDR_LEN;
    while (pos + 2 <= end) {
        if (base[pos] == type)
            return reinterpret_cast<attribute_t *>(base + pos);
        size_t len = base[pos + 1];
        if (len < 2)
            return nullptr;
        pos += len;
    }
    return nullptr;
}

int radius_msg_get_attr_int32(AUTH_HDR *msg, unsigned short type, uint32_t *value)
{
    attribute_t *attr = radius_msg_find_attr(msg, type);
    if (!attr)
        return -1;
    size_t at = static_cast<size_t>(reinterpret_cast<unsigned char *>(attr) - packet_bytes(msg));
    if (at + 6 > readable_end(msg))
        return -1;
    uint32_t net;
    memcpy(&net, attr->data, sizeof net);
    *value = ntohl(net);
    return 0;
}

void get_accounting_vector(AUTH_HDR *request, const char *secret)
{
    size_t secret_len = strlen(secret);
    size_t len = packet_length(request);
    memset(request->vector, 0, sizeof request->vector);
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    // The secret is hashed right behind the packet, without being copied
    // there: a stored request may be no longer than its length, and no
    // secret stays behind in it.
    PACKET_CHECK(len <= RADIUS_BUF_LEN);
    pra_MD5Update(&ctx, packet_bytes(request), static_cast<unsigned int>(len));
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret), static_cast<unsigned int>(secret_len));
    pra_MD5Final(request->vector, &ctx);
}

int verify_packet(const char *secret, AUTH_HDR *response, const AUTH_HDR *request)
{
    // The receive buffer holds RADIUS_RECV_LEN bytes: a larger length would
    // make the hash read past it, and a shorter one than the header cannot
    // hold an authenticator.
    size_t len = packet_length(response);
    if (len > RADIUS_RECV_LEN || len < RADIUS_HDR_LEN)
        return -1;

    unsigned char received[16];
    memcpy(received, response->vector, sizeof received);
    memcpy(response->vector, request->vector, sizeof response->vector);

    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, packet_bytes(response), static_cast<unsigned int>(len));
    size_t secret_len = strlen(secret);
    if (secret_len)
        pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(secret),
                      static_cast<unsigned int>(secret_len));
    unsigned char digest[16];
    pra_MD5Final(digest, &ctx);

    // Constant time, so that timing tells a forger nothing about the prefix.
    unsigned char diff = 0;
    for (size_t i = 0; i < sizeof digest; i++)
        diff |= static_cast<unsigned char>(digest[i] ^ received[i]);
    return diff ? -1 : 0;
}

void hmac_md5(const unsigned char *key, size_t key_len, const unsigned char *data, size_t len,
              unsigned char digest[16])
{
    // RFC 2104 with a 64-byte block; a longer key is hashed first.
    unsigned char k[64];
    memset(k, 0, sizeof k);
    MD5_CTX ctx;
    if (key_len > sizeof k) {
        pra_MD5Init(&ctx);
        pra_MD5Update(&ctx, key, static_cast<unsigned int>(key_len));
        pra_MD5Final(k, &ctx);
    } else if (key_len) {
        memcpy(k, key, key_len);
    }
    unsigned char pad[64];
    for (size_t i = 0; i < sizeof pad; i++)
        pad[i] = k[i] ^ 0x36;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, pad, sizeof pad);
    pra_MD5Update(&ctx, data, static_cast<unsigned int>(len));
    unsigned char inner[16];
    pra_MD5Final(inner, &ctx);
    for (size_t i = 0; i < sizeof pad; i++)
        pad[i] = k[i] ^ 0x5c;
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, pad, sizeof pad);
    pra_MD5Update(&ctx, inner, sizeof inner);
    pra_MD5Final(digest, &ctx);
}

void status_server_msg(AUTH_HDR *req, uint8_t id, const unsigned char vector[16], const char *secret,
                       const char *nas_id, struct in_addr nas_ip)
{
    memset(req, 0, sizeof *req);
    req->code = RADIUS_CODE_STATUS_SERVER;
    req->id = id;
    req->length = htons(RADIUS_HDR_LEN);
    memcpy(req->vector, vector, sizeof req->vector);
    if (nas_id && nas_id[0])
        radius_msg_add_attr(req, RADIUS_ATTR_NAS_IDENTIFIER,
                            reinterpret_cast<const unsigned char *>(nas_id), strnlen(nas_id, RADIUS_ATTR_MAX_VALUE));
    else
        radius_msg_add_attr(req, RADIUS_ATTR_NAS_IP_ADDRESS, reinterpret_cast<const unsigned char *>(&nas_ip.s_addr), 4);
    // RFC 5997: a Status-Server without a Message-Authenticator is dropped.
    static const unsigned char zero[16] = {};
    size_t at = packet_length(req) + 2;
    radius_msg_add_attr(req, RADIUS_ATTR_MESSAGE_AUTHENTICATOR, zero, sizeof zero);
    unsigned char mac[16];
    hmac_md5(reinterpret_cast<const unsigned char *>(secret), strlen(secret), packet_bytes(req),
             packet_length(req), mac);
    memcpy(packet_bytes(req) + at, mac, sizeof mac);
}
