// Console diagnostics: one line on /dev/console, opened and closed for every
// message, only while `debug` is set. No lock is taken. With the option -s
// the same messages go to syslog instead, one message each.
#ifndef METERD_FRAME_CONSOLE_H
#define METERD_FRAME_CONSOLE_H

#include <cstdarg>

#include "frame/meterd.h"

// Where console lines go. Tests point it at a file of their own.
extern const char *console_path;

// From now on every message goes to syslog (ident "meterd", facility
// daemon) in place of the console. Called by main before any thread exists.
void console_to_syslog(void);

// Writes one message whatever `debug` says; when the console cannot be
// opened, runs the fallback shell command instead and the message is lost.
void console_write(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void console_vwrite(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0)));

// The usual idiom: evaluates nothing while debugging is off.
#define TRACE(...)                                  \
    do {                                            \
        if (debug.load(std::memory_order_relaxed))  \
            console_write(__VA_ARGS__);             \
    } while (0)

// "%s-%s-%d: " messages carry a module name, a function name and the line.
// The function is named explicitly: some arms report as their thread entry.
#define TRACE_AT(module, func, ...) TRACE_AT_(module, func, __VA_ARGS__, "")
#define TRACE_AT_(module, func, fmt, ...) \
    TRACE("%s-%s-%d: " fmt "%s", module, func, __LINE__, __VA_ARGS__)

#endif
