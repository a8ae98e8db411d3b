// The file that meterd -T names: where the TLS transport finds its CA,
// certificate and key, what name the server must prove, and the rest, in
// FreeRADIUS's words for the same things. `key = value` lines; '#' starts a
// comment; a value may stand in double quotes.
//
//   ca_file          = /etc/meterd/ca.pem       required
//   certificate_file = /etc/meterd/client.pem   required
//   private_key_file = /etc/meterd/client.key   required, not readable by group or others
//   server_name      = radius.example.net       else the server's address must be in the certificate
//   port             = 2083
//   tls_min_version  = 1.2                      or 1.3
//   secret           = radsec
//
// Plain C, no TLS library: it is read and checked in every build.
#ifndef METERD_RADIUS_TLS_CONFIG_H
#define METERD_RADIUS_TLS_CONFIG_H

#include <cstddef>
#include <cstdint>

enum {
    TLS_CONFIG_PATH = 256,    // longest path + 1
    TLS_CONFIG_NAME = 254,    // longest DNS name + 1
    TLS_CONFIG_SECRET = 65,   // as a profile's secret
    TLS_CONFIG_ERROR = 600,   // room for one error line
    TLS_DEFAULT_PORT = 2083,  // RFC 6614
};

struct tls_config {
    char ca_file[TLS_CONFIG_PATH];
    char certificate_file[TLS_CONFIG_PATH];
    char private_key_file[TLS_CONFIG_PATH];
    char server_name[TLS_CONFIG_NAME];  // "" when not given
    uint16_t port;
    int min_version;  // 12 or 13: TLS 1.2 or 1.3
    char secret[TLS_CONFIG_SECRET];
};

// Reads and checks the file at path into *cfg: 0, or -1 with one line (no
// newline) in error, for stderr, naming the file and the line where there is one.
// The certificate and CA files must be readable; the key file as well, and
// no more than by its owner. Nothing of the secret or the key ends in error.
int tls_config_load(const char *path, struct tls_config *cfg, char *error, size_t error_size);

#endif
