// Session nodes and on/off nodes: creation, release, session identifiers
// and the two MAC text forms.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "database/accounting_db_api.h"
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
        list_add_tail(&node->address_sorting_list, &mac_address_header);
    } else {
        self->acc_interim = radius->acc_interim;
        portal_nas_ip(self, radius);
        if (radius->nas_id[0])
            copy_text(self->nas_id_info, sizeof self->nas_id_info, radius->nas_id);
        list_add_tail(&node->address_sorting_list, &portal_mac_address_header);
    }
    if (ipchange)
        list_add_tail(&node->ip_change_list, &ip_change_header);
    radius_profile_list_add(node);
    return node;
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

int os_get_random(unsigned char *buf, size_t len)
{
    FILE *fp = fopen("/dev/urandom", "rb");
    if (!fp) {
        TRACE("Could not open /dev/urandom.\n");
        return -1;
    }
    // Unbuffered: stdio would otherwise draw a whole buffer of 4 KiB from
    // the kernel's generator for the 8 bytes of each session id.
    setvbuf(fp, nullptr, _IONBF, 0);
    size_t got = fread(buf, 1, len, fp);
    fclose(fp);
    return got == len ? 0 : -1;
}

void gen_session_id(char *id, size_t len)
{
    unsigned long long value = 0;
    if (os_get_random(reinterpret_cast<unsigned char *>(&value), sizeof value) == 0) {
        snprintf(id, len, "%016llX", value);
        return;
    }
    // The seed starts anew on each call, so the fallback changes only with
    // the clock; two ids made in one second are equal.
    unsigned int seed = 0;
    int32_t v = static_cast<int32_t>(static_cast<uint32_t>(rand_r(&seed) % 1013) +
                                     static_cast<uint32_t>(mtr_time()));
    snprintf(id, len, "%d", v);
}

void change_mac_format(char *sta_mac, const char *calling_station_id)
{
    sta_mac[0] = '\0';
    size_t len = strlen(calling_station_id);
    if (len == 17) {
        for (size_t i = 0; i < 17; i++) {
            char c = calling_station_id[i];
            if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || c == '-')
                sta_mac[i] = c;
            else if (c == ':')
                sta_mac[i] = '-';
            else if (c >= 'a' && c <= 'z')
                sta_mac[i] = static_cast<char>(c - 'a' + 'A');
            // Anything else writes nothing: the zero there ends the text.
        }
        sta_mac[17] = '\0';
    } else if (len == 12) {
        size_t o = 0;
        for (size_t i = 0; i < 12; i++) {
            if (i != 0 && i % 2 == 0)
                sta_mac[o++] = '-';
            char c = calling_station_id[i];
            sta_mac[o++] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
        sta_mac[17] = '\0';
    } else {
        TRACE("unknow format !!!");
    }
}

void change_mac_to_rrm_format(char *dst_mac, const char *src_mac)
{
    size_t i = 0;
    do {
        char c = src_mac[i];
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        else if (c == '-')
            c = ':';
        dst_mac[i] = c;
    } while (src_mac[i++] != '\0');
}
