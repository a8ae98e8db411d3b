// The RADIUS profile store.
#include "database/profiles.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "database/nodes.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "frame/meterd.h"

const char *shared_server_secret = nullptr;

namespace {

struct list_head *family_list(int type)
{
    return type == PROFILE_TYPE_NORMAL ? &total_radius_server_header : &portal_radius_server_header;
}

// Fills (allocating on first use) one server from a configuration record.
int fill_server(radius_server **server, const char *hostname, int port, const char *secret)
{
    if (!*server) {
        *server = static_cast<radius_server *>(mtr_malloc(sizeof(radius_server)));
        if (!*server)
            return -1;
        // The address is resolved before each send; start from a defined one.
        memset(*server, 0, sizeof(radius_server));
    }
    copy_field((*server)->hostname, sizeof (*server)->hostname, hostname, 64);
    (*server)->acct_port = port;
    // Over TLS every server shares the transport's secret, whatever the
    // profile says.
    copy_field((*server)->secret, sizeof (*server)->secret, shared_server_secret ? shared_server_secret : secret, 65);
    return 0;
}

}  // namespace

struct accounting_radius *add_radius(const char *interface, int type)
{
    auto *radius = static_cast<struct accounting_radius *>(mtr_calloc(1, sizeof(struct accounting_radius)));
    if (!radius) {
        fprintf(stderr, "insufficient memory\n");
        return nullptr;
    }
    copy_field(radius->interface, sizeof radius->interface, interface, sizeof radius->interface);
    TRACE("Interface is: %s\n", radius->interface);
    radius->acct_status = ACCOUNTING_ON;
    radius->on_off_count = 0;
    INIT_LIST_HEAD(&radius->user_node_header);
    if (type == PROFILE_TYPE_NORMAL)
        list_add_tail(&radius->total_radius_server, &total_radius_server_header);
    else if (is_cloud)
        list_add_tail(&radius->total_radius_server, &portal_radius_server_header);
    return radius;
}

int update_radius_profile(struct accounting_radius *radius,
                          const struct ovat_config_event *radius_profile, int type)
{
    if (radius_profile->hostname[0] &&
        fill_server(&radius->primary_server, radius_profile->hostname, radius_profile->port,
                    radius_profile->secret) != 0) {
        fprintf(stderr, "%s-%s-%d: insufficient memory\n", "accounting_db_api", __func__, __LINE__);
        return -1;
    }
    if (radius_profile->backup_hostname[0] &&
        fill_server(&radius->backup_server, radius_profile->backup_hostname,
                    radius_profile->backup_port, radius_profile->backup_secret) != 0) {
        fprintf(stderr, "%s-%s-%d: insufficient memory\n", "accounting_db_api", __func__, __LINE__);
        return -1;
    }
    radius->time_out = RADIUS_TIME_OUT;
    radius->retry_count = RADIUS_RETRY_COUNT;
    if (type == PROFILE_TYPE_PORTAL) {
        // Minutes beyond what an int holds in seconds mean "as seldom as
        // can be", not a wrapped interval that could fall due at every tick.
        long long seconds = radius_profile->acct_interim * 60LL;
        radius->acc_interim = static_cast<int>(seconds > INT_MAX   ? INT_MAX
                                               : seconds < INT_MIN ? INT_MIN
                                                                   : seconds);
        copy_field(radius->nas_id, sizeof radius->nas_id, radius_profile->nas_id,
                   sizeof radius_profile->nas_id);
        radius->nas_ip = radius_profile->nas_ip;
    }
    return 0;
}

// Text arguments may come straight from a wire field of 64 bytes, so every
// comparison is bounded by that size.
struct accounting_radius *search_radius_by_interface(const char *interface, int type)
{
    if (type != PROFILE_TYPE_NORMAL && type != PROFILE_TYPE_PORTAL)
        return nullptr;
    if (type == PROFILE_TYPE_PORTAL && !is_cloud)
        return nullptr;
    struct list_head *p;
    list_for_each(p, family_list(type)) {
        auto *radius = list_entry(p, struct accounting_radius, total_radius_server);
        if (strncmp(radius->interface, interface, sizeof radius->interface) == 0)
            return radius;
    }
    return nullptr;
}

int remove_radius(struct accounting_radius *radius)
{
    struct list_head *p, *next;
    list_for_each_safe(p, next, &radius->user_node_header)
        free_accounting_node(list_entry(p, struct accounting_node, radius_profile_list));
    list_del(&radius->total_radius_server);
    radius->acct_status = ACCOUNTING_OFF;
    return 0;
}

void empty_radius_profile(struct accounting_radius *radius)
{
    mtr_free(radius->primary_server);
    radius->primary_server = nullptr;
    mtr_free(radius->backup_server);
    radius->backup_server = nullptr;
}

void free_radius_profile(struct accounting_radius *radius)
{
    empty_radius_profile(radius);
    mtr_free(radius);
}

namespace {

// The controller is known by the host name of the primary servers: every
// normal profile whose primary names it takes the new value. Backups and
// portal profiles are the cloud's, never the controller's.
void replace_on_primaries(const char *ac_ip, const char *value, bool secret)
{
    struct list_head *p;
    list_for_each(p, &total_radius_server_header) {
        auto *radius = list_entry(p, struct accounting_radius, total_radius_server);
        radius_server *server = radius->primary_server;
        if (!server || strncmp(server->hostname, ac_ip, sizeof server->hostname) != 0)
            continue;
        if (secret && shared_server_secret) {
            TRACE("Keep interface %s's TLS secret.\n", radius->interface);
        } else if (secret) {
            TRACE("Replace interface %s's radius secret key.\n", radius->interface);
            copy_field(server->secret, sizeof server->secret, value, 64);
        } else {
            TRACE("Replace interface %s's radius ip.\n", radius->interface);
            copy_field(server->hostname, sizeof server->hostname, value, 64);
        }
    }
}

}  // namespace

void replace_radius_to_new_ac_ip(const char *old_ac_ip, const char *new_ac_ip)
{
    replace_on_primaries(old_ac_ip, new_ac_ip, false);
}

void replace_radius_to_new_ac_shared_secet_key(const char *ac_ip, const char *secret_key)
{
    replace_on_primaries(ac_ip, secret_key, true);
}

int radius_profile_idle(const struct accounting_radius *radius)
{
    return radius->acct_status == ACCOUNTING_OFF && radius->on_off_count == 0;
}

int check_radius_exist(struct accounting_radius *radius)
{
    if (radius && (radius->primary_server || radius->backup_server))
        return 1;
    TRACE("node->self->acct_radius was free !!!!");
    return 0;
}

radius_server *node_server(const struct user_accounting_info *self)
{
    const struct accounting_radius *radius = self->acct_radius;
    if (!radius)
        return nullptr;
    return self->server == SERVER_PRIMARY ? radius->primary_server : radius->backup_server;
}
