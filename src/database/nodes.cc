// Session nodes and on/off nodes: creation and release.
#include "database/nodes.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "database/accounting_db_api.h"
#include "database/mac_text.h"
#include "database/session_id.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/memory.h"
#include "frame/meterd.h"

#define HALDEN_AP_IP_FILE "/tmp/halden_ap_ip"

namespace {

void init_node_links(struct accounting_node *node)
{
    INIT_LIST_HEAD(&node->queue);
    INIT_LIST_HEAD(&node->address_sorting_list);
    INIT_LIST_HEAD(&node->radius_profile_list);
    INIT_LIST_HEAD(&node->ip_change_list);
}

unsigned char server_rule(const struct accounting_radius *radius)
{
    if (radius->primary_server)
        return SERVER_PRIMARY;
    if (radius->backup_server)
        return SERVER_BACKUP;
    return SERVER_NONE;
}

// NAS address of a portal session: the profile's, the AP's own file, or loopback.
void portal_nas_ip(struct user_accounting_info *self, const struct accounting_radius *radius)
{
    if (radius->nas_ip.s_addr != 0) {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &radius->nas_ip, text, sizeof text);
        copy_text(self->nas_ip_info, sizeof self->nas_ip_info, text);
        return;
    }
    if (access(HALDEN_AP_IP_FILE, F_OK) == 0) {
        FILE *fp = fopen(HALDEN_AP_IP_FILE, "r");
        if (!fp)
            return;
        if (!fgets(self->nas_ip_info, sizeof self->nas_ip_info, fp))
            self->nas_ip_info[0] = '\0';
        fclose(fp);
        trimnewline(self->nas_ip_info);
        return;
    }
    copy_text(self->nas_ip_info, sizeof self->nas_ip_info, "127.0.0.1");
}

// The node and its data, zero-filled and self-linked; NULL (with the message)
// when either cannot be had.
struct accounting_node *alloc_node(struct accounting_radius *radius)
{
    auto *node = static_cast<struct accounting_node *>(mtr_calloc(1, sizeof(struct accounting_node)));
    auto *self = node ? static_cast<struct user_accounting_info *>(
                            mtr_calloc(1, sizeof(struct user_accounting_info)))
                      : nullptr;
    if (!self) {
        fprintf(stderr, "insufficient memory\n");
        mtr_free(node);
        return nullptr;
    }
    node->self = self;
    init_node_links(node);
    self->acct_radius = radius;
    self->server = server_rule(radius);
    self->retry_count = 1;
    return node;
}

}  // namespace

struct accounting_node *add_new_node(accounting_msg_t *event, struct accounting_radius *radius,
                                     int type, int ipchange)
{
    struct accounting_node *node = alloc_node(radius);
    if (!node)
        return nullptr;
    auto *user = static_cast<struct user_node_info *>(mtr_calloc(1, sizeof(struct user_node_info)));
    if (!user) {
        fprintf(stderr, "insufficient memory\n");
        mtr_free(node->self);
        mtr_free(node);
        return nullptr;
    }
    struct user_accounting_info *self = node->self;
    self->user = user;
    user->login_time = mtr_time();

    copy_field(user->user_name, sizeof user->user_name, event->user_name, sizeof event->user_name);
    gen_session_id(user->session_id, sizeof user->session_id);
    char calling[sizeof event->calling_station_id + 1];
    copy_field(calling, sizeof calling, event->calling_station_id, sizeof event->calling_station_id);
    change_mac_format(user->user_mac, calling);
    copy_field(user->called_station_id, sizeof user->called_station_id, event->called_station_id,
               sizeof event->called_station_id);

    if (type == PROFILE_TYPE_NORMAL) {
        TRACE("%s: event->interim_interval = %d\n", __func__, event->interim_interval);
        self->acc_interim = event->interim_interval;
        copy_field(self->auth_module, sizeof self->auth_module, event->auth_module,
                   sizeof event->auth_module);
        if (event->nas_ip_acct[0])
            copy_field(self->nas_ip_info, sizeof self->nas_ip_info, event->nas_ip_acct,
                       sizeof event->nas_ip_acct);
        if (event->nas_id_acct[0])
            copy_field(self->nas_id_info, sizeof self->nas_id_info, event->nas_id_acct,
                       sizeof event->nas_id_acct);
        if (event->class_length >= 1 && event->class_length <= 128) {
            self->class_length = event->class_length;
            memcpy(self->acc_class, event->attr_class, static_cast<size_t>(event->class_length));
        }
        list_add_tail(&node->address_sorting_list, session_list(type));
    } else {
        self->acc_interim = radius->acc_interim;
        portal_nas_ip(self, radius);
        if (radius->nas_id[0])
            copy_text(self->nas_id_info, sizeof self->nas_id_info, radius->nas_id);
        list_add_tail(&node->address_sorting_list, session_list(type));
    }
    if (ipchange)
        list_add_tail(&node->ip_change_list, &ip_change_header);
    radius_profile_list_add(node);
    return node;
}

struct list_head *session_list(int type)
{
    return type == PROFILE_TYPE_NORMAL ? &mac_address_header : &portal_mac_address_header;
}

struct accounting_node *add_new_node_for_on_off(struct accounting_radius *radius)
{
    struct accounting_node *node = alloc_node(radius);
    if (!node)
        return nullptr;
    // Counted at creation, not at sending: the count is what keeps a removed
    // profile alive until its last transaction has ended.
    radius->on_off_count++;
    node->self->report_time = mtr_time();
    return node;
}

void free_accounting_msg(struct user_accounting_info *info)
{
    if (info->request) {
        mtr_free(info->request);
        info->request = nullptr;
    }
    // Where the packet went goes with it: a later request that never
    // leaves is no server's pending request nor its time-out.
    info->sent_to = 0;
}

void free_accounting_node(struct accounting_node *node)
{
    if (!node)
        return;
    struct user_accounting_info *self = node->self;
    if (!self) {
        mtr_free(node);
        return;
    }
    if (self->user) {
        ip_address_table_remove(node);
        ip_change_table_remove(node);
        radius_profile_list_remove(node);
        mtr_free(self->user);
    }
    queue_remove(node);
    free_accounting_msg(self);
    mtr_free(self);
    mtr_free(node);
}
