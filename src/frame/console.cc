#include "frame/console.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

const char *console_path = "/dev/console";

// The line feed inside the quotes is a real one: the shell echoes it as is.
static const char console_fallback[] =
    "echo \"WARNING_MSG():Fail to /dev/console.\n\" > /dev/console";

void console_write(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    console_vwrite(fmt, ap);
    va_end(ap);
}

void console_vwrite(const char *fmt, va_list ap)
{
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
