// Process-wide state of the daemon and the rules of its one lock.
//
// Lock rule: every operation below a thread's entry function expects the
// caller to hold `mutex`. Only the thread entries (and the *_input handlers
// that stand for one event of a thread) take it. The lock is not recursive.
#ifndef METERD_FRAME_METERD_H
#define METERD_FRAME_METERD_H

#include <pthread.h>

#include <atomic>
#include <ctime>

// Operating modes reported by the device.
enum {
    WHOPMODE_UNKNOWN = 0,
    WHOPMODE_STANDALONE = 1,
    WHOPMODE_CONTROLLER = 2,
    WHOPMODE_MANAGED = 3,
    WHOPMODE_BEFORE_FIRMWARE_UPDATE = 4,
    WHOPMODE_CLOUD = 5,
    WHOPMODE_MAX = 6,
};

#define METERD_PID_FILE "/var/run/meterd.pid"

extern int is_cloud;            // written by main before any thread exists
// Console diagnostics on/off. Threads read it without the lock and a late
// view costs a trace line at most, so relaxed loads and stores suffice.
extern std::atomic<int> debug;
extern char global_ap_mac[32];  // device MAC text, no line feed
extern pthread_mutex_t mutex;   // the one global lock

// Writes getpid() in decimal, no line feed. 0, or -1 if fname cannot be opened.
int mtrd_write_pid(const char *fname);

// Cuts buf at its first line feed (every line feed becomes NUL).
void trimnewline(char *buf);

// Start-order hook with nothing to flush yet; returns 0.
int notify_flush_all(void);

// Applies the mode reported by the device to is_cloud.
void set_operating_mode(int mode);

#endif
