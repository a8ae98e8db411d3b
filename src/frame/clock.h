// The daemon's notion of "now": wall-clock seconds. Unit tests replace the
// source to drive deadlines without waiting.
#ifndef METERD_FRAME_CLOCK_H
#define METERD_FRAME_CLOCK_H

#include <ctime>

using mtr_clock_fn = time_t (*)(void);

// Current wall-clock second, as time() gives it.
time_t mtr_time(void);
// Replaces the clock; nullptr restores time().
void mtr_set_clock(mtr_clock_fn fn);

#endif
