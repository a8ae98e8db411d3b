// What the unit tests and the fuzz targets share (so no gtest here): the
// peers' records, the server's signed answer, delivery of a record to an
// input, the teardown that frees whatever a run left in the database, and
// a count of a list.
#ifndef METERD_TESTS_SHARED_H
#define METERD_TESTS_SHARED_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "frame/meterd.h"
#include "peer_records.h"

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

// The nodes on a list, counted without the daemon's help.
size_t list_length(const struct list_head *head);

#endif
