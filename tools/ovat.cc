// The simulated device shell. It knows the one command the daemon runs:
//   ovat -p 100 -e 'show wireless-hal station non-real-time MAC'
// and answers it from the simulated stations file, so that the daemon's
// address lookup runs its real pipeline on a test host.
//
// METERD_SIM_ROOT relocates the simulated device, for tests only.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sim/sim.h"

namespace {

const char kShowStation[] = "show wireless-hal station non-real-time ";

int usage(const char *why)
{
    fprintf(stderr, "ovat: %s\n", why);
    fprintf(stderr, "usage: ovat -p PRIORITY -e 'show wireless-hal station non-real-time MAC'\n");
    return 1;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 5 || strcmp(argv[1], "-p") != 0 || strcmp(argv[3], "-e") != 0)
        return usage("unsupported invocation");
    const char *command = argv[4];
    if (strncmp(command, kShowStation, sizeof kShowStation - 1) != 0)
        return usage("unknown command");
    char mac[64];
    copy_text(mac, sizeof mac, command + sizeof kShowStation - 1);
    for (size_t n = strlen(mac); n && mac[n - 1] == ' ';)
        mac[--n] = '\0';

    const char *root = getenv("METERD_SIM_ROOT");
    sim_station sta;
    if (!sim_find_station(root && *root ? root : SIM_DEFAULT_ROOT, mac, &sta)) {
        printf("%% Station %s not found\n", mac);
        return 0;
    }
    printf("Station %s\n", mac);
    printf("  State:  associated\n");
    if (strcmp(sta.ip, "-") != 0)
        printf("  IPv4:  %s\n", sta.ip);
    printf("  IPv6:  -\n");
    printf("  RX bytes:  %s\n", strcmp(sta.rx, "-") == 0 ? "0" : sta.rx);
    printf("  TX bytes:  %s\n", strcmp(sta.tx, "-") == 0 ? "0" : sta.tx);
    return 0;
}
