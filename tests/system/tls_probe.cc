// tls_probe CONFIG ADDRESS [COUNT]: with the TLS building blocks alone (the
// -T file, the library seam, the stream reader and the packet functions),
// connects to ADDRESS on the file's port, sends COUNT Accounting-Requests
// (Start of session tls-probe-N for user probe-N, 1 by default) back to back
// and reads their Accounting-Responses, each verified with the file's secret.
// Prints one line: "ok VERSION CIPHER answered N", or the result's name and
// the reason ("certificate refused: certificate has expired"). Exit 0 if
// every request was answered, 1 for a bad file, 2 otherwise.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "radius/radius_msg.h"
#include "radius/radius_stream.h"
#include "radius/tls.h"
#include "radius/tls_config.h"

namespace {

enum { MAX_COUNT = 256 };

struct probe {
    const char *secret;
    AUTH_HDR requests[MAX_COUNT];
    bool answered[MAX_COUNT];
    int count, good, bad;
} p;

int finish(const char *what, tls_conn *c)
{
    printf("%s: %s\n", what, c ? tls_conn_reason(c) : "");
    return 2;
}

void answer(void *ctx, const uint8_t *pkt, size_t n)
{
    probe *p = static_cast<probe *>(ctx);
    AUTH_HDR response;
    memset(&response, 0, sizeof response);
    memcpy(&response, pkt, n < size_t{RADIUS_RECV_LEN} ? n : size_t{RADIUS_RECV_LEN});
    int id = response.id;
    if (response.code == 5 && id < p->count && !p->answered[id] &&
        verify_packet(p->secret, &response, &p->requests[id]) == 0) {
        p->answered[id] = true;
        p->good++;
    } else {
        p->bad++;
    }
}

void compose(AUTH_HDR *r, int id, const char *secret)
{
    memset(r, 0, sizeof *r);
    r->code = RADIUS_CODE_ACCOUNTING_REQUEST;
    r->id = static_cast<uint8_t>(id);
    r->length = htons(RADIUS_HDR_LEN);
    char user[32], session[32];
    snprintf(user, sizeof user, "probe-%d", id);
    snprintf(session, sizeof session, "tls-probe-%d", id);
    radius_msg_add_attr_int32(r, RADIUS_ATTR_ACCT_STATUS_TYPE, 1);
    radius_msg_add_attr(r, RADIUS_ATTR_USER_NAME, reinterpret_cast<unsigned char *>(user), strlen(user));
    radius_msg_add_attr(r, RADIUS_ATTR_ACCT_SESSION_ID, reinterpret_cast<unsigned char *>(session), strlen(session));
    radius_msg_add_attr_int32(r, RADIUS_ATTR_NAS_IP_ADDRESS, 0x7f000001);
    get_accounting_vector(r, secret);
}

// Waits up to ms for fd to be readable or writable as r asks.
bool wait_for(int fd, tls_result r, int ms)
{
    struct pollfd p = {fd, static_cast<short>(r == TLS_WANT_WRITE ? POLLOUT : POLLIN), 0};
    return poll(&p, 1, ms) > 0;
}

// Handshake, the requests and their answers: 0 when all were answered.
int exchange(tls_conn *c, int fd, const char *secret)
{
    tls_result r = tls_handshake(c, 5000);
    if (r != TLS_OK)
        return finish(tls_result_name(r), c);
    // Back to back, each in a record of its own.
    for (int i = 0; i < p.count; i++) {
        compose(&p.requests[i], i, secret);
        const uint8_t *bytes = reinterpret_cast<uint8_t *>(&p.requests[i]);
        while ((r = tls_write_packet(c, bytes, ntohs(p.requests[i].length))) == TLS_WANT_WRITE)
            wait_for(fd, r, 5000);
        if (r != TLS_OK)
            return finish(tls_result_name(r), c);
    }
    static radius_stream stream;
    radius_stream_reset(&stream);
    uint8_t buf[4096];
    while (p.good + p.bad < p.count) {
        size_t got;
        r = tls_read(c, buf, sizeof buf, &got);
        if (r == TLS_OK) {
            if (radius_stream_input(&stream, buf, got, answer, &p))
                return finish("bad length", nullptr);
        } else if (r != TLS_WANT_READ) {
            return finish(tls_result_name(r), c);
        } else if (!wait_for(fd, r, 5000)) {
            printf("no answer: %d of %d answered\n", p.good, p.count);
            return 2;
        }
    }
    printf("ok %s %s answered %d\n", tls_conn_version(c), tls_conn_cipher(c), p.good);
    return p.good == p.count ? 0 : 2;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: tls_probe CONFIG ADDRESS [COUNT]\n");
        return 1;
    }
    static tls_config cfg;
    char error[TLS_CONFIG_ERROR];
    if (tls_config_load(argv[1], &cfg, error, sizeof error)) {
        fprintf(stderr, "%s\n", error);
        return 1;
    }
    tls_context *ctx = tls_context_new(&cfg, error, sizeof error);
    if (!ctx) {
        fprintf(stderr, "%s\n", error);
        return 1;
    }
    p.secret = cfg.secret;
    p.count = argc > 3 ? atoi(argv[3]) : 1;
    if (p.count < 1 || p.count > MAX_COUNT)
        return 1;

    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(cfg.port);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int result = 2;
    if (inet_pton(AF_INET, argv[2], &to.sin_addr) != 1 || connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to)) {
        printf("no connection: %s\n", strerror(errno));
    } else {
        tls_conn *c = tls_conn_new(ctx, fd, argv[2]);
        result = exchange(c, fd, cfg.secret);
        tls_conn_free(c);
    }
    close(fd);
    tls_context_free(ctx);
    return result;
}
