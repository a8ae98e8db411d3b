// Shared fixture of the unit tests: an empty database before and after each
// test, a clock the test sets, and every datagram captured instead of sent.
#ifndef METERD_TESTS_UNIT_TEST_SUPPORT_H
#define METERD_TESTS_UNIT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "database/accounting.h"
#include "frame/ovat_event.h"

struct SentDatagram {
    std::vector<uint8_t> bytes;
    struct sockaddr_in to;
};

namespace testenv {
extern time_t now;                      // what mtr_time() returns
extern std::vector<SentDatagram> sent;  // every datagram "sent"
}  // namespace testenv

class DbTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A configured profile with a primary (and a backup if given).
    static struct accounting_radius *make_profile(const char *iface, const char *primary,
                                                  const char *secret, const char *backup = "",
                                                  const char *backup_secret = "", int type = 0);
    // A login record for a station.
    static accounting_msg_t login(const char *user, const char *mac, const char *iface, int interim = 0);
    // The last console message: debugging is on, and the console is a
    // file that each message opens anew and so overwrites.
    static std::string console();
};

// Raw input of the device's peers, for tests that call the input functions.
// One wireless event message of the driver (header, interface, one event).
std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac,
                                    uint64_t tx = 0, uint64_t rx = 0);
// Feeds the server's verified answer to the datagram sent last.
void answer_last_request(const char *secret);

// Frees every node, profile, scheduler entry and interim queue still held.
void reset_database();
size_t list_length(const struct list_head *head);

#endif
