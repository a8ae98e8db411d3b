#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "database/accounting_db_api.h"
#include "frame/memory.h"
#include "radius/radius_send_recieve.h"
#include "sim_env.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Types = std::vector<int>;

Types types(const AUTH_HDR *p)
{
    Types t;
    const unsigned char *b = reinterpret_cast<const unsigned char *>(p);
    for (size_t at = 20; at + 2 <= ntohs(p->length) && b[at + 1] >= 2; at += b[at + 1])
        t.push_back(b[at]);
    return t;
}

Bytes value(AUTH_HDR *p, int type)
{
    attribute_t *a = radius_msg_find_attr(p, static_cast<unsigned short>(type));
    return a ? Bytes(a->data, a->data + (a->length - 2)) : Bytes();
}

uint32_t number(AUTH_HDR *p, int type)
{
    uint32_t v = 0xdeadbeef;
    radius_msg_get_attr_int32(p, static_cast<unsigned short>(type), &v);
    return v;
}

std::string address(AUTH_HDR *p, int type)
{
    Bytes v = value(p, type);
    char text[INET_ADDRSTRLEN] = "absent";
    if (v.size() == 4)
        inet_ntop(AF_INET, v.data(), text, sizeof text);
    return text;
}

// The sim device knows one station, at 192.0.2.7 with 100 bytes in, 200 out.
class ComposeTest : public DbTest {
protected:
    SimDevice sim;
    struct accounting_radius *profile = nullptr;

    void SetUp() override
    {
        DbTest::SetUp();
        sim.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 100 200\n");
        profile = make_profile("wlan-1-1", "192.0.2.1", "primary", "192.0.2.2", "backup");
        ASSERT_NE(profile, nullptr);
    }
    struct accounting_node *session(const char *mac = "aa:bb:cc:dd:ee:0f")
    {
        accounting_msg_t m = login("alice", mac, "wlan-1-1");
        return add_new_node(&m, profile, PROFILE_TYPE_NORMAL, 0);
    }
    static AUTH_HDR *compose(struct accounting_node *n, int status)
    {
        EXPECT_EQ(accounting_msg(n, status), 0);
        return n->self->request;
    }
    // Whether p carries the vector that signing with secret alone gives.
    static bool signed_with(const AUTH_HDR *p, const char *secret)
    {
        AUTH_HDR copy;
        memcpy(&copy, p, sizeof copy);
        if (secret)
            get_accounting_vector(&copy, secret);
        else
            memset(copy.vector, 0, sizeof copy.vector);
        return memcmp(copy.vector, p->vector, 16) == 0;
    }
};

}  // namespace

TEST_F(ComposeTest, AccountingOnAndOff)
{
    struct accounting_node *on = add_new_node_for_on_off(profile);
    AUTH_HDR *p = compose(on, ACCOUNTING_ON);
    EXPECT_EQ(p->code, 4);
    EXPECT_EQ(ntohs(p->length), 56);
    const Bytes expect = {0x28, 6, 0, 0, 0, 7, 0x2D, 6, 0, 0, 0, 1,    4,    6, 0x7F, 0, 0, 1,
                          5,    6, 0, 0, 0, 0, 0x3D, 6, 0, 0, 0, 0x0F, 0x31, 6, 0,    0, 0, 0x0B};
    EXPECT_EQ(Bytes(p->data, p->data + 36), expect);
    EXPECT_TRUE(signed_with(p, "primary"));

    p = compose(on, ACCOUNTING_OFF);
    EXPECT_EQ(types(p), (Types{40, 45, 4, 5, 61, 49}));
    EXPECT_EQ(number(p, 40), 8u);
    EXPECT_EQ(number(p, 49), 6u);
    free_accounting_node(on);
}

TEST_F(ComposeTest, SessionPackets)
{
    struct accounting_node *n = session();
    n->self->user->accounting_start = 1;  // the Start after the station's IP report
    inet_pton(AF_INET, "198.51.100.4", &n->self->user->user_ip);
    testenv::now += 30;
    AUTH_HDR *p = compose(n, ACCOUNTING_START);
    EXPECT_EQ(types(p), (Types{1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 46, 55}));
    EXPECT_EQ(address(p, 8), "198.51.100.4");
    EXPECT_EQ(number(p, 46), 30u);
    EXPECT_EQ(number(p, 55), static_cast<uint32_t>(testenv::now));

    p = compose(n, ACCOUNTING_INTERIM);
    EXPECT_EQ(types(p), (Types{1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 46, 42, 43, 55}));
    EXPECT_EQ(address(p, 8), "192.0.2.7");
    EXPECT_EQ(number(p, 42), 100u);
    EXPECT_EQ(number(p, 43), 200u);

    n->self->conn_tx_rx_status.rx = (1ull << 32) + 5;  // stored, not looked up
    p = compose(n, ACCOUNTING_STOP);
    EXPECT_EQ(types(p), (Types{1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 46, 42, 43, 55}));
    EXPECT_EQ(number(p, 42), 5u);
    n->self->user->uam_logout_cause = 4;
    p = compose(n, ACCOUNTING_STOP);
    EXPECT_EQ(types(p), (Types{1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 49, 46, 42, 43, 55}));
    EXPECT_EQ(number(p, 49), 10u);
}

