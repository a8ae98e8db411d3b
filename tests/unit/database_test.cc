// The database: node and profile life cycles, MAC forms, session
// identifiers, text fields without terminators, and allocation failure.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "database/accounting_db_api.h"
#include "frame/meterd.h"
#include "frame/memory.h"
#include "test_support.h"

namespace {

class Database : public DbTest {};

TEST(MacText, CanonicalAndRrmForms)
{
    struct Case {
        const char *in, *out;
    } cases[] = {
        {"aa:bb:cc:dd:ee:0f", "AA-BB-CC-DD-EE-0F"},
        {"aabbccddee0f", "AA-BB-CC-DD-EE-0F"},
        {"aa:bb.cc:dd:ee:0f", "AA-BB"},  // an odd character ends the text
        {"gg:hh:ii:jj:kk:ll", "GG-HH-II-JJ-KK-LL"},  // normalises, does not validate
        {"aa:bb:cc:dd:ee:f", ""},                    // 16 characters
    };
    for (const Case &c : cases) {
        char out[18] = {0};
        change_mac_format(out, c.in);
        EXPECT_STREQ(out, c.out) << c.in;
    }
    char rrm[18];
    change_mac_to_rrm_format(rrm, "AA-BB-CC-DD-EE-0F");
    EXPECT_STREQ(rrm, "aa:bb:cc:dd:ee:0f");
}

TEST(Identifiers, SessionIdsAndPortalHashes)
{
    char a[32], b[32];
    gen_session_id(a, sizeof a);
    gen_session_id(b, sizeof b);
    EXPECT_EQ(strspn(a, "0123456789ABCDEF"), 16u);
    EXPECT_STRNE(a, b);
    // Separators do not count, case does; any text stays inside the table.
    EXPECT_EQ(hash_func("AA:BB:CC:DD:EE:FF"), hash_func("AABBCCDDEEFF"));
    EXPECT_NE(hash_func("aa:bb:cc:dd:ee:ff"), hash_func("AABBCCDDEEFF"));
    int high = hash_func("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff");
    EXPECT_TRUE(high >= 0 && high < 256);
}

TEST_F(Database, NodeLifeCycles)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "10.0.0.1", "s", "10.0.0.2", "t");
    struct accounting_radius *backup_only = make_profile("wlan-1-2", "", "", "10.0.0.2", "t");
    struct accounting_radius *none = make_profile("wlan-1-3", "", "");
    accounting_msg_t m = login("alice", "aa:bb:cc:dd:ee:0f", "wlan-1-1", 300);
    m.class_length = 128;
    struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 1);
    EXPECT_STREQ(n->self->user->user_mac, "AA-BB-CC-DD-EE-0F");
    EXPECT_EQ(n->self->server, SERVER_PRIMARY);
    EXPECT_EQ(n->self->class_length, 128);
    m.class_length = 129;  // out of range: no class at all
    struct accounting_node *n2 = add_new_node(&m, backup_only, PROFILE_TYPE_NORMAL, 0);
    EXPECT_EQ(n2->self->class_length, 0);
    EXPECT_EQ(n2->self->server, SERVER_BACKUP);
    EXPECT_EQ(list_length(&mac_address_header), 2u);
    EXPECT_EQ(list_length(&ip_change_header), 1u);

    // Freeing one session leaves the others. A node's links are always
    // linked or self-linked (never cleared), so one already off its MAC list
    // frees cleanly, and so does a node that was never queued.
    free_accounting_node(n);
    EXPECT_TRUE(list_empty(&ip_change_header) && list_empty(&r->user_node_header));
    ip_address_table_remove(n2);
    free_accounting_node(n2);
    EXPECT_TRUE(list_empty(&mac_address_header) && list_empty(&backup_only->user_node_header));

    struct accounting_node *o = add_new_node_for_on_off(none);
    EXPECT_EQ(o->self->server, SERVER_NONE);
    EXPECT_EQ(check_radius_exist(none), 0);
    EXPECT_EQ(check_radius_exist(backup_only), 1);
    EXPECT_EQ(none->on_off_count, 1);
    free_accounting_node(o);
    EXPECT_EQ(none->on_off_count, 1);  // only the transaction's end lowers it
}

