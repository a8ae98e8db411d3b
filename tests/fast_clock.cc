// The faster clock of the system tests, for a static meterd that LD_PRELOAD
// cannot give libfaketime. Linked in with --wrap=time and --wrap=sleep
// (METERD_TEST_CLOCK=ON, test builds only), it reads the FAKETIME="+0 xRATE"
// that the tests give libfaketime: time() runs RATE times faster from the
// start of the process, sleep() is RATE times shorter. Without a rate both
// are the C library's.
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern "C" {
time_t __real_time(time_t *out);
unsigned int __real_sleep(unsigned int seconds);
time_t __wrap_time(time_t *out);
unsigned int __wrap_sleep(unsigned int seconds);
}

namespace {

double seconds_now()
{
    struct timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// Set before main, so before any thread reads them.
const char *const x = getenv("FAKETIME") ? strchr(getenv("FAKETIME"), 'x') : nullptr;
const double rate = x && strtod(x + 1, nullptr) > 0 ? strtod(x + 1, nullptr) : 0;
const double start = seconds_now();

}  // namespace

time_t __wrap_time(time_t *out)
{
    if (rate == 0)
        return __real_time(out);
    time_t now = static_cast<time_t>(start + (seconds_now() - start) * rate);
    return out ? *out = now : now;
}

unsigned int __wrap_sleep(unsigned int seconds)
{
    if (rate == 0)
        return __real_sleep(seconds);
    double real = seconds / rate;
    struct timespec t = {static_cast<time_t>(real), static_cast<long>((real - static_cast<time_t>(real)) * 1e9)};
    while (nanosleep(&t, &t) == -1 && errno == EINTR) {
    }
    return 0;
}
