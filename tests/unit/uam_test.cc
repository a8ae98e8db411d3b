// UAM events whose texts fill their fields: the UAM service terminates a text
// only when it fits, which devsim cannot send.
#include <cstring>
#include <string>

#include "database/portal_users.h"
#include "events/uam_events.h"
#include "frame/meterd.h"
#include "test_support.h"

namespace {

using Uam = DbTest;

TEST_F(Uam, TextsWithoutTerminatorAreReadWithinTheirFields)
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
