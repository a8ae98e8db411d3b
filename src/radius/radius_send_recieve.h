// The RADIUS client's traffic: the one UDP socket, the sending of a node's
// request and the response thread. What the client needs to know of the
// requests in flight it asks of their owner, the delivery engine, through
// the functions that owner registers.
//
// Everything expects the caller to hold the global `mutex`, except
// radius_init (before the threads), the thread entry and
// radius_response_input, which take it themselves.
#ifndef METERD_RADIUS_RADIUS_SEND_RECIEVE_H
#define METERD_RADIUS_RADIUS_SEND_RECIEVE_H

#include <netinet/in.h>
#include <sys/types.h>
#include <cstddef>
#include <cstdint>

#include "database/accounting.h"
#include "radius/client_stats.h"
#include "radius/radius_msg.h"

// What the client asks of the owner of the requests. Each runs under `mutex`.
struct radius_client_ops {
    // The node whose stored request waits for the answer with Identifier id
    // on socket `source` (always 0 but with unique Identifiers), or NULL.
    struct accounting_node *(*find)(int id, int source);
    // A verified answer to node's stored request, whose Acct-Status-Type is
    // status, from server.
    void (*answered)(struct accounting_node *node, uint32_t status, const radius_server *server);
    // The station's address for a packet being composed: non-zero with *ip
    // set, else 0 and nothing to send.
    int (*address)(struct accounting_node *node, struct in_addr *ip);
    // The station's byte counters for an Interim-Update being composed.
    void (*counters)(struct accounting_node *node, conn_t *counters);
    // The Identifier of a new packet and its socket (*source), or -1 when
    // none may be taken now.
    int (*take_identifier)(unsigned char *source);
    // Delivery counters: calls each for every request waiting for its answer.
    void (*each_waiting)(void (*each)(const struct user_accounting_info *self));
    // A datagram from `d` (nullptr: unknown sender) that answers no request:
    // 1 if it was the answer to a probe of a dead server, which the owner
    // then handles and counts, else 0. response is the receive buffer.
    int (*probe_answer)(AUTH_HDR *response, const struct radius_datagram *d);
    // A packet of the transport's own (a connection's watchdog) took
    // Identifier id of socket source: no request may take it while its
    // answer may still come.
    void (*hold_identifier)(int source, uint8_t id);
};
// Registered once, before any request is sent or any answer read.
void radius_client_register(const struct radius_client_ops *ops);
// The registered owner.
const struct radius_client_ops *radius_client(void);

extern int sockfd;

// Unique Identifiers only: at most this many sockets (source ports) of 256
// Identifiers each, sockfd the first; tests may lower the limit.
enum { RADIUS_SOURCES = 16 };
extern int radius_source_limit;
// Makes sure that sockets 0..source are open: 0, or -1 (beyond the limit,
// or the system refused one).
int radius_source_open(int source);

// The send seam: every datagram leaves through this function. Tests replace it.
using radius_sendto_fn = ssize_t (*)(int fd, const void *buf, size_t len,
                                     const struct sockaddr_in *to);
extern radius_sendto_fn radius_sendto;

// Opens and binds the socket: 0, or -1 with the message on stderr. With
// several sources (unique Identifiers) the response thread waits on every
// socket that radius_source_open opens.
int radius_init(bool several_sources);
// Sends a packet that no node holds (a probe) to server from socket
// `source`: 0 if the datagram was handed to the system, -1 if not.
int radius_send_packet(radius_server *server, int source, const AUTH_HDR *packet);
// Sends node's stored request, composed first if it holds none, to the
// server that node_server names, from the socket its Identifier belongs to. 0 if the datagram was handed to the
// system, -1 if not.
int send_accounting(struct accounting_node *node, int status);
// 0 if a datagram of 1..1023 bytes now stands in response, else -1. d
// receives the socket it came on, the sender and the size of whatever
// datagram came (the delivery counters'); its length is -1 after a failed
// read.
int radius_recv(AUTH_HDR *response, struct radius_datagram *d);

// One accepted datagram standing in the thread's receive buffer, of which
// only the first RADIUS_RECV_LEN bytes are ever read; a short datagram leaves
// the earlier bytes in place. Matches it to its request, verifies it and
// hands it to the owner. d, its sender and size, is for the delivery
// counters alone; without it the datagram is not counted.
// Takes `mutex` itself for the event.
void radius_response_input(AUTH_HDR *response, const struct radius_datagram *d = nullptr);
void *do_response_receive(void *argv);

#endif
