// The control channel (/tmp/accounting.sock): profile, server and debugging
// events from the device's command shell.
#ifndef METERD_DAEMON_CONTROL_H
#define METERD_DAEMON_CONTROL_H

#include <cstddef>

#include "frame/domain_socket.h"
#include "frame/ovat_event.h"

#define ACCOUNTING_SOCK "/tmp/accounting.sock"

// One control datagram of len bytes. rec is the thread's record: the bytes
// are copied over its start, and the rest keeps what earlier datagrams left,
// so an arm reads the record as if all of it had come. from, the sender, is
// where the delivery counters' report goes (none: nowhere). Takes `mutex`.
void ovat_event_input(accounting_event_t *rec, const void *data, size_t len,
                      const struct domain_socket_peer *from = nullptr);

// Thread entry of the control channel; returns only if its socket fails.
void *do_event_handler_ovat(void *argv);

#endif
