// The database dump, written on request of the control channel.
#ifndef METERD_DAEMON_DB_DUMP_H
#define METERD_DAEMON_DB_DUMP_H

#define METERD_DB_DUMP "/tmp/meterd_db"

// Writes /tmp/meterd_db (and each line to the console). Always 0.
// Expects `mutex` held.
int debug_print_db_info(void);

#endif
