#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

#include "radius/radius_send_recieve.h"

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

TEST(RadiusMsg, AppendedAttributesStandBackToBack)
{
    Bytes p = packet("04070014");
    radius_msg_add_attr(hdr(p), 1, nullptr, 0);
    radius_msg_add_vendor_attr(hdr(p), 0x01020304, 5, Bytes(31, 'w').data(), 31);
    radius_msg_add_attr(hdr(p), 25, Bytes(128, 'w').data(), 128);  // the longest values
    radius_msg_add_vendor_attr(hdr(p), 32473, 5, Bytes(128, 'w').data(), 128);
    // Length 327; User-Name empty; vendor 01020304, subtype 5, 31 'w' (0x77);
    // Class of 128; vendor 32473 (0x7ed9), subtype 5, 128 'w'; then nothing.
    EXPECT_EQ(p, packet("04070147" + std::string(32, '0') + "0102" "1a27010203040521" + std::string(62, '7') +
                        "1982" + std::string(256, '7') + "1a8800007ed90582" + std::string(256, '7')));
}

TEST(RadiusMsg, FindStaysInsideTheWellFormedPacket)
{
    Bytes p = packet("04070026" + std::string(32, '0') + "280600000001" "280600000002" "370601020304");
    // The value found, or minus the value left as it was when nothing is found.
    auto get = [&](unsigned short type, uint32_t v = 9) {
        return radius_msg_get_attr_int32(hdr(p), type, &v) ? -int64_t{v} : int64_t{v};
    };
    EXPECT_EQ(std::vector<int64_t>({get(40), get(55), get(8)}), std::vector<int64_t>({1, 0x01020304, -9}));
    p[3] = 24;  // an integer cut by the packet's end
    EXPECT_EQ(get(40), -9);
    p[3] = 48;  // behind the packet's attributes, type 0 and length 0: a walk that does not advance
    EXPECT_EQ(get(8), -9);
    p[2] = p[3] = 0xff;  // well-formed to the buffer's end, but longer than the buffer
    std::fill(p.begin() + 20, p.end(), 2);
    EXPECT_EQ(get(8), -9);
}

// Known answers computed once with Python's hashlib.
TEST(RadiusMsg, AuthenticatorKnownAnswers)
{
    // Signing over an earlier signature (failover re-signs in place) gives
    // what signing the fresh packet gives.
    using Signed = std::tuple<const char *, const char *, const char *>;
    for (auto [head, secret, vector] : std::initializer_list<Signed>{
             {"04070014", "s3cret", "3e670430ae9bf2afc0700129e45c03c8"},
             {"04070014", "", "80445c974812701237815e78402b648e"},
             {"0407001f00000000000000000000000000000000" "0105626f62280600000001", "xy",
              "8adbd6961c2c2d13b2f26c9265f9d6bf"}})
        for (const char *first : {"", "a-much-longer-first-secret", "s"}) {
            Bytes p = packet(head);
            get_accounting_vector(hdr(p), first);
            get_accounting_vector(hdr(p), secret);
            EXPECT_EQ(Bytes(p.begin() + 4, p.begin() + 20), packet(vector, 16))
                << secret << " over " << first;
        }

    Bytes request = packet("04070014000102030405060708090a0b0c0d0e0f");
    // The last claims 1025 bytes: beyond the receive buffer.
    using Answer = std::tuple<const char *, const char *, int>;
    for (auto [secret, response, result] : std::initializer_list<Answer>{
             {"testing123", "0507001a47696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", 0},
             {"testing124", "0507001a47696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", -1},
             {"testing123", "0507040147696e529dd544bc007e8cda9f37b3f4" "12066f6b6179", -1}}) {
        Bytes p = packet(response, RADIUS_RECV_LEN);
        EXPECT_EQ(verify_packet(secret, hdr(p), hdr(request)), result) << secret << ' ' << response;
    }
}
