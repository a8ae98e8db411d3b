// The database dump, written on request of the control channel.
#ifndef METERD_DAEMON_DB_DUMP_H
#define METERD_DAEMON_DB_DUMP_H

#define METERD_DB_DUMP "/tmp/meterd_db"

// Writes /tmp/meterd_db, mode 0600 (and each line to the console). Always 0.
// A name it may not write (a link, someone else's file, a file with more
// than one name) gets one console line and no dump.
// Expects `mutex` held.
int debug_print_db_info(void);

#endif
