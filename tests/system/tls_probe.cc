// tls_probe CONFIG ADDRESS [COUNT]: with the TLS building blocks alone (the
// -T file, the library seam, the stream reader and the packet functions),
// connects to ADDRESS on the file's port, sends COUNT Accounting-Requests
// (Start of session tls-probe-N for user probe-N, 1 by default) back to back
// and reads their Accounting-Responses, each verified with the file's secret.
// Prints one line: "ok VERSION CIPHER answered N", or the result's name and
// the reason ("certificate refused: certificate has expired"). Exit 0 if
// every request was answered, 1 for a bad file, 2 otherwise.
#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "radius/radius_msg.h"
#include "radius/radius_stream.h"
#include "radius/tls.h"
#include "radius/tls_config.h"

namespace {

struct probe {
    const char *secret;
    AUTH_HDR requests[256];
    int count, good, bad;
} p;

int finish(const char *what, tls_conn *c)
{
    printf("%s: %s\n", what, c ? tls_conn_reason(c) : "");
    return 2;
}

void answer(void *, const uint8_t *pkt, size_t n)
{
    AUTH_HDR response = {};
    memcpy(&response, pkt, n < size_t{RADIUS_RECV_LEN} ? n : size_t{RADIUS_RECV_LEN});
    bool ok = response.code == 5 && response.id < p.count &&
              verify_packet(p.secret, &response, &p.requests[response.id]) == 0;
    (ok ? p.good : p.bad)++;
}

void compose(AUTH_HDR *r, int id)
{
    *r = AUTH_HDR{};
    r->code = RADIUS_CODE_ACCOUNTING_REQUEST;
    r->id = static_cast<uint8_t>(id);
    r->length = htons(RADIUS_HDR_LEN);
    char text[2][32];
    snprintf(text[0], sizeof text[0], "probe-%d", id);
    snprintf(text[1], sizeof text[1], "tls-probe-%d", id);
    radius_msg_add_attr_int32(r, RADIUS_ATTR_ACCT_STATUS_TYPE, 1);
    radius_msg_add_attr(r, RADIUS_ATTR_USER_NAME, reinterpret_cast<unsigned char *>(text[0]), strlen(text[0]));
    radius_msg_add_attr(r, RADIUS_ATTR_ACCT_SESSION_ID, reinterpret_cast<unsigned char *>(text[1]), strlen(text[1]));
    radius_msg_add_attr_int32(r, RADIUS_ATTR_NAS_IP_ADDRESS, 0x7f000001);
    get_accounting_vector(r, p.secret);
}

// Waits up to 5 s for fd to be readable or writable as r asks.
bool wait_for(int fd, tls_result r)
{
    struct pollfd want = {fd, static_cast<short>(r == TLS_WANT_WRITE ? POLLOUT : POLLIN), 0};
    return poll(&want, 1, 5000) > 0;
}

// Handshake, the requests and their answers: 0 when all were answered.
int exchange(tls_conn *c, int fd)
{
    tls_result r = tls_handshake(c, 5000);
    // Back to back, each in a record of its own.
    for (int i = 0; r == TLS_OK && i < p.count; i++) {
        compose(&p.requests[i], i);
        while ((r = tls_write_packet(c, reinterpret_cast<uint8_t *>(&p.requests[i]), ntohs(p.requests[i].length))) ==
               TLS_WANT_WRITE)
            wait_for(fd, r);
    }
    static radius_stream stream;
    uint8_t buf[4096];
    while (r == TLS_OK && p.good + p.bad < p.count) {
        size_t got;
        r = tls_read(c, buf, sizeof buf, &got);
        if (r == TLS_OK && radius_stream_input(&stream, buf, got, answer, nullptr))
            return finish("bad length", nullptr);
        if (r == TLS_WANT_READ && !wait_for(fd, r)) {
            printf("no answer: %d of %d answered\n", p.good, p.count);
            return 2;
        }
        r = r == TLS_WANT_READ ? TLS_OK : r;
    }
    if (r != TLS_OK)
        return finish(tls_result_name(r), c);
    printf("ok %s %s answered %d\n", tls_conn_version(c), tls_conn_cipher(c), p.good);
    return p.good == p.count ? 0 : 2;
}

}  // namespace

int main(int argc, char **argv)
{
    static tls_config cfg;
    char error[TLS_CONFIG_ERROR] = "usage: tls_probe CONFIG ADDRESS [COUNT]";
    tls_context *ctx = nullptr;
    p.count = argc > 3 ? atoi(argv[3]) : 1;
    if (argc < 3 || p.count < 1 || p.count > 256 || tls_config_load(argv[1], &cfg, error, sizeof error) ||
        !(ctx = tls_context_new(&cfg, error, sizeof error))) {
        fprintf(stderr, "%s\n", error);
        return 1;
    }
    p.secret = cfg.secret;
    struct sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(cfg.port);
    int fd = socket(AF_INET, SOCK_STREAM, 0), result = 2;
    if (inet_pton(AF_INET, argv[2], &to.sin_addr) != 1 || connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to)) {
        perror("no connection");
    } else {
        tls_conn *c = tls_conn_new(ctx, fd, argv[2]);
        result = exchange(c, fd);
        tls_conn_free(c);
    }
    close(fd);
    tls_context_free(ctx);
    return result;
}
