// The response thread: a response is matched to its request by Identifier
// alone, verified with the secret of the server the node now uses, and the
// node moves on by the status of the stored request, never of the response.
#include <cstring>

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "delivery/retry.h"
#include "frame/console.h"
#include "radius/radius_send_recieve.h"

namespace {

void handle_response(AUTH_HDR *response)
{
    TRACE("Receive accounting response!! reponse id: %d\n", response->id);
    struct accounting_node *node = find_request(response->id);
    if (!node) {
        TRACE("Accounting Fail!! Response packet ID %d does not match the request packet\n",
              response->id);
        return;
    }
    struct user_accounting_info *self = node->self;
    struct accounting_radius *radius = self->acct_radius;
    radius_server *server =
        self->server == SERVER_PRIMARY ? radius->primary_server : radius->backup_server;
    if (!server) {
        TRACE("RADIUS server terminated by reaching max retry_count, ignore RADIUS response\n");
        return;
    }
    if (verify_packet(server->secret, response, self->request) == -1) {
        TRACE("Accounting FAIL!! Packet from RADIUS server verification fail: The shared secret "
              "is probably incorrect\n");
        return;
    }
    uint32_t status;
    if (radius_msg_get_attr_int32(self->request, RADIUS_ATTR_ACCT_STATUS_TYPE, &status) != 0)
        return;
    TRACE("Receive accounting response!! ACCT_STATUS_TYPE:%d\n", static_cast<int>(status));
    free_accounting_msg(self);

    const char *user_name = self->user ? self->user->user_name : "";
    switch (status) {
    case ACCOUNTING_START:
        insert_node_to_queue(node, QUEUE_TYPE_INTERIM);
        TRACE("Accounting Start. Username: %s, Server IP:%s\n", user_name, server->hostname);
        break;
    case ACCOUNTING_STOP:
        TRACE("Accounting Stop. Username: %s, Server IP:%s\n", user_name, server->hostname);
        free_accounting_node(node);
        break;
    case ACCOUNTING_INTERIM:
        insert_node_to_queue(node, QUEUE_TYPE_INTERIM);
        TRACE("Accounting Interim. Username: %s, Server IP:%s, Interim interval: %d\n", user_name,
              server->hostname, self->acc_interim);
        break;
    case ACCOUNTING_ON:
        radius->on_off_count--;
        TRACE("Accounting on. Server IP:%s\n", server->hostname);
        // A removed profile whose Accounting-Off already ran out of retries
        // is held only by this node: let it go with it.
        if (radius->acct_status == ACCOUNTING_OFF && radius->on_off_count == 0)
            release_radius_profile(node);
        free_accounting_node(node);
        break;
    case ACCOUNTING_OFF:
        TRACE("Accounting off. Server IP:%s\n", server->hostname);
        radius->on_off_count--;
        release_radius_profile(node);
        free_accounting_node(node);
        break;
    default:
        break;
    }
}

}  // namespace

void radius_response_input(AUTH_HDR *response)
{
    pthread_mutex_lock(&mutex);
    handle_response(response);
    pthread_mutex_unlock(&mutex);
}

void *do_response_receive(void *)
{
    // A whole packet record, of which only the first RADIUS_RECV_LEN bytes
    // are ever received into; cleared once, not between datagrams.
    static AUTH_HDR response;
    memset(&response, 0, sizeof response);
    for (;;) {
        if (radius_recv(&response) != 0)
            continue;
        radius_response_input(&response);
    }
    return nullptr;
}
