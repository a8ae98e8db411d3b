// The response thread: a response is matched to its request by Identifier
// alone, verified with the secret of the server the node now uses, and
// handed to the owner with the status of the stored request, never of the
// response.
#include "radius/radius_send_recieve.h"

#include <cstring>

#include "database/profiles.h"
#include "frame/console.h"
#include "radius/client_stats.h"

namespace {

void handle_response(AUTH_HDR *response, const struct radius_datagram *d)
{
    TRACE("Receive accounting response!! reponse id: %d\n", response->id);
    const struct radius_client_ops *owner = radius_client();
    struct accounting_node *node = owner->find(response->id, d ? d->source : 0);
    if (!node && owner->probe_answer(response, d))
        return;
    if (!node) {
        TRACE("Accounting Fail!! Response packet ID %d does not match the request packet\n",
              response->id);
        client_stats_refused(d, response, STATS_DROPPED);
        return;
    }
    const radius_server *server = node_server(node->self);
    if (!server) {
        TRACE("RADIUS server terminated by reaching max retry_count, ignore RADIUS response\n");
        client_stats_refused(d, response, STATS_DROPPED);
        return;
    }
    if (verify_packet(server->secret, response, node->self->request) == -1) {
        TRACE("Accounting FAIL!! Packet from RADIUS server verification fail: The shared secret "
              "is probably incorrect\n");
        client_stats_refused(d, response, STATS_BAD_AUTHENTICATOR);
        return;
    }
    uint32_t status;
    if (radius_msg_get_attr_int32(node->self->request, RADIUS_ATTR_ACCT_STATUS_TYPE, &status) != 0) {
        client_stats_refused(d, response, STATS_DROPPED);
        return;
    }
    TRACE("Receive accounting response!! ACCT_STATUS_TYPE:%d\n", static_cast<int>(status));
    client_stats_answered(d, response, node->self);
    owner->answered(node, status, server);
}

// A datagram that radius_recv refused is counted, and nothing more: the
// design reads again at once.
void count_refused(const struct radius_datagram *d)
{
    if (d->length < 0)
        return;
    pthread_mutex_lock(&mutex);
    client_stats_refused(d, nullptr, STATS_DROPPED);
    pthread_mutex_unlock(&mutex);
}

}  // namespace

void radius_response_input(AUTH_HDR *response, const struct radius_datagram *d)
{
    pthread_mutex_lock(&mutex);
    handle_response(response, d);
    pthread_mutex_unlock(&mutex);
}

void *do_response_receive(void *)
{
    // A whole packet record, of which only the first RADIUS_RECV_LEN bytes
    // are ever received into; cleared once, not between datagrams.
    static AUTH_HDR response;
    memset(&response, 0, sizeof response);
    for (;;) {
        struct radius_datagram d;
        if (radius_recv(&response, &d) != 0) {
            count_refused(&d);
            continue;
        }
        radius_response_input(&response, &d);
    }
    return nullptr;
}
