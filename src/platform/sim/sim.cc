// The simulated device libraries. Each call reads its file anew, so a test
// or an operator can change the device under a running daemon.
#include "platform/sim/sim.h"

#include <linux/netlink.h>

#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "database/accounting.h"
#include "frame/meterd.h"
#include "platform/platform.h"

sim_path sim_root = {SIM_DEFAULT_ROOT};

const int meterd_netlink_protocol = NETLINK_USERSOCK;

namespace {

enum { SIM_RESULT_LEN = 1024, SIM_MAX_WORDS = 16 };

void trim_line_end(char *s)
{
    size_t n = strlen(s);
    while (n && (s[n - 1] == '\n' || s[n - 1] == '\r'))
        s[--n] = '\0';
}

// The table name the statistics database has on this device.
void station_table(char *buf, size_t size)
{
    char mac[64];
    memset(mac, 0, sizeof mac);
    rrm_get_common_mac(mac, sizeof mac);
    trim_line_end(mac);
    snprintf(buf, size, "STA_STATISTIC-%s", mac);
}

// The client handle only has to be distinct from NULL.
int sim_client;

void *sim_init_sock(int) { return &sim_client; }

void sim_close_sock(void *, int) {}

// Answers "dbctl -t STA_STATISTIC-<device mac> -k <station mac> -g RX|TX"
// from the stations file; anything it cannot answer is "N/A", as the
// device's database says. Does not answer while root/dbcmd_hang exists.
int sim_gen_cmd(void *, char *result, ...)
{
    char hang[160];
    snprintf(hang, sizeof hang, "%s/dbcmd_hang", sim_root.c_str());
    const struct timespec tick = {0, 20000000};
    while (access(hang, F_OK) == 0)
        nanosleep(&tick, nullptr);

    const char *word[SIM_MAX_WORDS];
    int n = 0;
    va_list ap;
    va_start(ap, result);
    for (const char *w = va_arg(ap, const char *); w; w = va_arg(ap, const char *))
        if (n < SIM_MAX_WORDS)
            word[n++] = w;
    va_end(ap);

    const char *answer = "N/A";
    sim_station sta;
    if (n == 7 && strcmp(word[0], "dbctl") == 0 && strcmp(word[1], "-t") == 0 &&
        strcmp(word[3], "-k") == 0 && strcmp(word[5], "-g") == 0) {
        char table[128], want[128];
        copy_text(table, sizeof table, word[2]);
        trim_line_end(table);
        station_table(want, sizeof want);
        if (strcmp(table, want) == 0 && sim_find_station(sim_root, word[4], &sta)) {
            const char *value = strcmp(word[6], "RX") == 0   ? sta.rx
                                : strcmp(word[6], "TX") == 0 ? sta.tx
                                                             : "-";
            if (strcmp(value, "-") != 0)
                answer = value;
        }
    }
    snprintf(result, SIM_RESULT_LEN, "%s", answer);
    return 0;
}

parser_module dbcmd_module = {
    nullptr, nullptr, nullptr, nullptr, sim_init_sock, nullptr, nullptr, sim_close_sock, sim_gen_cmd,
};

}  // namespace

extern "C" {

int merra_wlan_get_hybridmode(void)
{
    int mode = WHOPMODE_STANDALONE;
    char path[160];
    snprintf(path, sizeof path, "%s/hybridmode", sim_root.c_str());
    FILE *f = fopen(path, "r");
    if (!f)
        return mode;
    if (fscanf(f, "%d", &mode) != 1)
        mode = WHOPMODE_STANDALONE;
    fclose(f);
    return mode;
}

int rrm_get_common_mac(char *buf, int len)
{
    if (!buf || len <= 0)
        return -1;
    buf[0] = '\0';
    char path[160];
    snprintf(path, sizeof path, "%s/mac", sim_root.c_str());
    FILE *f = fopen(path, "r");
    if (!f) {
        snprintf(buf, static_cast<size_t>(len), "%s", SIM_DEFAULT_MAC);
        return 0;
    }
    if (!fgets(buf, len, f))
        buf[0] = '\0';
    fclose(f);
    return 0;
}

parser_module *parser_open(const char *name)
{
    if (name && strcmp(name, "dbcmd") == 0)
        return &dbcmd_module;
    return nullptr;
}

void parser_close(parser_module *) {}

}  // extern "C"
