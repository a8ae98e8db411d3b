// The TLS interface on OpenSSL 3. Every call of the library is in this file.
//
// The socket is read and written through a BIO of our own rather than
// OpenSSL's socket BIO, whose write() would raise SIGPIPE in the daemon when
// a server resets the connection: send() with MSG_NOSIGNAL turns that into
// an error of this connection alone.
#include "radius/tls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame/memory.h"

struct tls_context {
    SSL_CTX *ctx;
    char server_name[TLS_CONFIG_NAME];
};

struct tls_conn {
    SSL *ssl;
    int fd;
    bool up;      // the handshake is done
    bool broken;  // a fatal error: no close_notify may follow
    bool asked;   // the server asked for our certificate
    bool heard;   // a byte of the server's came through TLS
    char reason[160];
};

namespace {

// --- the socket BIO -------------------------------------------------------

int socket_of(BIO *b) { return static_cast<tls_conn *>(BIO_get_data(b))->fd; }

bool again(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

int bio_write(BIO *b, const char *buf, int len)
{
    BIO_clear_retry_flags(b);
    ssize_t n = send(socket_of(b), buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (n < 0 && again(errno))
        BIO_set_retry_write(b);
    return static_cast<int>(n);
}

int bio_read(BIO *b, char *buf, int len)
{
    BIO_clear_retry_flags(b);
    ssize_t n = recv(socket_of(b), buf, static_cast<size_t>(len), 0);
    if (n < 0 && again(errno))
        BIO_set_retry_read(b);
    return static_cast<int>(n);
}

long bio_ctrl(BIO *, int cmd, long, void *) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

int bio_create(BIO *b)
{
    BIO_set_init(b, 1);
    return 1;
}

BIO_METHOD *socket_method;

// --- results --------------------------------------------------------------

void set_reason(tls_conn *c, const char *text)
{
    snprintf(c->reason, sizeof c->reason, "%s", text);
}

// What the library's error queue says, as the reason of c.
void reason_from_queue(tls_conn *c, const char *otherwise)
{
    unsigned long e = ERR_peek_last_error();
    const char *text = e ? ERR_reason_error_string(e) : nullptr;
    set_reason(c, text ? text : otherwise);
}

// The result of a failed call (ret <= 0) of the library on c.
tls_result classify(tls_conn *c, int ret)
{
    int e = SSL_get_error(c->ssl, ret);
    if (e == SSL_ERROR_WANT_READ)
        return TLS_WANT_READ;
    if (e == SSL_ERROR_WANT_WRITE)
        return TLS_WANT_WRITE;
    if (e == SSL_ERROR_ZERO_RETURN) {
        set_reason(c, "closed by the server");
        return TLS_CLOSED;
    }
    c->broken = true;
    long verify = SSL_get_verify_result(c->ssl);
    if (!c->up && verify != X509_V_OK) {
        set_reason(c, X509_verify_cert_error_string(verify));
        ERR_clear_error();
        return TLS_CERT_REFUSED;
    }
    unsigned long err = ERR_peek_last_error();
    tls_result result = c->up ? TLS_CLOSED : TLS_FAILED;
    bool ended = false;
    if (e == SSL_ERROR_SYSCALL && !err) {
        // The TCP connection ended or failed under TLS.
        set_reason(c, errno ? strerror(errno) : "connection closed");
        ended = true;
    } else if (ERR_GET_LIB(err) == ERR_LIB_SSL && ERR_GET_REASON(err) >= SSL_AD_REASON_OFFSET) {
        // An alert from the server.
        reason_from_queue(c, "alert");
        result = TLS_PEER_REFUSED;
    } else if (ERR_GET_LIB(err) == ERR_LIB_SSL && ERR_GET_REASON(err) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        set_reason(c, "closed without close_notify");
        ended = true;
    } else {
        reason_from_queue(c, "TLS error");
    }
    // A server that asked for our certificate and then hung up before a
    // word of its own refused the certificate. FreeRADIUS 3.2 does so
    // without its alert ever reaching us, and with TLS 1.3 only after our
    // side of the handshake is done: at the first write or read.
    if (ended && c->asked && !c->heard) {
        set_reason(c, "closed after asking for our certificate");
        result = TLS_PEER_REFUSED;
    }
    ERR_clear_error();
    return result;
}

long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

// Called on a client when the server asks for its certificate.
int certificate_asked(SSL *ssl, void *)
{
    static_cast<tls_conn *>(SSL_get_app_data(ssl))->asked = true;
    return 1;
}

// An encrypted key would make the library ask on the terminal: refuse it.
int no_password(char *, int, int, void *) { return 0; }

bool is_address(const char *text)
{
    unsigned char any[16];
    return inet_pton(AF_INET, text, any) == 1 || inet_pton(AF_INET6, text, any) == 1;
}

}  // namespace

struct tls_context *tls_context_new(const struct tls_config *cfg, char *error, size_t error_size)
{
    if (!socket_method) {
        socket_method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "meterd socket");
        if (!socket_method || !BIO_meth_set_write(socket_method, bio_write) ||
            !BIO_meth_set_read(socket_method, bio_read) || !BIO_meth_set_ctrl(socket_method, bio_ctrl) ||
            !BIO_meth_set_create(socket_method, bio_create)) {
            snprintf(error, error_size, "meterd: TLS: out of memory");
            return nullptr;
        }
    }
    tls_context *t = static_cast<tls_context *>(mtr_calloc(1, sizeof *t));
    SSL_CTX *ctx = t ? SSL_CTX_new(TLS_client_method()) : nullptr;
    const char *what = "out of memory", *file = "";
    if (ctx) {
        SSL_CTX_set_default_passwd_cb(ctx, no_password);
        // Up to TLS 1.3, the library's highest, which it prefers.
        SSL_CTX_set_min_proto_version(ctx, cfg->min_version == 13 ? TLS1_3_VERSION : TLS1_2_VERSION);
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_cert_cb(ctx, certificate_asked, nullptr);
        SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        if (SSL_CTX_load_verify_locations(ctx, cfg->ca_file, nullptr) != 1)
            what = "ca_file", file = cfg->ca_file;
        else if (SSL_CTX_use_certificate_chain_file(ctx, cfg->certificate_file) != 1)
            what = "certificate_file", file = cfg->certificate_file;
        else if (SSL_CTX_use_PrivateKey_file(ctx, cfg->private_key_file, SSL_FILETYPE_PEM) != 1 ||
                 SSL_CTX_check_private_key(ctx) != 1)
            what = "private_key_file", file = cfg->private_key_file;
        else
            what = nullptr;
    }
    if (what) {
        unsigned long e = ERR_peek_last_error();
        const char *reason = e ? ERR_reason_error_string(e) : nullptr;
        snprintf(error, error_size, "meterd: TLS: %s '%s': %s", what, file, reason ? reason : "refused");
        ERR_clear_error();
        SSL_CTX_free(ctx);
        mtr_free(t);
        return nullptr;
    }
    t->ctx = ctx;
    memcpy(t->server_name, cfg->server_name, sizeof t->server_name);
    return t;
}

void tls_context_free(struct tls_context *t)
{
    if (t) {
        SSL_CTX_free(t->ctx);
        mtr_free(t);
    }
}

struct tls_conn *tls_conn_new(struct tls_context *t, int fd, const char *address)
{
    tls_conn *c = static_cast<tls_conn *>(mtr_calloc(1, sizeof *c));
    if (!c)
        return nullptr;
    c->fd = fd;
    c->ssl = SSL_new(t->ctx);
    BIO *bio = c->ssl ? BIO_new(socket_method) : nullptr;
    if (!bio) {
        SSL_free(c->ssl);
        mtr_free(c);
        ERR_clear_error();
        return nullptr;
    }
    BIO_set_data(bio, c);
    SSL_set_app_data(c->ssl, c);
    SSL_set_bio(c->ssl, bio, bio);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);

