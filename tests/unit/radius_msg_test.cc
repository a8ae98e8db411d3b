// The packet layer: attributes, authenticators, the buffer's bounds and MD5.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

#include "radius/md5.h"
#include "radius/radius_msg.h"

using Bytes = std::vector<unsigned char>;

// A buffer of exactly `size` bytes on the heap, so that the sanitizer sees any
// access behind it (1044 for a request, 1024 for a received response), which
// begins with the given hex bytes.
static Bytes packet(const std::string &hex, size_t size = sizeof(AUTH_HDR))
{
    Bytes b(size);
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        b[i / 2] = static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return b;
}
static AUTH_HDR *hdr(Bytes &b) { return reinterpret_cast<AUTH_HDR *>(b.data()); }

// How attributes are laid out shows in the compose test and at FreeRADIUS,
// which drops a malformed packet; here how they are found.
TEST(RadiusMsg, AttributesAreFoundOnlyInsideThePacket)
{
    // The value found, or minus the value left as it was when nothing is found.
    Bytes p = packet("04070026" + std::string(32, '0') + "280600000001" "280600000002" "370601020304");
    auto get = [&](unsigned short type, uint32_t v = 9) {
        return radius_msg_get_attr_int32(hdr(p), type, &v) ? -int64_t{v} : int64_t{v};
    };
    EXPECT_EQ(std::vector<int64_t>({get(40), get(55), get(8)}), std::vector<int64_t>({1, 0x01020304, -9}));
    // An integer cut by the packet's end; behind the attributes, type 0 and
    // length 0, a walk that does not advance; well-formed to the buffer's end,
    // but longer than the buffer.
    for (auto [length, type] : std::initializer_list<std::pair<int, unsigned short>>{{24, 40}, {48, 8}, {0xffff, 8}}) {
        p[2] = static_cast<unsigned char>(length >> 8);
        p[3] = static_cast<unsigned char>(length);
        if (length == 0xffff)
            std::fill(p.begin() + 20, p.end(), 2);
        EXPECT_EQ(get(type), -9) << length;
    }
}

// A response's authenticator (one known answer computed with Python's
// hashlib). Every request's authenticator, the backup's re-signed copies
// too, is verified by the system tests' peers.
TEST(RadiusMsg, ResponseAuthenticatorKnownAnswers)
{
    Bytes request = packet("04070014000102030405060708090a0b0c0d0e0f");
    // Right; wrong secret; one forged byte at the end; 1025 bytes claimed, beyond the receive buffer.
    for (auto [secret, response, result] : std::initializer_list<std::tuple<const char *, const char *, int>>{
             {"testing123", "0507001a47696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", 0},
             {"testing124", "0507001a47696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", -1},
             {"testing123", "0507001a47696e529dd544bc007e8cda9f37b3f5" "12066f6b6179", -1},  // last byte forged
             {"testing123", "0507040147696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", -1}}) {
        Bytes p = packet(response, RADIUS_RECV_LEN);
        EXPECT_EQ(verify_packet(secret, hdr(p), hdr(request)), result) << secret << ' ' << response;
    }
}

// A composition bug that would outgrow the 1044-byte packet stops the daemon
// with its own message; an assert would be gone from release builds.
TEST(PacketBounds, WritingPastTheBufferAbortsInsteadInEveryBuildType)
{
    std::vector<unsigned char> buf(sizeof(AUTH_HDR));  // on the heap, where a sanitizer sees past it
    std::vector<unsigned char> value(RADIUS_ATTR_MAX_VALUE + 1);
    auto *p = reinterpret_cast<AUTH_HDR *>(buf.data());
    p->length = htons(RADIUS_HDR_LEN);
    // 1024 bytes of attributes: seven of 130 bytes and one of 114 fill it exactly.
    for (int i = 0; i < 7; i++)
        radius_msg_add_attr(p, RADIUS_ATTR_CLASS, value.data(), RADIUS_ATTR_MAX_VALUE);
    radius_msg_add_attr(p, RADIUS_ATTR_CLASS, value.data(), 112);
    ASSERT_EQ(ntohs(p->length), RADIUS_BUF_LEN);

    EXPECT_DEATH(radius_msg_add_attr(p, RADIUS_ATTR_USER_NAME, value.data(), 0), "packet buffer overflow");
    EXPECT_DEATH(radius_msg_add_vendor_attr(p, 1, 5, value.data(), 1), "packet buffer overflow");
    p->length = htons(RADIUS_HDR_LEN);
    EXPECT_DEATH(radius_msg_add_attr(p, RADIUS_ATTR_CLASS, value.data(), value.size()), "packet buffer overflow");
}

// RFC 1321 vectors and two more, each fed in pieces of a size that divides
// it: pieces that end short of, exactly at (120 x in 8s) and across (the
// digits in 10s; a million a in 625s, some of which leave 63 bytes behind the
// first block) a 64-byte block. 62 and 120 bytes leave too little room for
// the length, which then needs a padding block of its own. Final must leave
// no trace of the message.
TEST(Md5, KnownAnswersFedInPiecesAndContextZeroedAfterFinal)
{
    for (const auto &[text, piece, hex] : std::initializer_list<std::tuple<std::string, unsigned, const char *>>{
             {"", 1, "d41d8cd98f00b204e9800998ecf8427e"}, {"abc", 3, "900150983cd24fb0d6963f7d28e17f72"},
             {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", 31, "d174ab98d277d9f5a5611c2c9f419d9f"},
             {"12345678901234567890123456789012345678901234567890123456789012345678901234567890", 10, "57edf4a22be3c955ac49da2e2107b67a"},
             {std::string(120, 'x'), 8, "fb98667f98096de92620b64f46e1c5b5"}, {std::string(1000000, 'a'), 625, "7707d6ae4e027c70eea2a935c2296f21"}}) {
        MD5_CTX ctx, zero{};
        pra_MD5Init(&ctx);
        for (size_t at = 0; at < text.size(); at += piece)
            pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(&text[at]), piece);
        unsigned char d[16];
        pra_MD5Final(d, &ctx);
        EXPECT_EQ(memcmp(&ctx, &zero, sizeof ctx), 0) << text.size() << " bytes";
        for (int i = 0; i < 16; i++)
            EXPECT_EQ(d[i], std::stoi(std::string(hex + 2 * i, 2), nullptr, 16)) << text.size() << " bytes, byte " << i;
    }
}
