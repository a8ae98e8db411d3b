// Reading the -T file. Each error stops the reading and is one line that
// says where and what, so that the operator need not guess.
#include "radius/tls_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum { LINE_BYTES = 1024 };

struct reader {
    const char *path;
    char *error;
    size_t error_size;
    unsigned line;  // 0: about the whole file
};

__attribute__((format(printf, 2, 3))) int fail(const reader &r, const char *fmt, ...)
{
    int at = r.line ? snprintf(r.error, r.error_size, "meterd: %s line %u: ", r.path, r.line)
                    : snprintf(r.error, r.error_size, "meterd: %s: ", r.path);
    if (at >= 0 && static_cast<size_t>(at) < r.error_size) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(r.error + at, r.error_size - static_cast<size_t>(at), fmt, ap);
        va_end(ap);
    }
    return -1;
}

inline bool blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Copies the n bytes of text into a field of `size` bytes: false if they do not fit.
bool copy(char *field, size_t size, const char *text, size_t n)
{
    if (n >= size)
        return false;
    memcpy(field, text, n);
    field[n] = '\0';
    return true;
}

enum key_id { CA_FILE, CERTIFICATE_FILE, PRIVATE_KEY_FILE, SERVER_NAME, PORT, TLS_MIN_VERSION, SECRET, KEYS };
const char *const KEY_NAMES[KEYS] = {"ca_file", "certificate_file", "private_key_file", "server_name",
                                     "port", "tls_min_version", "secret"};
const bool REQUIRED[KEYS] = {true, true, true, false, false, false, false};

// Takes one value for key into cfg: 0, or -1 with the error. The secret is
// never repeated in a message.
int set(const reader &r, struct tls_config *cfg, int key, const char *v, size_t n)
{
    switch (key) {
    case CA_FILE:
    case CERTIFICATE_FILE:
    case PRIVATE_KEY_FILE: {
        char *field = key == CA_FILE ? cfg->ca_file : key == CERTIFICATE_FILE ? cfg->certificate_file
                                                                              : cfg->private_key_file;
        if (n == 0 || !copy(field, TLS_CONFIG_PATH, v, n))
            return fail(r, "bad value for %s: a path of 1 to %d bytes", KEY_NAMES[key], TLS_CONFIG_PATH - 1);
        return 0;
    }
    case SERVER_NAME: {
        bool ok = n > 0;
        for (size_t i = 0; i < n; i++)
            ok = ok && ((v[i] >= 'a' && v[i] <= 'z') || (v[i] >= 'A' && v[i] <= 'Z') ||
                        (v[i] >= '0' && v[i] <= '9') || v[i] == '.' || v[i] == '-' || v[i] == ':');
        if (!ok || !copy(cfg->server_name, sizeof cfg->server_name, v, n))
            return fail(r, "bad value for server_name: '%.*s' (a DNS name or an address)",
                        static_cast<int>(n > 64 ? 64 : n), v);
        return 0;
    }
    case PORT: {
        unsigned long port = 0;
        for (size_t i = 0; i < n && port <= 65535; i++)
            port = v[i] >= '0' && v[i] <= '9' ? port * 10 + static_cast<unsigned long>(v[i] - '0') : 65536;
        if (n == 0 || port == 0 || port > 65535)
            return fail(r, "bad value for port: '%.*s' (1 to 65535)", static_cast<int>(n > 64 ? 64 : n), v);
        cfg->port = static_cast<uint16_t>(port);
        return 0;
    }
    case TLS_MIN_VERSION:
        if (n == 3 && (memcmp(v, "1.2", 3) == 0 || memcmp(v, "1.3", 3) == 0)) {
            cfg->min_version = 10 + (v[2] - '0');
            return 0;
        }
        return fail(r, "bad value for tls_min_version: '%.*s' (1.2 or 1.3)", static_cast<int>(n > 64 ? 64 : n), v);
    default:
        if (n == 0 || !copy(cfg->secret, sizeof cfg->secret, v, n))
            return fail(r, "bad value for secret: 1 to %d bytes", TLS_CONFIG_SECRET - 1);
        return 0;
    }
}

