// Session identifiers.
#include "database/session_id.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "frame/clock.h"
#include "frame/console.h"

int os_get_random(unsigned char *buf, size_t len)
{
    FILE *fp = fopen("/dev/urandom", "rb");
    if (!fp) {
        TRACE("Could not open /dev/urandom.\n");
        return -1;
    }
    // Unbuffered: stdio would otherwise draw a whole buffer of 4 KiB from
    // the kernel's generator for the 8 bytes of each session id.
    setvbuf(fp, nullptr, _IONBF, 0);
    size_t got = fread(buf, 1, len, fp);
    fclose(fp);
    return got == len ? 0 : -1;
}

void gen_session_id(char *id, size_t len)
{
    unsigned long long value = 0;
    if (os_get_random(reinterpret_cast<unsigned char *>(&value), sizeof value) == 0) {
        snprintf(id, len, "%016llX", value);
        return;
    }
    // The seed starts anew on each call, so the fallback changes only with
    // the clock; two ids made in one second are equal.
    unsigned int seed = 0;
    int32_t v = static_cast<int32_t>(static_cast<uint32_t>(rand_r(&seed) % 1013) +
                                     static_cast<uint32_t>(mtr_time()));
    snprintf(id, len, "%d", v);
}
