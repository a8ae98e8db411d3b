// The control channel (/tmp/accounting.sock), the Unix datagram socket
// helpers that three threads share, and the database dump.
#ifndef METERD_FRAME_CONTROL_H
#define METERD_FRAME_CONTROL_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>

#include "frame/ovat_event.h"

#define ACCOUNTING_SOCK "/tmp/accounting.sock"
#define METERD_DB_DUMP "/tmp/meterd_db"

// A bound Unix datagram socket: the descriptor, -1 if no socket could be
// made, -2 if it could not be bound. A file left by an earlier run is
// unlinked first. addr is filled in for the caller.
int domain_socket_create(const char *domain_sock_file, struct sockaddr_un *addr);
// recvfrom without flags, the address length set afresh for each call.
ssize_t domain_socket_recvfrom(int sockfd, void *msg, size_t msglen, struct sockaddr_un *src_addr);
// A channel thread's life: binds path, clears the thread's record rec once,
// then for ever receives each datagram of at most size bytes into buf and
// hands it to input with rec and the received length. A failed receive is
// reported on stderr under the name thread and passed over, without the
// lock. Returns only when the socket cannot be set up.
void domain_socket_serve(const char *path, void *rec, void *buf, size_t size, const char *thread,
                         void (*input)(void *rec, const void *data, size_t len));

// One control datagram of len bytes. rec is the thread's record: the bytes
// are copied over its start, and the rest keeps what earlier datagrams left,
// so an arm reads the record as if all of it had come. Takes `mutex`.
void ovat_event_input(accounting_event_t *rec, const void *data, size_t len);

// Writes /tmp/meterd_db (and each line to the console). Always 0.
// Expects `mutex` held.
int debug_print_db_info(void);

// Thread entry of the control channel; returns only if its socket fails.
void *do_event_handler_ovat(void *argv);

#endif
