// The response thread: a response is matched to its request by Identifier
// alone, verified with the secret of the server the node now uses, and
// handed to the owner with the status of the stored request, never of the
// response.
#include "radius/radius_send_recieve.h"

#include <cstring>

#include "database/profiles.h"
#include "frame/console.h"

namespace {

void handle_response(AUTH_HDR *response)
{
    TRACE("Receive accounting response!! reponse id: %d\n", response->id);
    const struct radius_client_ops *owner = radius_client();
    struct accounting_node *node = owner->find(response->id);
    if (!node) {
        TRACE("Accounting Fail!! Response packet ID %d does not match the request packet\n",
              response->id);
        return;
    }
    const radius_server *server = node_server(node->self);
    if (!server) {
        TRACE("RADIUS server terminated by reaching max retry_count, ignore RADIUS response\n");
        return;
    }
    if (verify_packet(server->secret, response, node->self->request) == -1) {
        TRACE("Accounting FAIL!! Packet from RADIUS server verification fail: The shared secret "
              "is probably incorrect\n");
        return;
    }
    uint32_t status;
    if (radius_msg_get_attr_int32(node->self->request, RADIUS_ATTR_ACCT_STATUS_TYPE, &status) != 0)
        return;
    TRACE("Receive accounting response!! ACCT_STATUS_TYPE:%d\n", static_cast<int>(status));
    owner->answered(node, status, server);
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
