// Process-wide state and the small helpers of start-up. Kept apart from the
// start-up itself, so that tools can link the database without the daemon.
#include "frame/meterd.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

int is_cloud;
std::atomic<int> debug{0};
char global_ap_mac[32];
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

int mtrd_write_pid(const char *fname)
{
    FILE *fp = fopen(fname, "w");
    if (!fp)
        return -1;
    fprintf(fp, "%d", static_cast<int>(getpid()));
    fclose(fp);
    return 0;
}

void trimnewline(char *buf)
{
    size_t len = strlen(buf);
    for (size_t i = 0; i < len; i++)
        if (buf[i] == '\n')
            buf[i] = '\0';
}

int notify_flush_all(void)
{
    return 0;
}

void set_operating_mode(int mode)
{
    // Only these two modes decide; every other answer keeps the default.
    if (mode == WHOPMODE_STANDALONE || mode == WHOPMODE_MANAGED)
        is_cloud = 0;
    else if (mode == WHOPMODE_CLOUD)
        is_cloud = 1;
}