    // The name the certificate must carry: server_name, else the address
    // the profile names. A DNS name goes to the server as SNI as well.
    const char *expected = t->server_name[0] ? t->server_name : address;
    X509_VERIFY_PARAM *param = SSL_get0_param(c->ssl);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    int ok = is_address(expected) ? X509_VERIFY_PARAM_set1_ip_asc(param, expected)
                                  : X509_VERIFY_PARAM_set1_host(param, expected, 0) &&
                                        SSL_set_tlsext_host_name(c->ssl, expected);
    if (!ok) {
        tls_conn_free(c);
        ERR_clear_error();
        return nullptr;
    }
    SSL_set_connect_state(c->ssl);
    return c;
}

void tls_conn_free(struct tls_conn *c)
{
    if (!c)
        return;
    if (c->up && !c->broken)
        SSL_shutdown(c->ssl);
    SSL_free(c->ssl);
    ERR_clear_error();
    mtr_free(c);
}

enum tls_result tls_handshake(struct tls_conn *c, int timeout_ms)
{
    long deadline = now_ms() + timeout_ms;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        int ret = SSL_connect(c->ssl);
        if (ret == 1) {
            c->up = true;
            c->reason[0] = '\0';
            return TLS_OK;
        }
        tls_result r = classify(c, ret);
        if ((r != TLS_WANT_READ && r != TLS_WANT_WRITE) || timeout_ms <= 0)
            return r;
        long left = deadline - now_ms();
        struct pollfd p = {c->fd, static_cast<short>(r == TLS_WANT_READ ? POLLIN : POLLOUT), 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) == 0) {
            set_reason(c, "handshake timed out");
            return TLS_TIMEOUT;
        }
    }
}

enum tls_result tls_write_packet(struct tls_conn *c, const uint8_t *pkt, size_t n)
{
    // One SSL_write of at most a record's worth is one record: partial
    // writes stay off, so a retry after TLS_WANT_WRITE finishes that record.
    if (!c->up || c->broken || n == 0 || n > 4096) {
        set_reason(c, "not a packet for this connection");
        return TLS_FAILED;
    }
    ERR_clear_error();
    errno = 0;
    int ret = SSL_write(c->ssl, pkt, static_cast<int>(n));
    return ret > 0 ? TLS_OK : classify(c, ret);
}

enum tls_result tls_read(struct tls_conn *c, uint8_t *buf, size_t size, size_t *got)
{
    *got = 0;
    if (!c->up || c->broken)
        return TLS_CLOSED;
    ERR_clear_error();
    errno = 0;
    int ret = SSL_read(c->ssl, buf, static_cast<int>(size > 1 << 30 ? 1 << 30 : size));
    if (ret > 0) {
        c->heard = true;
        *got = static_cast<size_t>(ret);
        return TLS_OK;
    }
    return classify(c, ret);
}

const char *tls_conn_version(const struct tls_conn *c) { return c->up ? SSL_get_version(c->ssl) : ""; }

const char *tls_conn_cipher(const struct tls_conn *c)
{
    const char *name = c->up ? SSL_get_cipher_name(c->ssl) : nullptr;
    return name ? name : "";
}

const char *tls_conn_reason(const struct tls_conn *c) { return c->reason; }

const char *tls_result_name(enum tls_result r)
{
    static const char *const names[] = {"ok", "want read", "want write", "closed", "certificate refused",
                                        "refused by the server", "timed out", "failed"};
    return r >= TLS_OK && r <= TLS_FAILED ? names[r] : "?";
}
