// The database: MAC forms, identifiers, node and profile life cycles, and
// text fields without terminators. Allocation failure: alloc_fail_test.cc.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/portal_users.h"
#include "database/profiles.h"
#include "frame/memory.h"
#include "frame/meterd.h"
#include "test_support.h"

namespace {

using Database = DbTest;

TEST(TextForms, MacFormsAndPortalHashes)
{
    for (auto [in, out] : std::initializer_list<std::pair<const char *, const char *>>{
             {"aabbccddee0f", "AA-BB-CC-DD-EE-0F"},
             {"aa:bb.cc:dd:ee:0f", "AA-BB"},              // an odd character ends the text
             {"aa:bb:cc:dd:ee:f", ""}}) {                 // 16 characters
        char mac[18] = {0};
        change_mac_format(mac, in);
        EXPECT_STREQ(mac, out) << in;
    }
    // Separators do not count, case does; any text stays inside the table.
    EXPECT_EQ(hash_func("AA:BB:CC:DD:EE:FF"), hash_func("AABBCCDDEEFF"));
    EXPECT_NE(hash_func("aa:bb:cc:dd:ee:ff"), hash_func("AABBCCDDEEFF"));
    int high = hash_func("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff");
    EXPECT_TRUE(high >= 0 && high < 256);
}

TEST_F(Database, ControllerChangesAndRemoval)
{
    struct accounting_radius *a = make_profile("wlan-1-1", "ac.example", "old", "ac.example", "b");
    struct accounting_radius *b = make_profile("wlan-1-1", "ac.example", "old");
    // The older of two profiles of one name is the one found.
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL), a);
    replace_radius_to_new_ac_shared_secet_key("ac.example", "new");
    replace_radius_to_new_ac_ip("ac.example", "192.0.2.1");
    EXPECT_STREQ(b->primary_server->secret, "new");  // every match, not the first
    EXPECT_STREQ(b->primary_server->hostname, "192.0.2.1");
    EXPECT_STREQ(a->backup_server->hostname, "ac.example");  // backups are never touched

    // Removal frees the profile's sessions and takes it off its list.
    accounting_msg_t m = login_record("alice", "aa:bb:cc:dd:ee:0f", "wlan-1-1");
    add_new_node(&m, a, PROFILE_TYPE_NORMAL, 1);
    add_new_node(&m, b, PROFILE_TYPE_NORMAL, 1);
    remove_radius(a);
    EXPECT_EQ(list_length(&mac_address_header) + list_length(&ip_change_header), 2u);  // b's alone
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL), b);
    free_radius_profile(a);
}

TEST_F(Database, PortalNasAddressRule)
{
    is_cloud = 1;
    struct accounting_radius *r = make_profile("wlan-1-1", "10.0.0.1", "s", "", "", PROFILE_TYPE_PORTAL);
    accounting_msg_t m = login_record("carol", "AA-BB-CC-DD-EE-01", "ignored");
    unlink("/tmp/halden_ap_ip");
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "127.0.0.1");
    std::ofstream("/tmp/halden_ap_ip") << "192.0.2.9\nsecond line\n";
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "192.0.2.9");
    unlink("/tmp/halden_ap_ip");
    inet_aton("198.51.100.4", &r->nas_ip);
    EXPECT_STREQ(add_new_node(&m, r, PROFILE_TYPE_PORTAL, 1)->self->nas_ip_info, "198.51.100.4");
}

TEST_F(Database, TextFieldsAreCutToTheirSize)
{
    struct ovat_config_event cfg;
    memset(&cfg, 'x', sizeof cfg);  // no terminator anywhere
    struct accounting_radius *r = add_radius(cfg.interface, PROFILE_TYPE_NORMAL);
    ASSERT_EQ(update_radius_profile(r, &cfg, PROFILE_TYPE_NORMAL), 0);
    EXPECT_EQ(strlen(r->interface) + strlen(r->primary_server->hostname), 126u);
    EXPECT_EQ(strlen(r->primary_server->secret), 64u);
    accounting_msg_t m;
    memset(&m, 'y', sizeof m);
    m.class_length = 0;
    struct accounting_node *n = add_new_node(&m, r, PROFILE_TYPE_NORMAL, 0);
    EXPECT_EQ(strlen(n->self->user->user_name), 63u);
    EXPECT_EQ(strlen(n->self->nas_ip_info), 32u);
    EXPECT_EQ(strlen(n->self->user->user_mac), 0u);  // 32 characters: no MAC form
}

}  // namespace
