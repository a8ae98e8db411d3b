// The simulated access point: the device's libraries over plain files, so
// that the daemon and its tests run on any Linux host.
//
// Files under sim_root (default /tmp/devsim):
//   hybridmode  the operating mode in decimal; missing or unreadable: 1
//   mac         the device MAC text as rrm_get_common_mac returns it;
//               missing: "02:00:00:00:00:01"
//   stations    one station a line, "MAC IPV4 RX TX", MAC in any text form
//               that change_mac_format accepts, "-" for an unknown field
#ifndef METERD_PLATFORM_SIM_SIM_H
#define METERD_PLATFORM_SIM_SIM_H

#include <cstdio>
#include <cstring>
#include <string>

#include "database/accounting_db_api.h"

// Test-only: where the simulated device keeps its files.
extern std::string sim_root;

#define SIM_DEFAULT_ROOT "/tmp/devsim"
#define SIM_DEFAULT_MAC "02:00:00:00:00:01"

struct sim_station {
    std::string ip;  // "-" when unknown
    std::string rx;  // "-" when unknown
    std::string tx;  // "-" when unknown
};

// Looks up a station of root/stations by MAC, both sides compared in the
// daemon's canonical form. Shared by the sim libraries and the simulated
// shell. true when found.
inline bool sim_find_station(const std::string &root, const char *mac, sim_station *out)
{
    char want[18];
    memset(want, 0, sizeof want);
    change_mac_format(want, mac);
    if (!want[0])
        return false;

    FILE *f = fopen((root + "/stations").c_str(), "r");
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
            out->ip = field[1];
            out->rx = field[2];
            out->tx = field[3];
            found = true;
        }
    }
    fclose(f);
    return found;
}

#endif
