// The simulated device shell. It knows the one command the daemon runs:
//   ovat -p 100 -e 'show wireless-hal station non-real-time MAC'
// and answers it from the simulated stations file, so that the daemon's
// address lookup runs its real pipeline on a test host.
//
// METERD_SIM_ROOT relocates the simulated device, for tests only.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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
    std::string mac = command + sizeof kShowStation - 1;
    while (!mac.empty() && mac.back() == ' ')
        mac.pop_back();

    const char *root = getenv("METERD_SIM_ROOT");
    sim_station sta;
    if (!sim_find_station(root && *root ? root : SIM_DEFAULT_ROOT, mac.c_str(), &sta)) {
        printf("%% Station %s not found\n", mac.c_str());
        return 0;
    }
    printf("Station %s\n", mac.c_str());
    printf("  State:  associated\n");
    if (sta.ip != "-")
        printf("  IPv4:  %s\n", sta.ip.c_str());
    printf("  IPv6:  -\n");
    printf("  RX bytes:  %s\n", sta.rx == "-" ? "0" : sta.rx.c_str());
    printf("  TX bytes:  %s\n", sta.tx == "-" ? "0" : sta.tx.c_str());
    return 0;
}
