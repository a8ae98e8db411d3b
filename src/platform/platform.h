// The device under the daemon: what the access point's own libraries offer.
// The `sim` backend implements these over files in /tmp/devsim; the `device`
// backend links the real libraries, which define the same symbols.
#ifndef METERD_PLATFORM_PLATFORM_H
#define METERD_PLATFORM_PLATFORM_H

#include <cstdint>

extern "C" {

// Device-kit library: the operating mode (WHOPMODE_*).
int merra_wlan_get_hybridmode(void);

// Common radio library: the device MAC as text of at most len bytes, maybe
// ending in a line feed.
int rrm_get_common_mac(char *buf, int len);

// Closed parser library: function table of a module.
enum parser_role { PARSER_CLI = 0, PARSER_SRV = 1 };
typedef struct parser_module {
    void *handle;
    int (*get_id)(void);
    int (*parser)(void *ctx, const char *buf, int len);
    int (*get_addr)(void *ctx, char *buf, int len);
    void *(*init_sock)(int role);
    int (*handle_tlv)(void *ctx, const void *tlv, int len);
    int (*comm_server)(void *ctx);
    void (*close_sock)(void *client, int flags);
    // Runs the command given as words ended by a null pointer; leaves its
    // answer as terminated text in result (1024 bytes).
    int (*gen_cmd)(void *client, char *result, ...);
} parser_module;
parser_module *parser_open(const char *name);
void parser_close(parser_module *module);

}  // extern "C"

// Netlink protocol of the wireless driver on this backend.
extern const int meterd_netlink_protocol;

#endif
