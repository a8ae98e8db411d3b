// The one allocation hook. Every heap record of the daemon is taken and
// released here, so that a test can make any chosen allocation fail.
#ifndef METERD_FRAME_MEMORY_H
#define METERD_FRAME_MEMORY_H

#include <cstddef>

// Zero-filled allocation; NULL when memory is exhausted (or injected to be).
void *mtr_calloc(size_t nmemb, size_t size);
// Allocation without fill; NULL as above.
void *mtr_malloc(size_t size);
void mtr_free(void *ptr);

// Test hook: the nth allocation from now fails (1 = the next one); 0 turns
// injection off. Every later allocation succeeds again.
void mtr_alloc_fail_at(unsigned long nth);

#endif
