// Unix datagram sockets, the transport of every local peer: the control
// shell, the portal profiles, the authenticator and the wireless HAL.
#ifndef METERD_FRAME_DOMAIN_SOCKET_H
#define METERD_FRAME_DOMAIN_SOCKET_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>

// A bound Unix datagram socket: the descriptor, -1 if no socket could be
// made, -2 if it could not be bound. A file left by an earlier run is
// unlinked first; the new one has mode 0600 whatever the umask. addr is
// filled in for the caller.
int domain_socket_create(const char *domain_sock_file, struct sockaddr_un *addr);
// recvfrom without flags, the address length set afresh for each call.
ssize_t domain_socket_recvfrom(int sockfd, void *msg, size_t msglen, struct sockaddr_un *src_addr);
// The sender of a datagram and the socket it came in on, for an event that
// answers (the delivery counters).
struct domain_socket_peer {
    int fd;
    struct sockaddr_un addr;
    socklen_t addr_len;
};
// A channel thread's life: binds path, clears the thread's record rec once,
// then for ever receives each datagram of at most size bytes into buf and
// hands it to input with rec, the received length and its sender. A failed
// receive is reported on stderr under the name thread and passed over,
// without the lock. Returns only when the socket cannot be set up.
void domain_socket_serve(const char *path, void *rec, void *buf, size_t size, const char *thread,
                         void (*input)(void *rec, const void *data, size_t len,
                                       const struct domain_socket_peer *from));
// Sends msg to the peer without waiting: a peer that is not reading, or that
// has no address, gets nothing. 0 if it went, else -1.
int domain_socket_reply(const struct domain_socket_peer *to, const void *msg, size_t len);

#endif
