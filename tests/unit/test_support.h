// Shared fixture of the unit tests: an empty database before and after each
// test (cloud mode off, the portal user table set up), a clock the test sets,
// every datagram captured instead of sent, and the console when asked.
#ifndef METERD_TESTS_UNIT_TEST_SUPPORT_H
#define METERD_TESTS_UNIT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "shared.h"

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

// Feeds the server's verified answer to the datagram sent last, as if it
// came on socket `source`.
void answer_last_request(const char *secret, int source = 0);

#endif
