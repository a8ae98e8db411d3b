// CPU and wall time per station address look-up: the design's pipeline
// (whal_getip: sh, ovat, grep, awk through popen) against the shell-less
// look-up, both asking the `ovat` first on PATH about one station of a
// simulated device of their own. CPU is this process's and its reaped
// children's (getrusage).
//   PATH=build:$PATH build/lookup_cost [COUNT]
#include <arpa/inet.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sim/sim.h"
#include "platform/station_lookups.h"
#include "platform/station_probe.h"

namespace {

double seconds(const struct timeval &tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; }

double cpu_now(int who)
{
    struct rusage use;
    getrusage(who, &use);
    return seconds(use.ru_utime) + seconds(use.ru_stime);
}

double wall_now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

int by_pipeline(const char *mac, struct in_addr *ip) { return whal_getip(mac, ip); }
int by_probe(const char *mac, struct in_addr *ip) { return station_address_lookup(mac, ip, 0, nullptr); }

void measure(const char *name, int (*lookup)(const char *, struct in_addr *), int count)
{
    struct in_addr ip;
    int found = 0;
    double self = cpu_now(RUSAGE_SELF), children = cpu_now(RUSAGE_CHILDREN), wall = wall_now();
    double slowest = 0;
    for (int i = 0; i < count; i++) {
        double start = wall_now();
        found += lookup("02:00:00:00:00:0a", &ip) != 0;
        if (wall_now() - start > slowest)
            slowest = wall_now() - start;
    }
    self = (cpu_now(RUSAGE_SELF) - self) * 1e6 / count;
    children = (cpu_now(RUSAGE_CHILDREN) - children) * 1e6 / count;
    wall = (wall_now() - wall) * 1e6 / count;
    printf("%-9s %5d look-ups, %d found (%s); per look-up: CPU %6.0f us (daemon %5.0f, children %6.0f), "
           "wall %6.0f us (slowest %6.0f)\n",
           name, count, found, inet_ntoa(ip), self + children, self, children, wall, slowest * 1e6);
}

}  // namespace

int main(int argc, char **argv)
{
    int count = argc > 1 ? atoi(argv[1]) : 200;
    if (count <= 0) {
        fprintf(stderr, "usage: lookup_cost [COUNT]\n");
        return 2;
    }
    char root[] = "/tmp/lookup-cost-XXXXXX";
    if (!mkdtemp(root)) {
        perror("mkdtemp");
        return 1;
    }
    sim_root = static_cast<const char *>(root);
    setenv("METERD_SIM_ROOT", root, 1);
    char path[160];
    snprintf(path, sizeof path, "%s/stations", root);
    FILE *f = fopen(path, "w");
    if (!f) {
        perror(path);
        return 1;
    }
    fprintf(f, "02:00:00:00:00:0a 10.0.0.5 100 200\n");
    fclose(f);

    measure("pipeline", by_pipeline, count);
    measure("no shell", by_probe, count);
    unlink(path);
    rmdir(root);
    return 0;
}
