#include "frame/memory.h"

#include <atomic>
#include <cstdlib>

namespace {
// Atomics: allocations happen on every thread, though always under the lock.
std::atomic<unsigned long> fail_countdown{0};

bool injected_failure()
{
    unsigned long n = fail_countdown.load(std::memory_order_relaxed);
    if (n == 0)
        return false;
    fail_countdown.store(n - 1, std::memory_order_relaxed);
    return n == 1;
}
}  // namespace

void *mtr_calloc(size_t nmemb, size_t size)
{
    if (injected_failure())
        return nullptr;
    return calloc(nmemb, size);
}

void *mtr_malloc(size_t size)
{
    if (injected_failure())
        return nullptr;
    return malloc(size);
}

void mtr_free(void *ptr)
{
    free(ptr);
}

void mtr_alloc_fail_at(unsigned long nth)
{
    fail_countdown.store(nth, std::memory_order_relaxed);
}
