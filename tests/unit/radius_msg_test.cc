#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "radius/radius_send_recieve.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Exactly the buffer size on the heap, so that the sanitizer sees any access
// behind it: 1044 bytes for a request, 1024 for a received response.
struct Buf {
    explicit Buf(size_t size = sizeof(AUTH_HDR)) : raw(static_cast<unsigned char *>(calloc(1, size)))
    {
        hdr()->code = 4;
        hdr()->id = 7;
        hdr()->length = htons(20);
    }
    ~Buf() { free(raw); }
    AUTH_HDR *hdr() { return reinterpret_cast<AUTH_HDR *>(raw); }
    Bytes attrs() { return Bytes(raw + 20, raw + ntohs(hdr()->length)); }
    Bytes vector() { return Bytes(raw + 4, raw + 20); }
    void text(uint8_t type, const std::string &s)
    {
        radius_msg_add_attr(hdr(), type, reinterpret_cast<const unsigned char *>(s.data()), s.size());
    }
    unsigned char *raw;
};

Bytes unhex(const char *h)
{
    Bytes out;
    for (; h[0] && h[1]; h += 2)
        out.push_back(static_cast<unsigned char>(std::stoi(std::string(h, 2), nullptr, 16)));
    return out;
}

}  // namespace

TEST(RadiusMsg, AppendedAttributesStandBackToBack)
{
    Buf p;
    radius_msg_add_attr(p.hdr(), 1, nullptr, 0);
    radius_msg_add_attr_int32(p.hdr(), 40, 1);
    std::string v31(31, 'v');
    radius_msg_add_vendor_attr(p.hdr(), 0x01020304, 5,
                               reinterpret_cast<const unsigned char *>(v31.data()), v31.size());
    Bytes expect = {1, 2, 40, 6, 0, 0, 0, 1, 26, 39, 1, 2, 3, 4, 5, 33};
    expect.insert(expect.end(), v31.begin(), v31.end());
    EXPECT_EQ(p.attrs(), expect);

    Buf full;  // the longest values
    full.text(25, std::string(128, 'c'));
    radius_msg_add_vendor_attr(full.hdr(), 32473, 5, full.raw + 22, 128);
    EXPECT_EQ(ntohs(full.hdr()->length), 20 + 130 + 136);
    EXPECT_EQ(full.raw[21], 130);
    EXPECT_EQ(full.raw[151], 136);
    EXPECT_EQ(full.raw[157], 130);
}

TEST(RadiusMsg, FindWalksOnlyTheWellFormedPacket)
{
    Buf p;
    radius_msg_add_attr_int32(p.hdr(), 40, 1);
    radius_msg_add_attr_int32(p.hdr(), 40, 2);
    radius_msg_add_attr_int32(p.hdr(), 55, 0x01020304);
    uint32_t v = 99;
    EXPECT_EQ(radius_msg_get_attr_int32(p.hdr(), 40, &v), 0);
    EXPECT_EQ(v, 1u);  // the first of two
    EXPECT_EQ(radius_msg_get_attr_int32(p.hdr(), 55, &v), 0);
    EXPECT_EQ(v, 0x01020304u);
    EXPECT_EQ(radius_msg_get_attr_int32(p.hdr(), 8, &v), -1);
    EXPECT_EQ(v, 0x01020304u);

    // One case per way the walk could run away.
    for (uint8_t len : {0, 1}) {  // a length byte that does not advance
        Buf bad;
        bad.raw[20] = 1;
        bad.raw[21] = len;
        bad.hdr()->length = htons(40);
        EXPECT_EQ(radius_msg_find_attr(bad.hdr(), 40), nullptr);
    }
    Buf over;  // a length field beyond the buffer
    for (size_t i = 20; i < sizeof(AUTH_HDR); i += 2)
        over.raw[i] = 1, over.raw[i + 1] = 2;
    over.hdr()->length = htons(0xffff);
    EXPECT_EQ(radius_msg_find_attr(over.hdr(), 40), nullptr);
    p.hdr()->length = htons(24);  // an integer cut by the packet's end
    EXPECT_EQ(radius_msg_get_attr_int32(p.hdr(), 40, &v), -1);
}

// Known answers computed once with Python's hashlib.
TEST(RadiusMsg, RequestAuthenticator)
{
    Buf empty;
    memset(empty.raw + 4, 0xaa, 16);  // not hashed: zeroed first
    get_accounting_vector(empty.hdr(), "s3cret");
    EXPECT_EQ(empty.vector(), unhex("3e670430ae9bf2afc0700129e45c03c8"));
    EXPECT_EQ(ntohs(empty.hdr()->length), 20);
    get_accounting_vector(empty.hdr(), "");
    EXPECT_EQ(empty.vector(), unhex("80445c974812701237815e78402b648e"));

    for (const char *first : {"xy", "a-much-longer-first-secret", "s"}) {
        Buf p;
        p.text(1, "bob");
        radius_msg_add_attr_int32(p.hdr(), 40, 1);
        get_accounting_vector(p.hdr(), first);
        get_accounting_vector(p.hdr(), "xy");  // failover re-signs in place
        EXPECT_EQ(p.vector(), unhex("8adbd6961c2c2d13b2f26c9265f9d6bf")) << first;
    }
#ifndef NDEBUG
    Buf full;
    full.hdr()->length = htons(1040);
    EXPECT_DEATH(get_accounting_vector(full.hdr(), "12345"), "");
#endif
}

TEST(RadiusMsg, ResponseAuthenticator)
{
    Buf req;
    for (int i = 0; i < 16; i++)
        req.raw[4 + i] = static_cast<unsigned char>(i);
    auto verify = [&](const char *secret, Bytes head, const char *vector) {
        Buf resp(RADIUS_RECV_LEN);
        Bytes v = unhex(vector);
        head.insert(head.begin() + 4, v.begin(), v.end());
        memcpy(resp.raw, head.data(), head.size());
        return verify_packet(secret, resp.hdr(), req.hdr());
    };
    const char *good = "8b5cdba7e692f834e9831458e894e8af";
    EXPECT_EQ(verify("testing123", {5, 7, 0, 20}, good), 0);
    EXPECT_EQ(verify("testing123", {99, 7, 0, 26, 18, 6, 'o', 'k', 'a', 'y'},
                     "8f2efe84828de3f009fbedd42c4dc436"), 0);  // any code; attributes hashed
    EXPECT_EQ(verify("", {5, 7, 0, 20}, "a4fef8dbb06c009718bcc06c637bd2b4"), 0);

    EXPECT_EQ(verify("testing124", {5, 7, 0, 20}, good), -1);
    EXPECT_EQ(verify("testing123", {5, 7, 0x04, 0x01}, good), -1);  // 1025: beyond the buffer
}
