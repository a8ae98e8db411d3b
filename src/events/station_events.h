// Thread 4: the login socket, the driver's netlink socket and the station
// report socket behind one select, and the two-step start of a session.
//
// The *_input functions take the bytes of one datagram and expect `mutex`
// held, since one pass of the thread serves all three sockets under it.
#ifndef METERD_EVENTS_STATION_EVENTS_H
#define METERD_EVENTS_STATION_EVENTS_H

#include <netinet/in.h>

#include <cstddef>

#include "database/accounting.h"

#define ACCOUNTING_RECV_RADIUS_SOCK "/tmp/accounting_recv_radius.sock"
#define ACCOUNTING_RECV_WHAL_SOCK "/tmp/accounting_recv_wireless_hal.sock"

enum { DISASSOC = 0, ASSOC = 1 };

// The wireless HAL's report of a station's address: 40 bytes, host order but
// for client_ip.
typedef struct staStatus_s {
    int associate;              // DISASSOC or ASSOC; not read
    struct in_addr client_ip;   // network byte order
    unsigned char mac[6];
    char iface[20];             // not read
    int vid;                    // not read
} staStatus_t;
static_assert(sizeof(staStatus_t) == 40, "station report is 40 bytes");
static_assert(offsetof(staStatus_t, client_ip) == 4, "layout");
static_assert(offsetof(staStatus_t, mac) == 8, "layout");
static_assert(offsetof(staStatus_t, iface) == 14, "layout");
static_assert(offsetof(staStatus_t, vid) == 36, "layout");

// One login record. Returns -1 when the interface has no normal profile (the
// pass then ends without looking at the other sockets), else 0. A datagram
// shorter than the record is dropped: the authenticator sends whole records,
// and half a login would account a user under another's fields.
int station_login_input(const void *data, size_t len);

// One station report: starts the oldest session of that MAC that waits for
// its address. A datagram shorter than the record is dropped.
void station_report_input(const void *data, size_t len);

// Thread entry; returns NULL only when one of its sockets cannot be set up.
void *do_event_handler_station_on_off(void *argv);

#endif
