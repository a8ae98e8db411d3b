// The database: MAC forms, controller changes, the portal NAS address, and
// text fields without terminators, of profiles, logins and UAM events. Allocation failure: alloc_fail_test.cc;
// a removed profile's sessions: the control event 2 path there.
#include <unistd.h>

#include <fstream>

#include "database/mac_text.h"
#include "events/uam_events.h"
#include "test_support.h"

namespace {

using Database = DbTest;

TEST_F(Database, ControllerChanges)
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

// The colon form reaches FreeRADIUS in the system tests; here the bare and
// cut forms, a text of no form, and the hash of high bytes.
TEST_F(Database, TextFieldsAreCutToTheirSizeAndForm)
{
    char mac[18] = {0};
    change_mac_format(mac, "aa:bb.cc:dd:ee:0f");  // an odd character ends the text
    EXPECT_STREQ(mac, "AA-BB");
    change_mac_format(mac, "aabbccddee0f");
    EXPECT_STREQ(mac, "AA-BB-CC-DD-EE-0F");
    int high = hash_func("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff");
    EXPECT_TRUE(high >= 0 && high < 256);
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

// UAM events whose texts fill their fields: the UAM service terminates a text
// only when it fits, which devsim cannot send.
TEST_F(Database, UamTextsWithoutTerminatorAreReadWithinTheirFields)
{
    is_cloud = 1;
    struct uam_event e;
    memset(&e, 'A', sizeof e);
    e.event = UAM_EVENT_USER_LOGIN;
    e.ip = 0;
    e.usr_from = 0;  // local: every filter reads its text, and no profile is named wlan-AAA...
    Captured out;
    uam_event_input(&e, sizeof e);
    EXPECT_NE(out.text().find("The login user \"" + std::string(64, 'A') + "\" doesn't need to do accounting.\n"),
              std::string::npos);

    e.usr_from = USR_FROM_FOREIGN;
    uam_event_input(&e, sizeof e + 8);  // a longer datagram is cut
    ASSERT_FALSE(list_empty(&mac_hash_table[0].head));  // no MAC text: bucket 0
    auto *u = list_entry(mac_hash_table[0].head.next, struct user_entry, user_list);
    EXPECT_EQ(std::string(u->username) + u->ssid_name + u->ssid_profile_name, std::string(3 * 63, 'A'));
    EXPECT_STREQ(u->sta_mac, "");
    portal_user_remove("", u->ssid_profile_name);
    EXPECT_TRUE(list_empty(&mac_hash_table[0].head));

    // A foreign user's logout takes it out of the table even when the later
    // filters (no address here) pass the event over.
    uam_event f = uam_login("dave", "aa:bb:cc:dd:ee:05", "wlan-1-3", "SSID3");
    f.usr_from = USR_FROM_FOREIGN;
    uam_event_input(&f, sizeof f);
    const int bucket = hash_func("AA-BB-CC-DD-EE-05");
    ASSERT_FALSE(list_empty(&mac_hash_table[bucket].head));
    f.event = UAM_EVENT_USER_LOGOUT;
    f.ip = UAM_NO_IP;
    uam_event_input(&f, sizeof f);
    EXPECT_TRUE(list_empty(&mac_hash_table[bucket].head));

    // A local logout leaves 802.1X and MAC users to the authenticator; any
    // other service takes the user out.
    f.event = UAM_EVENT_USER_LOGIN;
    uam_event_input(&f, sizeof f);
    UamFields local;
    local.event = UAM_EVENT_USER_LOGOUT;
    local.sta_mac = "aa:bb:cc:dd:ee:05";
    local.ssid_profile = "SSID3";
    for (const char *service : {"802.1x", "mac-auth", "portal"}) {
        local.service = service;
        deliver(uam_event_input, uam_record(local));
        EXPECT_EQ(list_empty(&mac_hash_table[bucket].head), local.service == "portal") << service;
    }
}

}  // namespace
