// Thread 4: logins, driver events and station reports, one select for all.
#include "events/station_events.h"

#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "database/accounting_db_api.h"
#include "database/mac_text.h"
#include "database/nodes.h"
#include "database/profiles.h"
#include "delivery/transaction.h"
#include "events/driver_events.h"
#include "frame/console.h"
#include "frame/domain_socket.h"
#include "frame/meterd.h"

namespace {

// Text fields of a received record end inside their field from here on, so
// that traces and look-ups never run past one.
void terminate_fields(accounting_msg_t *msg)
{
    msg->user_name[sizeof msg->user_name - 1] = '\0';
    msg->calling_station_id[sizeof msg->calling_station_id - 1] = '\0';
    msg->called_station_id[sizeof msg->called_station_id - 1] = '\0';
    msg->interface[sizeof msg->interface - 1] = '\0';
    msg->auth_module[sizeof msg->auth_module - 1] = '\0';
    msg->nas_ip_acct[sizeof msg->nas_ip_acct - 1] = '\0';
    msg->nas_id_acct[sizeof msg->nas_id_acct - 1] = '\0';
    msg->session_id[sizeof msg->session_id - 1] = '\0';
}

const char *or_empty(const char *text)
{
    return text[0] ? text : "(empty)";
}

}  // namespace

int station_login_input(const void *data, size_t len)
{
    accounting_msg_t msg;
    if (len < sizeof msg) {
        TRACE("login record of %zu bytes, %zu expected: dropped\n", len, sizeof msg);
        return 0;
    }
    memcpy(&msg, data, sizeof msg);
    terminate_fields(&msg);
    TRACE("[%s] get accounting_msg_t: user_name=%s, calling_station_id=%s, called_station_id=%s, "
          "interface=%s, auth_module=%s, interim_interval=%d, nas_ip_acct=%s, nas_id_acct=%s\n",
          "do_event_handler_station_on_off", msg.user_name, msg.calling_station_id,
          msg.called_station_id, msg.interface, or_empty(msg.auth_module), msg.interim_interval,
          or_empty(msg.nas_ip_acct), or_empty(msg.nas_id_acct));

    struct accounting_radius *radius = search_radius_by_interface(msg.interface, PROFILE_TYPE_NORMAL);
    if (!radius) {
        TRACE("The login user \"%s\" doesn't need to do accounting.\n", msg.user_name);
        return -1;
    }
    struct accounting_node *node = add_new_node(&msg, radius, PROFILE_TYPE_NORMAL, 1);
    if (!node)
        return 0;
    struct user_node_info *user = node->self->user;
    if (msg.session_id[0]) {
        TRACE("update session-id from radius packet\n");
        copy_text(user->session_id, sizeof user->session_id, msg.session_id);
    }
    TRACE("node's session-id is: %s\n", user->session_id);
    return 0;
}

void station_report_input(const void *data, size_t len)
{
    staStatus_t sta_msg;
    if (len < sizeof sta_msg) {
        TRACE("station report of %zu bytes, %zu expected: dropped\n", len, sizeof sta_msg);
        return;
    }
    memcpy(&sta_msg, data, sizeof sta_msg);
    TRACE("receive ip change socket, ip : %s\n", inet_ntoa(sta_msg.client_ip));
    char mac[MAC_TEXT_SIZE];
    mac_bytes_to_text(mac, sta_msg.mac);

    struct list_head *p;
    list_for_each(p, &ip_change_header) {
        auto *node = list_entry(p, struct accounting_node, ip_change_list);
        struct user_node_info *user = node->self->user;
        if (user->accounting_start != 0 || strcmp(user->user_mac, mac) != 0)
            continue;
        // Start is composed from the stored address, so both come first.
        user->accounting_start = 1;
        user->user_ip = sta_msg.client_ip;
        transaction_begin(node, ACCOUNTING_START);
        ip_change_table_remove(node);
        return;
    }
}

void *do_event_handler_station_on_off(void *)
{
    enum { LOGIN = 0, NETLINK = 1, REPORT = 2 };
    int fd_sock[3];
    struct sockaddr_un addr;
    struct sockaddr_nl local;
    fd_sock[LOGIN] = domain_socket_create(ACCOUNTING_RECV_RADIUS_SOCK, &addr);
    if (fd_sock[LOGIN] < 0) {
        fprintf(stderr, "radius socket create error\n");
        return nullptr;
    }
    fd_sock[NETLINK] = netlink_socket_create(&local);
    if (fd_sock[NETLINK] < 0) {
        fprintf(stderr, "netlink socket create error\n");
        return nullptr;
    }
    fd_sock[REPORT] = domain_socket_create(ACCOUNTING_RECV_WHAL_SOCK, &addr);
    if (fd_sock[REPORT] < 0)
        return nullptr;

    int maxfd = fd_sock[0];
    for (int fd : fd_sock)
        if (fd > maxfd)
            maxfd = fd;
    // One buffer serves all three: each read is handled before the next.
    static_assert(sizeof(accounting_msg_t) >= NETLINK_READ_SIZE, "buffer holds every read");
    unsigned char buf[sizeof(accounting_msg_t)];
    for (;;) {
        fd_set rfds;
        FD_ZERO(&rfds);
        for (int fd : fd_sock)
            FD_SET(fd, &rfds);
        if (select(maxfd + 1, &rfds, nullptr, nullptr, nullptr) < 1)
            continue;

        pthread_mutex_lock(&mutex);
        if (FD_ISSET(fd_sock[LOGIN], &rfds)) {
            TRACE("recieve station assoc event\n");
            ssize_t n = domain_socket_recvfrom(fd_sock[LOGIN], buf, sizeof(accounting_msg_t), &addr);
            // A login with no profile ends the pass; the other sockets
            // stay readable for the next one.
            if (n > 0 && station_login_input(buf, static_cast<size_t>(n)) == -1) {
                pthread_mutex_unlock(&mutex);
                continue;
            }
        }
        if (FD_ISSET(fd_sock[NETLINK], &rfds)) {
            ssize_t n = recvfrom(fd_sock[NETLINK], buf, NETLINK_READ_SIZE, 0, nullptr, nullptr);
            if (n > 0)
                netlink_input(buf, static_cast<size_t>(n));
        }
        if (FD_ISSET(fd_sock[REPORT], &rfds)) {
            ssize_t n = domain_socket_recvfrom(fd_sock[REPORT], buf, sizeof(staStatus_t), &addr);
            if (n > 0)
                station_report_input(buf, static_cast<size_t>(n));
        }
        pthread_mutex_unlock(&mutex);
    }
}
