// The portal user table: who is logged in at the portal, by MAC and SSID
// profile, whether or not a session runs for them. Cloud mode only; expects
// `mutex` held.
#ifndef METERD_DATABASE_PORTAL_USERS_H
#define METERD_DATABASE_PORTAL_USERS_H

#include "database/accounting.h"

struct user_entry {
    char sta_mac[18];
    char username[64];
    char ssid_name[64];
    char ssid_profile_name[64];
    struct list_head user_list;
};
struct hash_table {
    struct list_head head;
};
enum { MAC_HASH_SIZE = 256 };
extern struct hash_table mac_hash_table[MAC_HASH_SIZE];

// Bucket index of a MAC text, always within 0..255.
int hash_func(const char *mac);
// Prepares the portal user table in cloud mode. Always 0.
int init_meterd_db(void);
// Adds a login at the tail of its bucket, keyed by the canonical form of
// sta_mac_text; texts are cut to their fields. NULL (with the message on
// stderr) when memory runs out.
struct user_entry *portal_user_add(const char *sta_mac_text, const char *username,
                                   const char *ssid_name, const char *ssid_profile_name);
// Removes and frees every entry of the station and SSID profile.
void portal_user_remove(const char *sta_mac_text, const char *ssid_profile_name);
// 1 when the entry belongs to the canonical sta_mac and the SSID profile
// (exact comparisons; the user name plays no part), else 0.
int portal_user_matches(const struct user_entry *e, const char *sta_mac,
                        const char *ssid_profile_name);

#endif
