// The portal user table.
#include "database/portal_users.h"

#include <cstdio>
#include <cstring>

#include "database/mac_text.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "frame/meterd.h"

struct hash_table mac_hash_table[MAC_HASH_SIZE];

int hash_func(const char *mac)
{
    size_t len = strlen(mac);
    int32_t sum = 0;
    if (len == 17) {
        for (size_t i = 0; i < 17; i++)
            if (mac[i] != ':' && mac[i] != '-')
                sum += static_cast<signed char>(mac[i]);
    } else if (len == 12) {
        for (size_t i = 0; i < 12; i++)
            sum += static_cast<signed char>(mac[i]);
    } else {
        TRACE("unknow format !!!! , add hash_table_index[0]\n");
        return 0;
    }
    int index = sum % MAC_HASH_SIZE;
    // Bytes of 0x80 and above can make the sum negative; fold it back into
    // the table rather than index outside it.
    if (index < 0)
        index += MAC_HASH_SIZE;
    if (len == 17)
        TRACE("the mac is in mac_hash_table[%d] \n", index);
    else
        TRACE("hash_table_index = %d\n", index);
    return index;
}

int init_meterd_db(void)
{
    if (is_cloud)
        for (auto &bucket : mac_hash_table)
            INIT_LIST_HEAD(&bucket.head);
    return 0;
}

struct user_entry *portal_user_add(const char *sta_mac_text, const char *username,
                                   const char *ssid_name, const char *ssid_profile_name)
{
    char sta_mac[18] = {0};
    change_mac_format(sta_mac, sta_mac_text);
    int index = hash_func(sta_mac);
    auto *e = static_cast<struct user_entry *>(mtr_calloc(1, sizeof(struct user_entry)));
    if (!e) {
        fprintf(stderr, "insufficient memory\n");
        return nullptr;
    }
    copy_text(e->sta_mac, sizeof e->sta_mac, sta_mac);
    copy_text(e->username, sizeof e->username, username);
    copy_text(e->ssid_name, sizeof e->ssid_name, ssid_name);
    copy_text(e->ssid_profile_name, sizeof e->ssid_profile_name, ssid_profile_name);
    // No search for an older entry: a repeated login is a second entry, and
    // one logout takes both.
    list_add_tail(&e->user_list, &mac_hash_table[index].head);
    return e;
}

int portal_user_matches(const struct user_entry *e, const char *sta_mac,
                        const char *ssid_profile_name)
{
    return strcmp(e->sta_mac, sta_mac) == 0 &&
           strcmp(e->ssid_profile_name, ssid_profile_name) == 0;
}

void portal_user_remove(const char *sta_mac_text, const char *ssid_profile_name)
{
    char sta_mac[18] = {0};
    change_mac_format(sta_mac, sta_mac_text);
    struct list_head *pos, *next;
    list_for_each_safe(pos, next, &mac_hash_table[hash_func(sta_mac)].head) {
        auto *e = list_entry(pos, struct user_entry, user_list);
        if (portal_user_matches(e, sta_mac, ssid_profile_name)) {
            list_del(&e->user_list);
            mtr_free(e);
        }
    }
}
