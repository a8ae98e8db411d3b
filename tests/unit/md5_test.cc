#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <tuple>

#include "radius/md5.h"

// The RFC 1321 vectors and two more, each fed in pieces of a size that divides
// it: pieces that end short of, exactly at (120 x in 8s) and across (the
// digits in 10s; a million a in 625s, some of which leave 63 bytes behind the
// first block) a 64-byte block. 62 and 120 bytes leave too little room for
// the length, which then needs a padding block of its own. Final must leave
// no trace of the message.
TEST(Md5, KnownAnswersFedInPiecesAndContextZeroedAfterFinal)
{
    for (const auto &[text, piece, hex] : std::initializer_list<std::tuple<std::string, unsigned, const char *>>{
             {"", 1, "d41d8cd98f00b204e9800998ecf8427e"}, {"a", 1, "0cc175b9c0f1b6a831c399e269772661"},
             {"abc", 3, "900150983cd24fb0d6963f7d28e17f72"}, {"message digest", 7, "f96b697d7cb7938d525a2f31aaf161d0"},
             {"abcdefghijklmnopqrstuvwxyz", 13, "c3fcd3d76192e4007dfb496cca67e13b"},
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
