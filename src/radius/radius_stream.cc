// Reassembly of RADIUS packets from a byte stream. Whole packets that stand
// in one read are handed on where they lie; only a packet cut by the end of
// a read is copied, and only as far as it goes.
#include "radius/radius_stream.h"

#include <cstring>

namespace {

// The Length field of a header whose first four bytes are at p.
inline size_t length_field(const uint8_t *p) { return size_t{p[2]} << 8 | p[3]; }

inline bool length_ok(size_t n) { return n >= RADIUS_STREAM_MIN && n <= RADIUS_STREAM_MAX; }

inline size_t least(size_t a, size_t b) { return a < b ? a : b; }

// Moves up to `upto` bytes of the stream's unfinished packet from the read into buf.
void take(struct radius_stream *s, const uint8_t *&data, size_t &len, size_t upto)
{
    size_t n = s->have < upto ? least(upto - s->have, len) : 0;
    if (n)
        memcpy(s->buf + s->have, data, n);
    s->have += n;
    data += n;
    len -= n;
}

}  // namespace

void radius_stream_reset(struct radius_stream *s)
{
    s->have = 0;
    s->bad = 0;
}

int radius_stream_input(struct radius_stream *s, const uint8_t *data, size_t len,
                        void (*packet)(void *ctx, const uint8_t *pkt, size_t n), void *ctx)
{
    if (s->bad)
        return -1;
    // First the packet begun by earlier reads: its header, then its rest.
    if (s->have) {
        take(s, data, len, 4);
        if (s->have < 4)
            return 0;
        size_t want = length_field(s->buf);
        if (!length_ok(want)) {
            s->bad = 1;
            return -1;
        }
        take(s, data, len, want);
        if (s->have < want)
            return 0;
        s->have = 0;
        packet(ctx, s->buf, want);
    }
    // Then the packets that this read holds whole.
    while (len >= 4) {
        size_t want = length_field(data);
        if (!length_ok(want)) {
            s->bad = 1;
            return -1;
        }
        if (len < want)
            break;
        packet(ctx, data, want);
        data += want;
        len -= want;
    }
    // And the start of the next one.
    take(s, data, len, len);
    return 0;
}
