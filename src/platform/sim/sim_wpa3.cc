// The simulated WPA3 information library: OWE transition WLANs listed in
// <sim_root>/owe, one a line, "RADIO WLAN OPENSSID_IDX", indexes from 1.
#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "platform/sim/sim.h"

extern "C" int wpa3_get_owetm_info(int radio, int wlan, oweconf_t *conf)
{
    char path[256];
    snprintf(path, sizeof path, "%s/owe", sim_root.c_str());
    FILE *f = fopen(path, "r");
    if (!f)
        return -1;
    int result = -1;
    char line[128];
    while (result == -1 && fgets(line, sizeof line, f)) {
        int r, w, open_idx;
        if (sscanf(line, "%d %d %d", &r, &w, &open_idx) == 3 && r == radio && w == wlan) {
            memset(conf, 0, sizeof *conf);
            conf->owetmvap_idx = w;
            conf->openssid_idx = open_idx;
            result = 0;
        }
    }
    fclose(f);
    return result;
}
