// What each Accounting-Request of a session carries where a FreeRADIUS
// detail record cannot show it: the order of the attributes, the packets of
// a UAM login, the low words of the counters, the signature for the backup.

#include "radius/compose.h"
#include "test_support.h"

namespace {

using Types = std::vector<int>;

// The attribute types of p, in order.
Types types(AUTH_HDR *p)
{
    Types t;
    for (size_t at = 0; at + 20 < ntohs(p->length); at += std::max<size_t>(2, p->data[at + 1]))
        t.push_back(p->data[at]);
    return t;
}
// The first integer or address of that type, all ones when absent.
uint32_t number(AUTH_HDR *p, unsigned short type)
{
    uint32_t v = ~0u;
    radius_msg_get_attr_int32(p, type, &v);
    return v;
}
// "-" reads as all ones too, as inet_addr gives for what is no address.
uint32_t ip(const char *text) { return ntohl(inet_addr(text)); }

AUTH_HDR *compose(struct accounting_node *n, int status)
{
    EXPECT_EQ(accounting_msg(n, status), 0);
    return n->self->request;
}

using Compose = DbTest;

TEST_F(Compose, AttributesOfEachPacket)
{
    SimDevice sim;  // one station, at 192.0.2.7 with 100 bytes in, 200 out
    sim.write("stations", "aa:bb:cc:dd:ee:0f 192.0.2.7 100 200\n");
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "primary", "192.0.2.2", "backup");
    accounting_msg_t logins[] = {login_record("alice", "aa:bb:cc:dd:ee:0f", "wlan-1-1"),
                                 login_record("", "aa:bb:cc:dd:ee:99", "wlan-1-1")};
    struct accounting_node *n = add_new_node(&logins[0], r, PROFILE_TYPE_NORMAL, 0);
    struct accounting_node *u = add_new_node(&logins[1], r, PROFILE_TYPE_NORMAL, 0);
    n->self->user->user_ip.s_addr = u->self->user->user_ip.s_addr = inet_addr("198.51.100.4");
    n->self->user->accounting_start = 1;  // n's Start follows the station's IP report; u's is a UAM login's
    n->self->conn_tx_rx_status = {(1ull << 32) + 5, 7};  // stored: a Stop sends their low words
    u->self->conn_tx_rx_status = {9, 9};
    copy_text(n->self->auth_module, sizeof n->self->auth_module, "portal");
    n->self->class_length = 128;  // the longest value
    copy_text(n->self->nas_ip_info, sizeof n->self->nas_ip_info, "203.0.113.9");
    copy_text(u->self->nas_id_info, sizeof u->self->nas_id_info, "ap-7");  // an identifier alone: no address
    u->self->server = SERVER_NONE;  // to be sent to the backup, so signed for it
    testenv::now += 30;
    // Per packet: the attribute types; Framed-IP-Address ("-": none), stored as
    // is, or looked up anew and written back (0.0.0.0 after a failed look-up);
    // Acct-Input/Output-Octets (~0u: none). n's logout cause is set first;
    // u's User-Name is empty, and goes out all the same.
    using Row = std::tuple<accounting_node *, int, int, Types, const char *, uint32_t, uint32_t>;
    const uint32_t none = ~0u;
    for (auto [node, status, cause, seq, framed, in, out] : std::initializer_list<Row>{
             {n, ACCOUNTING_START, 0, {1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 26, 25, 46, 55}, "198.51.100.4", none, none},
             {n, ACCOUNTING_STOP, 4, {1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 26, 25, 49, 46, 42, 43, 55}, "198.51.100.4", 5, 7},
             {n, ACCOUNTING_INTERIM, 0, {1, 8, 44, 40, 45, 4, 5, 61, 31, 30, 26, 25, 46, 42, 43, 55}, "192.0.2.7", 100, 200},
             {u, ACCOUNTING_START, 0, {1, 44, 40, 45, 32, 5, 61, 31, 30, 46, 55}, "-", none, none},
             {u, ACCOUNTING_INTERIM, 0, {1, 44, 40, 45, 32, 5, 61, 31, 30, 46, 42, 43, 55}, "-", 0, 0},
             {u, ACCOUNTING_STOP, 0, {1, 8, 44, 40, 45, 32, 5, 61, 31, 30, 46, 42, 43, 55}, "0.0.0.0", 0, 0}}) {
        n->self->user->uam_logout_cause = cause;
        AUTH_HDR *p = compose(node, status);
        EXPECT_EQ(types(p), seq) << node << ' ' << status;
        EXPECT_EQ(std::vector<uint32_t>({number(p, 8), number(p, 42), number(p, 43), number(p, 46), number(p, 55)}),
                  std::vector<uint32_t>({ip(framed), in, out, 30, uint32_t(testenv::now)}))
            << node << ' ' << status;
        AUTH_HDR resigned = *p;
        get_accounting_vector(&resigned, node == u ? "backup" : "primary");
        EXPECT_EQ(memcmp(resigned.vector, p->vector, 16), 0) << node << ' ' << status;
    }
    EXPECT_EQ(number(compose(n, ACCOUNTING_STOP), 4), ip("203.0.113.9"));
    copy_text(n->self->nas_ip_info, sizeof n->self->nas_ip_info, "ap.example");  // no IPv4 address: none
    EXPECT_EQ(number(compose(n, ACCOUNTING_STOP), 4), ~0u);

    const uint8_t id = request_id;
    mtr_alloc_fail_at(1);
    EXPECT_EQ(accounting_msg(n, ACCOUNTING_STOP), -1);
    EXPECT_EQ(n->self->request, nullptr);  // the old one is released all the same
    EXPECT_EQ(request_id, id);             // no Identifier spent
}

}  // namespace
