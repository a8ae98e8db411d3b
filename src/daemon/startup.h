// The daemon's start-up: the one room that knows every other, above the
// events, so that nothing below it reaches back up.
#ifndef METERD_DAEMON_STARTUP_H
#define METERD_DAEMON_STARTUP_H

// The whole daemon: start-up, threads, and the join that never returns.
// Returns -1 on the start-up failures.
int meterd_main(int argc, char **argv);

#endif
