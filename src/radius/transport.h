// How the RADIUS client's packets reach the servers: UDP datagrams (the
// design's), or RADIUS over TLS on TCP (meterd -T). One transport is chosen
// at start-up, before any thread; the delivery engine and the client call
// its operations and never ask which one it is.
#ifndef METERD_RADIUS_TRANSPORT_H
#define METERD_RADIUS_TRANSPORT_H

#include <netinet/in.h>
#include <sys/types.h>
#include <cstddef>

#include "database/accounting.h"

struct radius_transport {
    // Before any thread: 0, or -1 with the message on stderr.
    int (*init)(bool several_sources);
    // Hands len bytes of a packet for server (resolved to `to`) to the
    // transport, from socket `source`: len, or -1 with errno when nothing
    // will leave. Under `mutex`; never waits on the network.
    ssize_t (*send)(radius_server *server, int source, const void *packet, size_t len,
                    const struct sockaddr_in *to);
    // The thread that receives the answers and hands each to
    // radius_response_input.
    void *(*receive)(void *);
    // self's request went unanswered past its deadline. Under `mutex`.
    void (*timeout)(const struct user_accounting_info *self);
    // Lines for meterctl stats about the transport's connections, appended
    // to out (report_put). Under `mutex`.
    void (*report)(char *out, size_t size, size_t *n);
};

// The transport in use: UDP unless radius_transport_tls chose TLS.
extern const struct radius_transport *radius_transport;

// meterd -T file: reads the file, loads the certificates and makes TLS the
// transport, every server's secret the file's. 0, or -1 with one line for
// stderr in error (also in a build without TLS). Before any thread.
int radius_transport_tls(const char *file, char *error, size_t error_size);

// The receive thread of the transport in use.
void *radius_transport_thread(void *arg);

#endif
