// The simulated UAM client library: each datagram on <sim_root>/uam.sock is
// one event record, as the UAM service would hand it over.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "platform/sim/sim.h"

namespace {

// The daemon opens one handle for its life.
struct uam_handle sim_handle;

}  // namespace

extern "C" struct uam_handle *uam_create_handle(int)
{
    char path[sizeof(sockaddr_un::sun_path)];
    const char *root = sim_root.c_str();
    if (snprintf(path, sizeof path, "%s/uam.sock", root) >= static_cast<int>(sizeof path))
        return nullptr;
    mkdir(root, 0755);  // an existing directory is what we want
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0)
        return nullptr;
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path, strlen(path));
    unlink(path);  // left by an earlier run
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) < 0) {
        close(fd);
        return nullptr;
    }
    sim_handle.fd = fd;
    sim_handle.mode = 0;
    return &sim_handle;
}

extern "C" int uam_set_mode(struct uam_handle *h, int mode)
{
    if (!h || mode != 1)
        return -1;
    h->mode = static_cast<u_int8_t>(mode);
    return 0;
}

extern "C" int uam_read_event(struct uam_handle *h, struct uam_event *e, int timeout)
{
    struct pollfd p;
    p.fd = h->fd;
    p.events = POLLIN;
    p.revents = 0;
    int ms = timeout < 0 ? -1 : timeout / 1000;
    int ready = poll(&p, 1, ms);
    if (ready <= 0)
        return ready;
    memset(e, 0, sizeof *e);
    // A datagram longer than the record is cut; a shorter one reads as zeros
    // behind its end.
    ssize_t n = recv(h->fd, e, sizeof *e, 0);
    if (n < 0)
        return -1;
    return n > 0 ? static_cast<int>(n) : 1;
}