// One line: blank, a comment, or `key = value` with an optional comment behind.
int parse_line(const reader &r, struct tls_config *cfg, char *line, unsigned *seen)
{
    char *p = line;
    while (blank(*p))
        p++;
    if (*p == '\0' || *p == '#')
        return 0;
    const char *key = p;
    while (*p && !blank(*p) && *p != '=')
        p++;
    size_t key_len = static_cast<size_t>(p - key);
    int id = 0;
    while (id < KEYS && !(strlen(KEY_NAMES[id]) == key_len && memcmp(KEY_NAMES[id], key, key_len) == 0))
        id++;
    if (id == KEYS)
        return fail(r, "unknown key '%.*s'", static_cast<int>(key_len > 64 ? 64 : key_len), key);
    while (blank(*p))
        p++;
    if (*p++ != '=')
        return fail(r, "'%s' wants '= value'", KEY_NAMES[id]);
    while (blank(*p))
        p++;
    const char *value = p;
    if (*p == '"') {
        value = ++p;
        while (*p && *p != '"')
            p++;
        if (*p != '"')
            return fail(r, "value of '%s' lacks its closing '\"'", KEY_NAMES[id]);
    } else {
        while (*p && !blank(*p) && *p != '#')
            p++;
    }
    size_t value_len = static_cast<size_t>(p - value);
    if (*p == '"')
        p++;
    while (blank(*p))
        p++;
    if (*p && *p != '#')
        return fail(r, "'%s' takes one value", KEY_NAMES[id]);
    if (*seen & 1u << id)
        return fail(r, "'%s' is given twice", KEY_NAMES[id]);
    *seen |= 1u << id;
    return set(r, cfg, id, value, value_len);
}

// The files that the TLS library opens at start-up: readable now, so that a
// mistake is found here, with its line, rather than at the first handshake.
// A key that others may read is no longer a secret of this device.
int check_file(reader r, unsigned line, int key, const char *file)
{
    r.line = line;
    int fd = open(file, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return fail(r, "%s '%s': %s", KEY_NAMES[key], file, strerror(errno));
    struct stat st;
    int err = fstat(fd, &st);
    close(fd);
    if (err == 0 && !S_ISREG(st.st_mode))
        return fail(r, "%s '%s': not a regular file", KEY_NAMES[key], file);
    if (key == PRIVATE_KEY_FILE && (err != 0 || (st.st_mode & 077)))
        return fail(r, "%s '%s' may be read by group or others (mode %04o): chmod 600 it", KEY_NAMES[key], file,
                    static_cast<unsigned>(st.st_mode & 07777));
    return 0;
}

}  // namespace

int tls_config_load(const char *path, struct tls_config *cfg, char *error, size_t error_size)
{
    reader r = {path, error, error_size, 0};
    memset(cfg, 0, sizeof *cfg);
    cfg->port = TLS_DEFAULT_PORT;
    cfg->min_version = 12;
    memcpy(cfg->secret, "radsec", sizeof "radsec");

    FILE *f = fopen(path, "re");
    if (!f)
        return fail(r, "%s", strerror(errno));
    char line[LINE_BYTES];
    unsigned seen = 0, lines[KEYS] = {};
    int result = 0;
    while (result == 0 && fgets(line, sizeof line, f)) {
        r.line++;
        if (!strchr(line, '\n') && !feof(f)) {
            result = fail(r, "longer than %d bytes", LINE_BYTES - 2);
            break;
        }
        unsigned before = seen;
        result = parse_line(r, cfg, line, &seen);
        for (int k = 0; k < KEYS; k++)
            if ((seen ^ before) & 1u << k)
                lines[k] = r.line;
    }
    if (result == 0 && ferror(f))
        result = fail(r, "%s", strerror(errno));
    fclose(f);
    if (result)
        return -1;
    r.line = 0;
    for (int k = 0; k < KEYS; k++)
        if (REQUIRED[k] && !(seen & 1u << k))
            return fail(r, "missing key '%s'", KEY_NAMES[k]);
    const char *files[] = {cfg->ca_file, cfg->certificate_file, cfg->private_key_file};
    for (int k = CA_FILE; k <= PRIVATE_KEY_FILE; k++)
        if (check_file(r, lines[k], k, files[k]))
            return -1;
    return 0;
}