TEST_F(ComposeTest, FailedLookupsAreWrittenBack)
{
    struct accounting_node *n = session("aa:bb:cc:dd:ee:99");
    inet_pton(AF_INET, "198.51.100.4", &n->self->user->user_ip);
    AUTH_HDR *p = compose(n, ACCOUNTING_START);  // a UAM login: accounting_start still 0
    EXPECT_EQ(types(p), (Types{1, 44, 40, 45, 4, 5, 61, 31, 30, 46, 55}));
    EXPECT_EQ(n->self->user->user_ip.s_addr, 0u);

    n->self->conn_tx_rx_status = {9, 9};
    p = compose(n, ACCOUNTING_INTERIM);
    EXPECT_EQ(address(p, 8), "absent");
    EXPECT_EQ(number(p, 42) + number(p, 43), 0u);
    EXPECT_EQ(n->self->conn_tx_rx_status.rx + n->self->conn_tx_rx_status.tx, 0u);
    EXPECT_EQ(address(compose(n, ACCOUNTING_STOP), 8), "0.0.0.0");
}

TEST_F(ComposeTest, NasAddressAndIdentifier)
{
    struct accounting_node *n = session();
    EXPECT_EQ(address(compose(n, ACCOUNTING_INTERIM), 4), "127.0.0.1");
    EXPECT_STREQ(n->self->nas_ip_info, "127.0.0.1");  // kept for later packets

    n = session();
    copy_text(n->self->nas_id_info, sizeof n->self->nas_id_info, "ap-7");
    AUTH_HDR *p = compose(n, ACCOUNTING_INTERIM);
    EXPECT_EQ(value(p, 32), (Bytes{'a', 'p', '-', '7'}));
    EXPECT_EQ(address(p, 4), "absent");

    copy_text(n->self->nas_ip_info, sizeof n->self->nas_ip_info, "203.0.113.9");
    EXPECT_EQ(address(compose(n, ACCOUNTING_INTERIM), 4), "203.0.113.9");
    copy_text(n->self->nas_ip_info, sizeof n->self->nas_ip_info, "ap.example");
    EXPECT_EQ(address(compose(n, ACCOUNTING_INTERIM), 4), "absent");
}

TEST_F(ComposeTest, OptionalSessionAttributes)
{
    struct accounting_node *n = session();
    n->self->user->user_name[0] = '\0';
    copy_text(n->self->auth_module, sizeof n->self->auth_module, std::string(31, 'm').c_str());
    n->self->class_length = 128;
    memset(n->self->acc_class, 0x5a, sizeof n->self->acc_class);

    AUTH_HDR *p = compose(n, ACCOUNTING_STOP);
    EXPECT_EQ(types(p), (Types{1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 26, 25, 46, 42, 43, 55}));
    EXPECT_EQ(value(p, 1).size(), 0u);
    Bytes vsa = value(p, 26);
    const uint32_t vendor = ACCOUNTING_VENDOR_ID;
    ASSERT_EQ(vsa.size(), 37u);
    EXPECT_EQ(Bytes(vsa.begin(), vsa.begin() + 6),
              (Bytes{uint8_t(vendor >> 24), uint8_t(vendor >> 16), uint8_t(vendor >> 8),
                     uint8_t(vendor), 5, 33}));
    EXPECT_EQ(value(p, 25), Bytes(128, 0x5a));
}

TEST_F(ComposeTest, SigningFollowsTheServerSelector)
{
    struct accounting_node *n = session();
    n->self->server = SERVER_BACKUP;
    EXPECT_TRUE(signed_with(compose(n, ACCOUNTING_INTERIM), "backup"));
    n->self->server = SERVER_NONE;  // the transport sends it to the backup
    EXPECT_TRUE(signed_with(compose(n, ACCOUNTING_INTERIM), "backup"));
    n->self->acct_radius = make_profile("wlan-1-2", "192.0.2.1", "primary");
    EXPECT_TRUE(signed_with(compose(n, ACCOUNTING_INTERIM), "primary"));
    n->self->acct_radius = make_profile("wlan-1-3", "", "");
    EXPECT_TRUE(signed_with(compose(n, ACCOUNTING_INTERIM), nullptr));
    n->self->acct_radius = profile;
}

TEST_F(ComposeTest, IdentifiersAndNoMemory)
{
    struct accounting_node *n = session();
    uint8_t first = compose(n, ACCOUNTING_STOP)->id;
    EXPECT_EQ(compose(n, ACCOUNTING_STOP)->id, uint8_t(first + 1));
    for (int i = 0; i < 254; i++)
        compose(n, ACCOUNTING_STOP);
    EXPECT_EQ(compose(n, ACCOUNTING_STOP)->id, first);

    uint8_t next = request_id;
    mtr_alloc_fail_at(1);
    EXPECT_EQ(accounting_msg(n, ACCOUNTING_STOP), -1);
    EXPECT_EQ(n->self->request, nullptr);  // the old one is released all the same
    EXPECT_EQ(request_id, next);
    EXPECT_NE(console().find("alloc failed in accounting_msg()\n"), std::string::npos);
}