TEST_F(Database, PortalNasAddressRule)
{
    is_cloud = 1;
    init_meterd_db();
    struct accounting_radius *r = make_profile("wlan-1-1", "10.0.0.1", "s", "", "", PROFILE_TYPE_PORTAL);
    accounting_msg_t m = login("carol", "AA-BB-CC-DD-EE-01", "ignored");
    unlink("/tmp/halden_ap_ip");
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "127.0.0.1");
    FILE *fp = fopen("/tmp/halden_ap_ip", "w");
    fputs("192.0.2.9\nsecond line\n", fp);
    fclose(fp);
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "192.0.2.9");
    unlink("/tmp/halden_ap_ip");
    inet_aton("198.51.100.4", &r->nas_ip);
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "198.51.100.4");
    is_cloud = 0;
}

TEST_F(Database, ProfileStoreSearchReplaceRemove)
{
    struct accounting_radius *a = make_profile("wlan-1-1", "ac.example", "old", "ac.example", "b");
    struct accounting_radius *b = make_profile("wlan-1-1", "ac.example", "old");
    struct accounting_radius *c = make_profile("wlan-1-2", "other", "x");
    // The older of two profiles of one name is the one found.
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL), a);
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_PORTAL), nullptr);

    replace_radius_to_new_ac_shared_secet_key("ac.example", "new");
    replace_radius_to_new_ac_ip("ac.example", "192.0.2.1");
    EXPECT_STREQ(b->primary_server->secret, "new");  // every match, not the first
    EXPECT_STREQ(b->primary_server->hostname, "192.0.2.1");
    EXPECT_STREQ(a->backup_server->hostname, "ac.example");  // backups are never touched
    EXPECT_STREQ(c->primary_server->hostname, "other");

    accounting_msg_t m = login("dave", "AA-BB-CC-DD-EE-02", "wlan-1-1");
    add_new_node(&m, a, PROFILE_TYPE_NORMAL, 1);
    remove_radius(a);
    EXPECT_EQ(a->acct_status, ACCOUNTING_OFF);
    EXPECT_EQ(a->total_radius_server.next, nullptr);
    EXPECT_TRUE(list_empty(&mac_address_header) && list_empty(&ip_change_header));
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL), b);
    empty_radius_profile(a);
    mtr_free(a);
}

TEST_F(Database, TextFieldsAreCutToTheirSize)
{
    struct ovat_config_event cfg;
    memset(&cfg, 'x', sizeof cfg);  // no terminator anywhere
    struct accounting_radius *r = add_radius(cfg.interface, PROFILE_TYPE_NORMAL);
    ASSERT_EQ(update_radius_profile(r, &cfg, PROFILE_TYPE_NORMAL), 0);
    EXPECT_EQ(strlen(r->interface), 63u);
    EXPECT_EQ(strlen(r->primary_server->hostname), 63u);
    EXPECT_EQ(strlen(r->primary_server->secret), 64u);

    accounting_msg_t m;
    memset(&m, 'y', sizeof m);
    m.class_length = 0;
    struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(strlen(n->self->user->user_name), 63u);
    EXPECT_EQ(strlen(n->self->nas_ip_info), 32u);
    EXPECT_EQ(strlen(n->self->user->user_mac), 0u);  // 32 characters: no MAC form
}

TEST_F(Database, EveryAllocationFailureLeavesNothingBehind)
{
    // add_new_node makes three allocations; failing any one frees the rest.
    struct accounting_radius *r = make_profile("wlan-1-1", "10.0.0.1", "s");
    accounting_msg_t m = login("erin", "AA-BB-CC-DD-EE-03", "wlan-1-1");
    for (unsigned long nth = 1; nth <= 3; nth++) {
        mtr_alloc_fail_at(nth);
        EXPECT_EQ(add_new_node(&m, r, PROFILE_TYPE_NORMAL, 1), nullptr) << nth;
        EXPECT_TRUE(list_empty(&mac_address_header) && list_empty(&ip_change_header));
    }
    for (unsigned long nth = 1; nth <= 2; nth++) {
        mtr_alloc_fail_at(nth);
        EXPECT_EQ(add_new_node_for_on_off(r), nullptr);
        EXPECT_EQ(r->on_off_count, 0);
    }
    mtr_alloc_fail_at(1);
    EXPECT_EQ(add_radius("wlan-1-9", PROFILE_TYPE_NORMAL), nullptr);
    EXPECT_EQ(list_length(&total_radius_server_header), 1u);
}

}  // namespace
