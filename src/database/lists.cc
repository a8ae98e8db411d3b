// The global list heads and the thin wrappers that move node links.
#include <cstring>

#include "database/accounting_db_api.h"

struct list_head mac_address_header = LIST_HEAD_INIT(mac_address_header);
struct list_head portal_mac_address_header = LIST_HEAD_INIT(portal_mac_address_header);
struct list_head ip_change_header = LIST_HEAD_INIT(ip_change_header);
struct list_head total_interim_queue_header = LIST_HEAD_INIT(total_interim_queue_header);
struct list_head total_radius_server_header = LIST_HEAD_INIT(total_radius_server_header);
struct list_head portal_radius_server_header = LIST_HEAD_INIT(portal_radius_server_header);
struct list_head event_header = LIST_HEAD_INIT(event_header);
struct list_head request_queue_header = LIST_HEAD_INIT(request_queue_header);
struct list_head fail_queue_header = LIST_HEAD_INIT(fail_queue_header);

void copy_text(char *dst, size_t size, const char *src)
{
    if (size == 0)
        return;
    size_t n = 0;
    while (n + 1 < size && src[n] != '\0')
        n++;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

void copy_field(char *dst, size_t size, const char *src, size_t src_size)
{
    if (size == 0)
        return;
    size_t n = strnlen(src, src_size);
    if (n > size - 1)
        n = size - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
}

void ip_address_table_remove(struct accounting_node *node)
{
    list_del_init(&node->address_sorting_list);
}

void ip_change_table_remove(struct accounting_node *node)
{
    list_del_init(&node->ip_change_list);
}

void queue_insert_to_tail(struct accounting_node *node, struct list_head *header)
{
    list_move_tail(&node->queue, header);
}

void queue_remove(struct accounting_node *node)
{
    list_del_init(&node->queue);
}

void radius_profile_list_add(struct accounting_node *node)
{
    list_add_tail(&node->radius_profile_list, &node->self->acct_radius->user_node_header);
}

void radius_profile_list_remove(struct accounting_node *node)
{
    list_del_init(&node->radius_profile_list);
}
