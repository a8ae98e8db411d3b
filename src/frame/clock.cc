#include "frame/clock.h"

#include <atomic>

namespace {
std::atomic<mtr_clock_fn> clock_source{nullptr};
}

time_t mtr_time(void)
{
    mtr_clock_fn fn = clock_source.load(std::memory_order_relaxed);
    return fn ? fn() : time(nullptr);
}

void mtr_set_clock(mtr_clock_fn fn)
{
    clock_source.store(fn, std::memory_order_relaxed);
}
