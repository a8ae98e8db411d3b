// RADIUS over a byte stream (TLS over TCP): the packets are found by their
// Length field alone, whatever the reads cut them into. Like the daemon's
// other inputs it is a function of bytes and their length; it keeps what it
// has not delivered yet in a fixed buffer of its own, no heap.
#ifndef METERD_RADIUS_RADIUS_STREAM_H
#define METERD_RADIUS_RADIUS_STREAM_H

#include <cstddef>
#include <cstdint>

enum {
    RADIUS_STREAM_MIN = 20,    // a header
    RADIUS_STREAM_MAX = 4096,  // RFC 2865's largest packet
};

// One per connection, zeroed (radius_stream_reset) before its first byte.
struct radius_stream {
    uint8_t buf[RADIUS_STREAM_MAX];
    size_t have;  // bytes of an unfinished packet in buf
    int bad;      // a Length out of range was seen: the stream has no packet boundaries any more
};

void radius_stream_reset(struct radius_stream *s);

// Takes the next `len` bytes of the stream; calls packet(ctx, pkt, n) for
// each whole packet, in order, n its Length. pkt is valid for the call only.
// 0, or -1 once a Length under 20 or over 4096 has come (after the packets
// before it were delivered): the connection cannot be trusted to find the
// next packet and is to be closed; every later call returns -1 until reset.
int radius_stream_input(struct radius_stream *s, const uint8_t *data, size_t len,
                        void (*packet)(void *ctx, const uint8_t *pkt, size_t n), void *ctx);

#endif
