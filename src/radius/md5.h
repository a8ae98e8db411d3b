// MD5 message digest (RFC 1321), the daemon's own, so that it needs no
// crypto library on the device. Correct on either byte order.
#ifndef METERD_RADIUS_MD5_H
#define METERD_RADIUS_MD5_H

#include <cstdint>

typedef uint32_t u_int32_t;

struct MD5Context {
    u_int32_t buf[4];   // chaining words
    u_int32_t bits[2];  // message length in bits, low word first
    unsigned char in[64];
};
typedef struct MD5Context MD5_CTX;

void pra_MD5Init(struct MD5Context *ctx);
void pra_MD5Update(struct MD5Context *ctx, const unsigned char *buf, unsigned int len);
// Writes 16 bytes to digest, then zeroes the whole context.
void pra_MD5Final(unsigned char *digest, struct MD5Context *ctx);
void pra_MD5Transform(u_int32_t *buf, const u_int32_t *in);

#endif
