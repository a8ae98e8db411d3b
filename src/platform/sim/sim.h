// The simulated access point: the device's libraries over plain files, so
// that the daemon and its tests run on any Linux host.
//
// Files under sim_root (default /tmp/devsim):
//   hybridmode  the operating mode in decimal; missing or unreadable: 1
//   mac         the device MAC text as rrm_get_common_mac returns it;
//               missing: "02:00:00:00:00:01"
//   stations    one station a line, "MAC IPV4 RX TX", MAC in any text form
//               that change_mac_format accepts, "-" for an unknown field
//   dbcmd_hang  while it exists, the statistics database does not answer
#ifndef METERD_PLATFORM_SIM_SIM_H
#define METERD_PLATFORM_SIM_SIM_H

#include <cstdio>
#include <cstring>

#include "database/accounting.h"
#include "database/mac_text.h"

#define SIM_DEFAULT_ROOT "/tmp/devsim"
#define SIM_DEFAULT_MAC "02:00:00:00:00:01"

// A directory path in a fixed buffer, so that the daemon needs no C++
// library; the member names let tests assign and save it like a string.
struct sim_path {
    char text[128];
    const char *c_str() const { return text; }
    operator const char *() const { return text; }
    sim_path &operator=(const char *path)
    {
        copy_text(text, sizeof text, path);
        return *this;
    }
    template <class Text>
    sim_path &operator=(const Text &path)
    {
        return *this = path.c_str();
    }
};

// Test-only: where the simulated device keeps its files.
extern sim_path sim_root;

// "-" in a field when the stations file does not say.
struct sim_station {
    char ip[64];
    char rx[64];
    char tx[64];
};

// Looks up a station of root/stations by MAC, both sides compared in the
// daemon's canonical form. Shared by the sim libraries and the simulated
// shell. true when found.
inline bool sim_find_station(const char *root, const char *mac, sim_station *out)
{
    char want[18];
    memset(want, 0, sizeof want);
    change_mac_format(want, mac);
    if (!want[0])
        return false;

    char path[160];
    snprintf(path, sizeof path, "%s/stations", root);
    FILE *f = fopen(path, "r");
    if (!f)
        return false;
    bool found = false;
    char line[256];
    while (!found && fgets(line, sizeof line, f)) {
        char field[4][64] = {"", "-", "-", "-"};
        int n = sscanf(line, "%63s %63s %63s %63s", field[0], field[1], field[2], field[3]);
        if (n < 1 || field[0][0] == '#')
            continue;
        char have[18];
        memset(have, 0, sizeof have);
        change_mac_format(have, field[0]);
        if (have[0] && strcmp(have, want) == 0) {
            memcpy(out->ip, field[1], sizeof out->ip);
            memcpy(out->rx, field[2], sizeof out->rx);
            memcpy(out->tx, field[3], sizeof out->tx);
            found = true;
        }
    }
    fclose(f);
    return found;
}

#endif
