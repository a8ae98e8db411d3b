#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "radius/md5.h"

namespace {

// Digest of text fed in pieces of `chunk` bytes, so that pieces straddle blocks.
std::string md5_hex(const std::string &text, size_t chunk = 1u << 30)
{
    MD5_CTX ctx;
    pra_MD5Init(&ctx);
    for (size_t at = 0; at < text.size(); at += chunk)
        pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>(text.data()) + at,
                      static_cast<unsigned int>(std::min(chunk, text.size() - at)));
    unsigned char d[16];
    pra_MD5Final(d, &ctx);
    char hex[33];
    for (int i = 0; i < 16; i++)
        snprintf(hex + 2 * i, 3, "%02x", d[i]);
    return hex;
}

}  // namespace

TEST(Md5, KnownAnswers)
{
    const char *rfc1321[][2] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (auto &v : rfc1321)
        EXPECT_EQ(md5_hex(v[0]), v[1]) << '"' << v[0] << '"';
    // Around the padding boundary, and in pieces that straddle blocks.
    EXPECT_EQ(md5_hex(std::string(56, 'x'), 7), "668a72d5ba17f08e62dabcafad6db14b");
    EXPECT_EQ(md5_hex(std::string(1000000, 'a'), 999), "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(Md5, FinalZeroesTheWholeContext)
{
    MD5_CTX ctx, zero;
    memset(&zero, 0, sizeof zero);
    pra_MD5Init(&ctx);
    pra_MD5Update(&ctx, reinterpret_cast<const unsigned char *>("secret key"), 10);
    unsigned char digest[16];
    pra_MD5Final(digest, &ctx);
    EXPECT_EQ(memcmp(&ctx, &zero, sizeof ctx), 0);
}
