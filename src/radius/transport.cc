// The daemon's one UDP socket: every request to every server leaves through
// it and every response comes in on it. With unique Identifiers more
// sockets may follow, each a source port with 256 Identifiers of its own.
// This is the UDP transport; the requests leave through the transport in
// use, which is this one unless meterd -T chose TLS.
#include "radius/radius_send_recieve.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "database/nodes.h"
#include "database/profiles.h"
#include "frame/console.h"
#include "radius/client_stats.h"
#include "radius/compose.h"
#include "radius/transport.h"

int sockfd = -1;
int radius_source_limit = RADIUS_SOURCES;

namespace {

// Source 0 is sockfd. The others open under `mutex` when a request first
// needs them and stay open; the response thread reads them without it.
std::atomic<int> source_fds[RADIUS_SOURCES];
int sources_open = 1;
int readable = -1;  // epoll set of every open source, unique Identifiers only

int bind_any(int fd)
{
    struct sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = 0;
    return bind(fd, reinterpret_cast<struct sockaddr *>(&local), sizeof local);
}

int watch(int source)
{
    struct epoll_event ev;
    memset(&ev, 0, sizeof ev);
    ev.events = EPOLLIN;
    ev.data.u32 = static_cast<uint32_t>(source);
    return epoll_ctl(readable, EPOLL_CTL_ADD, source_fds[source], &ev);
}

ssize_t system_sendto(int fd, const void *buf, size_t len, const struct sockaddr_in *to)
{
    return sendto(fd, buf, len, 0, reinterpret_cast<const struct sockaddr *>(to), sizeof *to);
}

// Resolved before every send, so a server whose address changes is followed
// without any event. On failure acct_ip keeps its last good value.
int host2server(radius_server *server)
{
    if (inet_aton(server->hostname, &server->acct_ip))
        return 0;
    struct hostent *h = gethostbyname(server->hostname);
    if (h && h->h_addrtype == AF_INET && h->h_addr_list[0]) {
        memcpy(&server->acct_ip, h->h_addr_list[0], sizeof server->acct_ip);
        return 0;
    }
    return -1;
}

// Where a datagram to server goes, its name resolved anew.
void address_of(radius_server *server, struct sockaddr_in *to)
{
    host2server(server);
    memset(to, 0, sizeof *to);
    to->sin_family = AF_INET;
    to->sin_addr = server->acct_ip;
    to->sin_port = htons(static_cast<uint16_t>(server->acct_port));
}

int source_fd(int source)
{
    return source > 0 && source < RADIUS_SOURCES ? source_fds[source].load() : sockfd;
}

ssize_t udp_send(radius_server *, int source, const void *packet, size_t len, const struct sockaddr_in *to)
{
    return radius_sendto(source_fd(source), packet, len, to);
}

// Datagrams need no connection: nothing to close at a time-out, nothing to report.
void udp_timeout(const struct user_accounting_info *) {}
void udp_report(char *, size_t, size_t *) {}

const struct radius_transport udp = {radius_init, udp_send, do_response_receive, udp_timeout, udp_report};

}  // namespace

radius_sendto_fn radius_sendto = system_sendto;
const struct radius_transport *radius_transport = &udp;

void *radius_transport_thread(void *arg)
{
    return radius_transport->receive(arg);
}

#ifndef METERD_TLS
int radius_transport_tls(const char *, char *error, size_t error_size)
{
    snprintf(error, error_size, "meterd: -T: this meterd is built without RADIUS over TLS");
    return -1;
}
#endif

int radius_init(bool several_sources)
{
    sockfd = socket(AF_INET, SOCK_DGRAM, 0);
    if (bind_any(sockfd) < 0) {
        if (sockfd >= 0)
            close(sockfd);
        fprintf(stderr, "No open port we could bind to.\n");
        return -1;
    }
    source_fds[0] = sockfd;
    if (several_sources) {
        readable = epoll_create1(EPOLL_CLOEXEC);
        if (readable < 0 || watch(0) < 0) {
            fprintf(stderr, "No open port we could bind to.\n");
            return -1;
        }
    }
    return 0;
}

int radius_source_open(int source)
{
    if (source == 0)
        return 0;
    if (source >= radius_source_limit)
        return -1;
    for (int k = sources_open; k <= source; k++) {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && bind_any(fd) == 0) {
            source_fds[k] = fd;
            // Unit tests send through the seam and have no response thread.
            if (readable < 0 || watch(k) == 0) {
                sources_open = k + 1;
                TRACE("source port %d opened for Identifiers\n", k);
                continue;
            }
        }
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return 0;
}

int send_accounting(struct accounting_node *node, int status)
{
    struct user_accounting_info *self = node->self;
    radius_server *server = node_server(self);
    if (server && self->server == SERVER_PRIMARY)
        TRACE("srv host name is: %s\n", server->hostname);
    else if (server)
        TRACE("backup srv name is: %s\n", server->hostname);
    if (!server) {
        TRACE_AT("radius_send_recieve", __func__, "internal error, miss radius server\n");
        return -1;
    }

    struct sockaddr_in to;
    address_of(server, &to);
    TRACE("send port:%d, %d \n", to.sin_port, server->acct_port);

    if (!self->request) {
        TRACE("gen accounting msg.\n");
        // -1: no memory; 1: no Identifier free, so nothing leaves.
        if (accounting_msg(node, status) != 0)
            return -1;
        TRACE("request addr: %p\n", static_cast<void *>(self->request));
    }
    AUTH_HDR *request = self->request;
    size_t length = ntohs(request->length);
    TRACE("request code: %d, length: %d\n", request->code, static_cast<int>(length));
    // A name that has never resolved leaves 0.0.0.0, which the system would
    // take for this host: such a packet is lost rather than sent there.
    ssize_t sent = -1;
    errno = EDESTADDRREQ;
    if (to.sin_addr.s_addr != htonl(INADDR_ANY))
        sent = radius_transport->send(server, self->source, request, length, &to);
    if (sent < 0) {
        int err = errno;
        // Nowhere reached: its time-out is no server's.
        self->sent_to = 0;
        TRACE("accounting send fail.\n");
        TRACE("%s\n", strerror(err));
        return -1;
    }
    client_stats_sent(self, &to);
    return 0;
}

int radius_send_packet(radius_server *server, int source, const AUTH_HDR *packet)
{
    struct sockaddr_in to;
    address_of(server, &to);
    if (to.sin_addr.s_addr == htonl(INADDR_ANY))
        return -1;
    return radius_transport->send(server, source, packet, ntohs(packet->length), &to) < 0 ? -1 : 0;
}

int radius_recv(AUTH_HDR *response, struct radius_datagram *d)
{
    socklen_t from_len = sizeof d->from;
    int fd = sockfd;
    d->source = 0;
    if (readable >= 0) {
        // Level-triggered: one datagram of one ready source per call.
        struct epoll_event ev;
        while (epoll_wait(readable, &ev, 1, -1) != 1)
            ;
        d->source = static_cast<int>(ev.data.u32);
        fd = source_fds[d->source];
    }
    ssize_t n = recvfrom(fd, response, RADIUS_RECV_LEN, 0,
                         reinterpret_cast<struct sockaddr *>(&d->from), &from_len);
    d->length = n;
    return (n >= 1 && n <= RADIUS_RECV_LEN - 1) ? 0 : -1;
}
