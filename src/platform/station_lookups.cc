// Station look-ups: the address through the device shell, the byte counters
// through the statistics database.
#include "platform/station_lookups.h"

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/console.h"
#include "platform/platform.h"

int whal_getip(const char *stamac, struct in_addr *ip)
{
    // Cleared first, so that every failure leaves 0.0.0.0 in the caller's record.
    ip->s_addr = 0;

    char cmd[128];
    memset(cmd, 0, sizeof cmd);
    if (!shell_safe_mac(stamac))
        return 0;
    int n = snprintf(cmd, sizeof cmd,
                     "ovat -p 100 -e 'show wireless-hal station non-real-time %s' | grep -e "
                     "'IPv4:' | awk '{print $2}'",
                     stamac);
    if (n < 0 || static_cast<size_t>(n) >= sizeof cmd)
        return 0;

    FILE *pipe = popen(cmd, "r");
    if (!pipe)
        return 0;

    char line[32];
    memset(line, 0, sizeof line);
    if (!fgets(line, sizeof line, pipe)) {
        pclose(pipe);
        return 0;
    }
    for (char &c : line)
        if (c == '\n')
            c = '\0';

    int ok = inet_aton(line, ip);
    if (ok) {
        TRACE("STA IP:%s\n", line);
    } else {
        ip->s_addr = 0;
        TRACE("STA IP invaild:(%s)\n", line);
    }
    pclose(pipe);
    return ok;
}

bool shell_safe_mac(const char *mac)
{
    for (const char *p = mac; *p; p++) {
        char c = *p;
        bool ok = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                  c == '-' || c == ':';
        if (!ok)
            return false;
    }
    return true;
}

uint64_t counter_from_text(const char *text)
{
    // atoi's reading (leading blanks, sign, digits up to the first
    // non-digit), but a number beyond int reads as 0 instead of being
    // undefined, and so does one below 1.
    errno = 0;
    long v = strtol(text, nullptr, 10);
    if (errno == ERANGE || v > INT_MAX || v <= 0)
        return 0;
    return static_cast<uint64_t>(v);
}

int get_connection_status_by_ip(const char *user_mac, conn_t *status)
{
    return station_counters(user_mac, status, counter_from_text);
}

int station_counters(const char *user_mac, conn_t *status, uint64_t (*read)(const char *text))
{
    char mac_str[18];
    char rrm_table_name[64];
    char msg[1024];
    char rx_char[128];
    char tx_char[128];
    memset(mac_str, 0, sizeof mac_str);
    memset(rrm_table_name, 0, sizeof rrm_table_name);
    memset(msg, 0, sizeof msg);
    memset(rx_char, 0, sizeof rx_char);
    memset(tx_char, 0, sizeof tx_char);

    rrm_get_common_mac(mac_str, sizeof mac_str);
    mac_str[sizeof mac_str - 1] = '\0';

    status->rx = 0;
    status->tx = 0;

    // Opened and closed by each look-up, so that look-ups may run at once.
    parser_module *module = parser_open("dbcmd");
    if (!module)
        return 0;
    void *client = module->init_sock ? module->init_sock(PARSER_CLI) : nullptr;
    if (!client) {
        parser_close(module);
        return 0;
    }

    // The table is the device's, named by the device's MAC; the station is
    // the key inside it.
    snprintf(rrm_table_name, sizeof rrm_table_name, "%s-%s", "STA_STATISTIC", mac_str);

    char *const none = nullptr;
    module->gen_cmd(client, msg, "dbctl", "-t", rrm_table_name, "-k", user_mac, "-g", "RX", none);
    msg[sizeof msg - 1] = '\0';
    copy_text(rx_char, sizeof rx_char, msg);
    module->gen_cmd(client, msg, "dbctl", "-t", rrm_table_name, "-k", user_mac, "-g", "TX", none);
    msg[sizeof msg - 1] = '\0';
    copy_text(tx_char, sizeof tx_char, msg);

    // No partial answer: one counter missing or zero zeroes the other too.
    uint64_t rx = read(rx_char), tx = read(tx_char);
    if (rx > 0 && tx > 0) {
        status->rx = rx;
        status->tx = tx;
    }

    if (module->close_sock)
        module->close_sock(client, 0);
    parser_close(module);
    return 0;
}
