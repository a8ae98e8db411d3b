// Unix datagram sockets, shared by the threads of the local peers.
#include "frame/domain_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int domain_socket_create(const char *domain_sock_file, struct sockaddr_un *addr)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0)
        return -1;
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    snprintf(addr->sun_path, sizeof addr->sun_path, "%s", domain_sock_file);
    unlink(domain_sock_file);
    // Whoever may write the socket file may send us events, and the daemon
    // runs as root: the file is root's alone whatever umask we were started
    // with. Linux makes the file bind() creates with the mode of the
    // socket's own inode (less the umask), so setting that first leaves no
    // moment in which others may connect, as a chmod() after bind() would.
    // A umask is process-wide: around bind() it would race with the other
    // threads binding theirs; set once at start-up it would also close to
    // their peers the files the device's libraries make.
    if (fchmod(fd, S_IRUSR | S_IWUSR) != 0) {
        close(fd);
        return -1;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr *>(addr), sizeof *addr) < 0) {
        close(fd);
        return -2;
    }
    return fd;
}

ssize_t domain_socket_recvfrom(int sockfd, void *msg, size_t msglen, struct sockaddr_un *src_addr)
{
    socklen_t addrlen = sizeof *src_addr;
    return recvfrom(sockfd, msg, msglen, 0, reinterpret_cast<struct sockaddr *>(src_addr), &addrlen);
}

void domain_socket_serve(const char *path, void *rec, void *buf, size_t size, const char *thread,
                         void (*input)(void *rec, const void *data, size_t len,
                                       const struct domain_socket_peer *from))
{
    struct sockaddr_un addr;
    int fd = domain_socket_create(path, &addr);
    if (fd < 0)
        return;
    // Cleared once, so that a short first datagram reads zeros rather than
    // whatever the stack held; later datagrams keep the documented carry-over.
    memset(rec, 0, size);
    for (;;) {
        // The address's own length: an abstract or unnamed sender's address
        // is shorter than the record.
        struct domain_socket_peer from;
        from.fd = fd;
        from.addr_len = sizeof from.addr;
        ssize_t n = recvfrom(fd, buf, size, 0, reinterpret_cast<struct sockaddr *>(&from.addr),
                             &from.addr_len);
        if (n == -1) {
            fprintf(stderr, "%s-%s-%d: msgrcv fail!!\n", "accounting", thread, __LINE__);
            fprintf(stderr, "size: %zu\n", size);
            perror("msgrcv");
            continue;
        }
        input(rec, buf, static_cast<size_t>(n), &from);
    }
}

int domain_socket_reply(const struct domain_socket_peer *to, const void *msg, size_t len)
{
    ssize_t sent = sendto(to->fd, msg, len, MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const struct sockaddr *>(&to->addr), to->addr_len);
    return sent == static_cast<ssize_t>(len) ? 0 : -1;
}
