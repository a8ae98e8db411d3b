// MD5 (RFC 1321). The block is decoded byte by byte, so the same code gives
// the RFC digests on either byte order and never reads a word through an
// unaligned pointer.
#include "radius/md5.h"

#include <cstring>

namespace {

inline u_int32_t rotl(u_int32_t x, int s) { return (x << s) | (x >> (32 - s)); }

inline u_int32_t load_le32(const unsigned char *p)
{
    return static_cast<u_int32_t>(p[0]) | static_cast<u_int32_t>(p[1]) << 8 |
           static_cast<u_int32_t>(p[2]) << 16 | static_cast<u_int32_t>(p[3]) << 24;
}

inline void store_le32(unsigned char *p, u_int32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

inline u_int32_t F1(u_int32_t x, u_int32_t y, u_int32_t z) { return z ^ (x & (y ^ z)); }
inline u_int32_t F2(u_int32_t x, u_int32_t y, u_int32_t z) { return F1(z, x, y); }
inline u_int32_t F3(u_int32_t x, u_int32_t y, u_int32_t z) { return x ^ y ^ z; }
inline u_int32_t F4(u_int32_t x, u_int32_t y, u_int32_t z) { return y ^ (x | ~z); }

#define MD5STEP(f, w, x, y, z, data, s)        \
    do {                                       \
        (w) += f((x), (y), (z)) + (data);      \
        (w) = rotl((w), (s)) + (x);            \
    } while (0)

void transform_block(struct MD5Context *ctx)
{
    // ctx->in is 4-aligned inside the record, and the transform reads it
    // as bytes in any case.
    pra_MD5Transform(ctx->buf, reinterpret_cast<const u_int32_t *>(ctx->in));
}

}  // namespace

void pra_MD5Init(struct MD5Context *ctx)
{
    ctx->buf[0] = 0x67452301;
    ctx->buf[1] = 0xefcdab89;
    ctx->buf[2] = 0x98badcfe;
    ctx->buf[3] = 0x10325476;
    ctx->bits[0] = 0;
    ctx->bits[1] = 0;
}

void pra_MD5Update(struct MD5Context *ctx, const unsigned char *buf, unsigned int len)
{
    u_int32_t t = ctx->bits[0];
    // 64-bit bit count kept in two words; the carry of len << 3 goes high.
    ctx->bits[0] = t + (static_cast<u_int32_t>(len) << 3);
    if (ctx->bits[0] < t)
        ctx->bits[1]++;
    ctx->bits[1] += static_cast<u_int32_t>(len) >> 29;

    unsigned int used = (t >> 3) & 0x3f;
    if (used) {
        unsigned int room = 64 - used;
        if (len < room) {
            if (len)
                memcpy(ctx->in + used, buf, len);
            return;
        }
        memcpy(ctx->in + used, buf, room);
        transform_block(ctx);
        buf += room;
        len -= room;
    }
    while (len >= 64) {
        memcpy(ctx->in, buf, 64);
        transform_block(ctx);
        buf += 64;
        len -= 64;
    }
    if (len)
        memcpy(ctx->in, buf, len);
}

void pra_MD5Final(unsigned char *digest, struct MD5Context *ctx)
{
    unsigned int used = (ctx->bits[0] >> 3) & 0x3f;
    unsigned char *p = ctx->in + used;
    *p++ = 0x80;
    unsigned int room = 64 - 1 - used;
    if (room < 8) {
        memset(p, 0, room);
        transform_block(ctx);
        memset(ctx->in, 0, 56);
    } else {
        memset(p, 0, room - 8);
    }
    store_le32(ctx->in + 56, ctx->bits[0]);
    store_le32(ctx->in + 60, ctx->bits[1]);
    transform_block(ctx);
    for (int i = 0; i < 4; i++)
        store_le32(digest + 4 * i, ctx->buf[i]);
    // Nothing of the message or the key may linger in the caller's record.
    memset(ctx, 0, sizeof *ctx);
}

void pra_MD5Transform(u_int32_t *buf, const u_int32_t *in)
{
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(in);
    u_int32_t x[16];
    for (int i = 0; i < 16; i++)
        x[i] = load_le32(bytes + 4 * i);

    u_int32_t a = buf[0], b = buf[1], c = buf[2], d = buf[3];

    MD5STEP(F1, a, b, c, d, x[0] + 0xd76aa478, 7);
    MD5STEP(F1, d, a, b, c, x[1] + 0xe8c7b756, 12);
    MD5STEP(F1, c, d, a, b, x[2] + 0x242070db, 17);
    MD5STEP(F1, b, c, d, a, x[3] + 0xc1bdceee, 22);
    MD5STEP(F1, a, b, c, d, x[4] + 0xf57c0faf, 7);
    MD5STEP(F1, d, a, b, c, x[5] + 0x4787c62a, 12);
    MD5STEP(F1, c, d, a, b, x[6] + 0xa8304613, 17);
    MD5STEP(F1, b, c, d, a, x[7] + 0xfd469501, 22);
    MD5STEP(F1, a, b, c, d, x[8] + 0x698098d8, 7);
    MD5STEP(F1, d, a, b, c, x[9] + 0x8b44f7af, 12);
    MD5STEP(F1, c, d, a, b, x[10] + 0xffff5bb1, 17);
    MD5STEP(F1, b, c, d, a, x[11] + 0x895cd7be, 22);
    MD5STEP(F1, a, b, c, d, x[12] + 0x6b901122, 7);
    MD5STEP(F1, d, a, b, c, x[13] + 0xfd987193, 12);
    MD5STEP(F1, c, d, a, b, x[14] + 0xa679438e, 17);
    MD5STEP(F1, b, c, d, a, x[15] + 0x49b40821, 22);

    MD5STEP(F2, a, b, c, d, x[1] + 0xf61e2562, 5);
    MD5STEP(F2, d, a, b, c, x[6] + 0xc040b340, 9);
    MD5STEP(F2, c, d, a, b, x[11] + 0x265e5a51, 14);
    MD5STEP(F2, b, c, d, a, x[0] + 0xe9b6c7aa, 20);
    MD5STEP(F2, a, b, c, d, x[5] + 0xd62f105d, 5);
    MD5STEP(F2, d, a, b, c, x[10] + 0x02441453, 9);
    MD5STEP(F2, c, d, a, b, x[15] + 0xd8a1e681, 14);
    MD5STEP(F2, b, c, d, a, x[4] + 0xe7d3fbc8, 20);
    MD5STEP(F2, a, b, c, d, x[9] + 0x21e1cde6, 5);
    MD5STEP(F2, d, a, b, c, x[14] + 0xc33707d6, 9);
    MD5STEP(F2, c, d, a, b, x[3] + 0xf4d50d87, 14);
    MD5STEP(F2, b, c, d, a, x[8] + 0x455a14ed, 20);
    MD5STEP(F2, a, b, c, d, x[13] + 0xa9e3e905, 5);
    MD5STEP(F2, d, a, b, c, x[2] + 0xfcefa3f8, 9);
    MD5STEP(F2, c, d, a, b, x[7] + 0x676f02d9, 14);
    MD5STEP(F2, b, c, d, a, x[12] + 0x8d2a4c8a, 20);

    MD5STEP(F3, a, b, c, d, x[5] + 0xfffa3942, 4);
    MD5STEP(F3, d, a, b, c, x[8] + 0x8771f681, 11);
    MD5STEP(F3, c, d, a, b, x[11] + 0x6d9d6122, 16);
    MD5STEP(F3, b, c, d, a, x[14] + 0xfde5380c, 23);
    MD5STEP(F3, a, b, c, d, x[1] + 0xa4beea44, 4);
    MD5STEP(F3, d, a, b, c, x[4] + 0x4bdecfa9, 11);
    MD5STEP(F3, c, d, a, b, x[7] + 0xf6bb4b60, 16);
    MD5STEP(F3, b, c, d, a, x[10] + 0xbebfbc70, 23);
    MD5STEP(F3, a, b, c, d, x[13] + 0x289b7ec6, 4);
    MD5STEP(F3, d, a, b, c, x[0] + 0xeaa127fa, 11);
    MD5STEP(F3, c, d, a, b, x[3] + 0xd4ef3085, 16);
    MD5STEP(F3, b, c, d, a, x[6] + 0x04881d05, 23);
    MD5STEP(F3, a, b, c, d, x[9] + 0xd9d4d039, 4);
    MD5STEP(F3, d, a, b, c, x[12] + 0xe6db99e5, 11);
    MD5STEP(F3, c, d, a, b, x[15] + 0x1fa27cf8, 16);
    MD5STEP(F3, b, c, d, a, x[2] + 0xc4ac5665, 23);

    MD5STEP(F4, a, b, c, d, x[0] + 0xf4292244, 6);
    MD5STEP(F4, d, a, b, c, x[7] + 0x432aff97, 10);
    MD5STEP(F4, c, d, a, b, x[14] + 0xab9423a7, 15);
    MD5STEP(F4, b, c, d, a, x[5] + 0xfc93a039, 21);
    MD5STEP(F4, a, b, c, d, x[12] + 0x655b59c3, 6);
    MD5STEP(F4, d, a, b, c, x[3] + 0x8f0ccc92, 10);
    MD5STEP(F4, c, d, a, b, x[10] + 0xffeff47d, 15);
    MD5STEP(F4, b, c, d, a, x[1] + 0x85845dd1, 21);
    MD5STEP(F4, a, b, c, d, x[8] + 0x6fa87e4f, 6);
    MD5STEP(F4, d, a, b, c, x[15] + 0xfe2ce6e0, 10);
    MD5STEP(F4, c, d, a, b, x[6] + 0xa3014314, 15);
    MD5STEP(F4, b, c, d, a, x[13] + 0x4e0811a1, 21);
    MD5STEP(F4, a, b, c, d, x[4] + 0xf7537e82, 6);
    MD5STEP(F4, d, a, b, c, x[11] + 0xbd3af235, 10);
    MD5STEP(F4, c, d, a, b, x[2] + 0x2ad7d2bb, 15);
    MD5STEP(F4, b, c, d, a, x[9] + 0xeb86d391, 21);

    buf[0] += a;
    buf[1] += b;
    buf[2] += c;
    buf[3] += d;
}
