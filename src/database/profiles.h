// The RADIUS profile store: one profile per WLAN interface and family.
// Expects `mutex` held.
#ifndef METERD_DATABASE_PROFILES_H
#define METERD_DATABASE_PROFILES_H

#include "database/accounting.h"
#include "frame/ovat_event.h"

// The secret that every server takes whatever its profile says (RADIUS over
// TLS has one for all), or NULL for the profiles' own. Set before any thread.
extern const char *shared_server_secret;

// A new profile of that family on its family list (the portal list only in
// cloud mode), with no server yet. NULL on no memory.
struct accounting_radius *add_radius(const char *interface, int type);
// Fills the servers and delivery constants from a configuration record.
// 0, or -1 when a server record could not be had.
int update_radius_profile(struct accounting_radius *radius,
                          const struct ovat_config_event *radius_profile, int type);
struct accounting_radius *search_radius_by_interface(const char *interface, int type);
// Frees the profile's sessions (no Stop) and takes it off its list; the record
// lives on for its on/off nodes. Always 0.
int remove_radius(struct accounting_radius *radius);
// Frees both server records and leaves their pointers NULL.
void empty_radius_profile(struct accounting_radius *radius);
// empty_radius_profile, then the record itself: the end of a removed profile
// that no node refers to any more.
void free_radius_profile(struct accounting_radius *radius);
void replace_radius_to_new_ac_ip(const char *old_ac_ip, const char *new_ac_ip);
void replace_radius_to_new_ac_shared_secet_key(const char *ac_ip, const char *secret_key);
// 1 when a removed profile has no on/off transaction left, so that nothing
// will ever refer to it again, else 0.
int radius_profile_idle(const struct accounting_radius *radius);
// 1 when radius is not NULL and has a server, else 0.
int check_radius_exist(struct accounting_radius *radius);
// The server that the node's selector names: the primary for SERVER_PRIMARY,
// the backup for any other value, with no fall-through to the other one.
// NULL when that record is absent or the node has no profile. Requests are
// sent to it, signed with its secret and verified against it.
radius_server *node_server(const struct user_accounting_info *self);

#endif
