// How long the daemon holds its one global lock, for the bench: preloaded
// into meterd (LD_PRELOAD), it stands in for the pthread calls on `mutex` and
// keeps the total held, the number of holds, the longest hold and the time
// spent waiting for it in a file that the bench maps and reads while the
// daemon runs.
//   METERD_LOCKSTAT=/tmp/lockstat METERD_LOCK_OFFSET=0x$(nm meterd | awk '$3 == "mutex" {print $1}')
//   LD_PRELOAD=liblockstat.so meterd ...
// A condition wait on the lock counts as its release until the wait returns.
// Only the holder of the lock writes the counters, so they need no lock of
// their own; a reader may see one hold half counted.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

struct lock_counters {  // the file's layout: four little-endian 64-bit numbers
    uint64_t held_ns;
    uint64_t holds;
    uint64_t longest_ns;
    uint64_t waited_ns;
};

lock_counters fallback;
lock_counters *counters = &fallback;
const void *target = nullptr;
thread_local uint64_t taken_at;

using lock_fn = int (*)(pthread_mutex_t *);
using wait_fn = int (*)(pthread_cond_t *, pthread_mutex_t *);
using timed_fn = int (*)(pthread_cond_t *, pthread_mutex_t *, const struct timespec *);
using clock_fn = int (*)(pthread_cond_t *, pthread_mutex_t *, clockid_t, const struct timespec *);
lock_fn real_lock, real_trylock, real_unlock;
wait_fn real_wait;
timed_fn real_timedwait;
clock_fn real_clockwait;

uint64_t now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

int main_base(struct dl_phdr_info *info, size_t, void *base)
{
    *static_cast<uintptr_t *>(base) = info->dlpi_addr;
    return 1;  // the first object is the program itself
}

template <class Fn>
Fn next(Fn &fn, const char *name)
{
    if (!fn)
        fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    return fn;
}

void taken() { taken_at = now_ns(); }

void released()
{
    uint64_t held = now_ns() - taken_at;
    counters->held_ns += held;
    counters->holds++;
    if (held > counters->longest_ns)
        counters->longest_ns = held;
}

__attribute__((constructor)) void lockstat_init()
{
    const char *offset = getenv("METERD_LOCK_OFFSET"), *path = getenv("METERD_LOCKSTAT");
    // The daemon's children (the shell, ovat) run without it.
    unsetenv("LD_PRELOAD");
    if (!offset || !path)
        return;
    uintptr_t base = 0;
    dl_iterate_phdr(main_base, &base);
    target = reinterpret_cast<const void *>(base + strtoull(offset, nullptr, 16));
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(lock_counters)) != 0)
        return;
    void *map = mmap(nullptr, sizeof(lock_counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map != MAP_FAILED)
        counters = static_cast<lock_counters *>(map);
}

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t *m)
{
    if (m != target)
        return next(real_lock, "pthread_mutex_lock")(m);
    uint64_t asked = now_ns();
    int r = next(real_lock, "pthread_mutex_lock")(m);
    taken();
    counters->waited_ns += taken_at - asked;
    return r;
}

int pthread_mutex_trylock(pthread_mutex_t *m)
{
    int r = next(real_trylock, "pthread_mutex_trylock")(m);
    if (m == target && r == 0)
        taken();
    return r;
}

int pthread_mutex_unlock(pthread_mutex_t *m)
{
    if (m == target)
        released();
    return next(real_unlock, "pthread_mutex_unlock")(m);
}

int pthread_cond_wait(pthread_cond_t *c, pthread_mutex_t *m)
{
    if (m == target)
        released();
    int r = next(real_wait, "pthread_cond_wait")(c, m);
    if (m == target)
        taken();
    return r;
}

int pthread_cond_timedwait(pthread_cond_t *c, pthread_mutex_t *m, const struct timespec *until)
{
    if (m == target)
        released();
    int r = next(real_timedwait, "pthread_cond_timedwait")(c, m, until);
    if (m == target)
        taken();
    return r;
}

int pthread_cond_clockwait(pthread_cond_t *c, pthread_mutex_t *m, clockid_t clock, const struct timespec *until)
{
    if (m == target)
        released();
    int r = next(real_clockwait, "pthread_cond_clockwait")(c, m, clock, until);
    if (m == target)
        taken();
    return r;
}

}  // extern "C"
