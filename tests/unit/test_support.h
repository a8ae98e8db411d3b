// Shared fixture of the unit tests: an empty database before and after each
// test (cloud mode off, the portal user table set up), a clock the test sets,
// every datagram captured instead of sent, and the console when asked; with
// the database, delivery and packet interfaces that every such test drives.
#ifndef METERD_TESTS_UNIT_TEST_SUPPORT_H
#define METERD_TESTS_UNIT_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "database/nodes.h"
#include "database/portal_users.h"
#include "database/profiles.h"
#include "delivery/identifiers.h"
#include "delivery/policy.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "delivery/transaction.h"
#include "frame/memory.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"
#include "shared.h"
#include "sim_env.h"

struct SentDatagram {
    std::vector<uint8_t> bytes;
    struct sockaddr_in to;
    int fd;
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
};

// Everything the daemon writes to its console (and to stderr, if asked) while
// this lives: a pipe takes their place.
class Captured {
public:
    explicit Captured(bool with_stderr = false);
    ~Captured();
    std::string text();  // what came since the last call

private:
    int fds_[2] = {-1, -1}, saved_err_ = -1;
    std::string path_;
    const char *saved_console_;
};

// The server's answer to d, as if it came on the first socket from where d
// went, signed with secret: an Accounting-Response, or the Code given, with
// the Identifier moved by id_shift.
void reply(const SentDatagram &d, const char *secret, uint8_t code = 5, uint8_t id_shift = 0);
// The answer to the datagram sent last.
void answer_last_request(const char *secret);

#endif
