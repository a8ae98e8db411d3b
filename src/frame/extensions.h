// Opt-in behaviour beyond the design, for accounting an operator bills
// from. Chosen once at start-up by options of meterd; with none of them the
// daemon sends, times and traces exactly what the design says.
#ifndef METERD_FRAME_EXTENSIONS_H
#define METERD_FRAME_EXTENSIONS_H

enum {
    EXT_GIGAWORDS = 1 << 0,          // -g: Acct-Input/Output-Gigawords beside the octets
    EXT_UNIQUE_IDS = 1 << 1,         // -i: no Identifier that a request in flight holds
    EXT_RETRY_PER_REQUEST = 1 << 2,  // -r: an answer renews the retry budget
    EXT_STEADY_COUNTERS = 1 << 3,    // -c: 64-bit counters that never go backwards
    EXT_ALL = (1 << 4) - 1,          // -x
};

// Written by main before any thread exists, read-only afterwards.
extern unsigned extensions;

inline bool extension_on(unsigned which)
{
    return (extensions & which) != 0;
}

#endif
