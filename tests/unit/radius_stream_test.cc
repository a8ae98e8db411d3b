// The stream reader: packets found by their Length however the reads cut
// them, and a Length out of range ending the stream.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "radius/radius_stream.h"

using Bytes = std::vector<uint8_t>;

namespace {

// A packet of n bytes (at least 4), its Length n, Identifier id, the rest counting up.
Bytes packet(size_t n, uint8_t id)
{
    Bytes p(n);
    for (size_t i = 0; i < n; i++)
        p[i] = static_cast<uint8_t>(i);
    p[0] = 5, p[1] = id, p[2] = static_cast<uint8_t>(n >> 8), p[3] = static_cast<uint8_t>(n);
    return p;
}

struct Reader {
    radius_stream s;
    std::vector<Bytes> got;
    Reader() { radius_stream_reset(&s); }
    // Each read copied to a heap block of its exact size, so that the
    // sanitizer sees any byte read behind it.
    int feed(const Bytes &bytes, size_t from, size_t to)
    {
        Bytes read(bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(to));
        auto each = [](void *ctx, const uint8_t *p, size_t n) { static_cast<Reader *>(ctx)->got.emplace_back(p, p + n); };
        return radius_stream_input(&s, read.empty() ? nullptr : read.data(), read.size(), each, this);
    }
};

}  // namespace

TEST(RadiusStream, PacketsComeWholeWhateverTheReadsCutThemInto)
{
    // The smallest and the largest packet with one between, in reads of 1, 3,
    // 7 and 1000 bytes (every cut of a header; reads that end some packets
    // and begin others); the fuzz target cuts them at random.
    const std::vector<Bytes> packets = {packet(20, 1), packet(4096, 2), packet(38, 3)};
    Bytes stream;
    for (const Bytes &p : packets)
        stream.insert(stream.end(), p.begin(), p.end());
    for (size_t step : {1, 3, 7, 1000}) {
        Reader r;
        for (size_t at = 0; at < stream.size(); at += step)
            ASSERT_EQ(r.feed(stream, at, std::min(at + step, stream.size())), 0);
        EXPECT_EQ(r.got, packets) << "reads of " << step;
        EXPECT_EQ(r.feed(stream, 3, 3), 0);  // an empty read changes nothing
        EXPECT_EQ(r.got, packets);
    }
}

TEST(RadiusStream, ALengthOutOfRangeEndsTheStreamAfterThePacketsBeforeIt)
{
    for (size_t bad : {0, 19, 4097, 0xffff}) {
        Bytes header = packet(20, 9);
        header[2] = static_cast<uint8_t>(bad >> 8), header[3] = static_cast<uint8_t>(bad);
        Bytes stream = packet(20, 1);
        stream.insert(stream.end(), header.begin(), header.end());
        // Whole in one read; cut inside the bad Length, so that the
        // buffered header is what is checked.
        for (size_t cut : {stream.size(), size_t{23}}) {
            Reader r;
            int first = r.feed(stream, 0, cut);
            int second = r.feed(stream, cut, stream.size());
            EXPECT_EQ(cut == stream.size() ? first : second, -1) << bad;
            EXPECT_EQ(r.got, std::vector<Bytes>{packet(20, 1)}) << bad;
            // Whatever comes later, even a good packet, is refused until reset.
            EXPECT_EQ(r.feed(packet(20, 2), 0, 20), -1);
            radius_stream_reset(&r.s);
            EXPECT_EQ(r.feed(packet(20, 2), 0, 20), 0);
            EXPECT_EQ(r.got.size(), 2u);
        }
    }
}
