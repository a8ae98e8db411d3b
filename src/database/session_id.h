// Session identifiers: 16 hexadecimal digits from the kernel's generator.
#ifndef METERD_DATABASE_SESSION_ID_H
#define METERD_DATABASE_SESSION_ID_H

#include <cstddef>

// 0 with len random bytes in buf, or -1.
int os_get_random(unsigned char *buf, size_t len);
// A new identifier in id (len bytes with the terminator).
void gen_session_id(char *id, size_t len);

#endif
