// The records that the daemon's peers send, built as each peer builds them,
// for the unit tests and the fuzz targets alike (so no gtest here), and the
// teardown that frees whatever a run left in the database.
#ifndef METERD_TESTS_RECORDS_H
#define METERD_TESTS_RECORDS_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "database/accounting.h"
#include "events/station_events.h"
#include "frame/meterd.h"
#include "frame/ovat_event.h"
#include "platform/platform.h"

// A profile whose servers listen on 1813; "" for no backup.
ovat_config_event profile_config(const char *iface, const char *primary, const char *secret,
                                 const char *backup = "", const char *backup_secret = "",
                                 int interim_minutes = 0);
// A control datagram that carries a profile, or that names one interface
// (removal; "" for the events that read nothing).
accounting_event_t control_event(int64_t id, const ovat_config_event &profile);
accounting_event_t control_event(int64_t id, const char *iface = "");
// The authenticator's login record.
accounting_msg_t login_record(const char *user, const char *mac, const char *iface, int interim = 0);
// The wireless HAL's report of a station's address (ip in host order).
staStatus_t station_report(const uint8_t *mac, uint32_t ip);
// One wireless event message of the driver: header, interface, one event.
std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac,
                                    uint64_t tx = 0, uint64_t rx = 0);
// The UAM library's login of a local user.
uam_event uam_login(const char *user, const char *mac, const char *iface, const char *ssid_profile);
// The server's answer to request (a datagram the daemon sent): body is the
// Code, then the attributes; empty, an Accounting-Response alone. Cut below
// RADIUS_RECV_LEN, the most the daemon receives. Fills out, returns its length.
size_t signed_answer(uint8_t *out, const uint8_t *request, const uint8_t *body, size_t n,
                     const char *secret);

// Hands a record to one of the daemon's input functions, as one datagram.
template <class Input, class Record>
void deliver(Input input, const Record &rec)
{
    input(&rec, sizeof rec);
}
template <class Input>
void deliver(Input input, const std::vector<uint8_t> &bytes)
{
    input(bytes.data(), bytes.size());
}

// Runs f under the daemon's one lock, as the threads that own an input do.
template <class F>
void locked(F f)
{
    pthread_mutex_lock(&mutex);
    f();
    pthread_mutex_unlock(&mutex);
}

// Frees every node, profile, scheduler entry, interim queue and portal user
// still held, and turns allocation failure off. The portal user table must
// have been set up (init_meterd_db in cloud mode).
void clear_database();

#endif
