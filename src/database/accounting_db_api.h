// Operations of the accounting database: list wrappers, session and on/off
// nodes, the RADIUS profile store, session identifiers and MAC text forms.
//
// Every operation expects the caller to hold the global `mutex`.
#ifndef METERD_DATABASE_ACCOUNTING_DB_API_H
#define METERD_DATABASE_ACCOUNTING_DB_API_H

#include <cstddef>

#include "database/accounting.h"
#include "frame/ovat_event.h"

// --- list wrappers; each leaves the link self-linked ---
void ip_address_table_remove(struct accounting_node *node);
void ip_change_table_remove(struct accounting_node *node);
void queue_insert_to_tail(struct accounting_node *node, struct list_head *header);
void queue_remove(struct accounting_node *node);
void radius_profile_list_add(struct accounting_node *node);
void radius_profile_list_remove(struct accounting_node *node);

// --- nodes ---
// A session node, linked on its MAC list and its profile (and, with ipchange
// non-zero, on ip_change_header) but on no delivery queue. NULL on no memory.
struct accounting_node *add_new_node(accounting_msg_t *event, struct accounting_radius *radius,
                                     int type, int ipchange);
// An on/off node linked to nothing; raises the profile's on_off_count.
struct accounting_node *add_new_node_for_on_off(struct accounting_radius *radius);
// Unlinks and frees the node with all it owns; NULL accepted.
void free_accounting_node(struct accounting_node *node);
// Drops the stored request, if any; the node lives on.
void free_accounting_msg(struct user_accounting_info *info);

// --- session identifiers ---
int os_get_random(unsigned char *buf, size_t len);
void gen_session_id(char *id, size_t len);

// --- MAC text forms ---
// Canonical text (AA-BB-CC-DD-EE-FF) of a 17- or 12-character MAC; empty for
// any other length. sta_mac has 18 bytes.
void change_mac_format(char *sta_mac, const char *calling_station_id);
// aa:bb:cc:dd:ee:ff form of a canonical text; dst_mac holds all of src_mac.
void change_mac_to_rrm_format(char *dst_mac, const char *src_mac);

// --- profile store ---
struct accounting_radius *add_radius(const char *interface, int type);
int update_radius_profile(struct accounting_radius *radius,
                          const struct ovat_config_event *radius_profile, int type);
struct accounting_radius *search_radius_by_interface(const char *interface, int type);
// Frees the profile's sessions (no Stop) and takes it off its list; the record
// lives on for its on/off nodes. Always 0.
int remove_radius(struct accounting_radius *radius);
void empty_radius_profile(struct accounting_radius *radius);
void replace_radius_to_new_ac_ip(const char *old_ac_ip, const char *new_ac_ip);
void replace_radius_to_new_ac_shared_secet_key(const char *ac_ip, const char *secret_key);
// 1 when radius is not NULL and has a server, else 0.
int check_radius_exist(struct accounting_radius *radius);

// --- portal user table (cloud mode) ---
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
