#include "frame/console.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

const char *console_path = "/dev/console";

// Set by main before the threads start, read-only afterwards.
static bool console_syslog = false;

// The line feed inside the quotes is a real one: the shell echoes it as is.
static const char console_fallback[] =
    "echo \"WARNING_MSG():Fail to /dev/console.\n\" > /dev/console";

void console_to_syslog(void)
{
    openlog("meterd", LOG_PID, LOG_DAEMON);
    console_syslog = true;
}

void console_write(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    console_vwrite(fmt, ap);
    va_end(ap);
}

void console_vwrite(const char *fmt, va_list ap)
{
    // Where operators read the system log (logread) rather than a serial
    // console. syslog keeps its own lock and reconnects by itself; a message
    // it cannot deliver is lost, as on a console that cannot be opened.
    if (console_syslog) {
        vsyslog(LOG_INFO, fmt, ap);
        return;
    }
    // Opened and closed for every message, so the console can come and go
    // under a running daemon.
    FILE *fp = fopen(console_path, "w");
    if (!fp) {
        int rc = system(console_fallback);
        (void)rc;
        return;
    }
    vfprintf(fp, fmt, ap);
    fclose(fp);
}
