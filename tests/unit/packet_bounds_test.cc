// A composition bug that would outgrow the 1044-byte packet stops the daemon
// with its own message; an assert would be gone from release builds.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <vector>

#include "radius/radius_msg.h"

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
    EXPECT_DEATH(get_accounting_vector(p, "s"), "packet buffer overflow");
    p->length = htons(RADIUS_HDR_LEN);
    EXPECT_DEATH(radius_msg_add_attr(p, RADIUS_ATTR_CLASS, value.data(), value.size()), "packet buffer overflow");
}
