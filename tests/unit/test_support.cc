#include "test_support.h"

#include <fcntl.h>
#include <unistd.h>

#include "frame/clock.h"
#include "frame/console.h"
#include "radius/client_stats.h"

namespace testenv {
time_t now = 1000000;
std::vector<SentDatagram> sent;
}  // namespace testenv

namespace {

ssize_t capture_send(int fd, const void *buf, size_t len, const struct sockaddr_in *to)
{
    auto *bytes = static_cast<const uint8_t *>(buf);
    testenv::sent.push_back({{bytes, bytes + len}, *to, fd});
    return static_cast<ssize_t>(len);
}

}  // namespace

void DbTest::SetUp()
{
    testenv::now = 1000000;
    testenv::sent.clear();
    mtr_set_clock([] { return testenv::now; });
    radius_sendto = capture_send;
    transaction_init();
    client_stats_clear();
    console_path = "/dev/null";
    debug = 1;  // the traces run, and a test that reads them captures them
    is_cloud = 1;
    init_meterd_db();  // the portal user table, empty; a test turns cloud mode on itself
    is_cloud = 0;
}

void DbTest::TearDown()
{
    clear_database();
    policy_choose(0);
    identifiers_clear();
    radius_source_limit = RADIUS_SOURCES;
    is_cloud = 0;
    debug = 0;
    mtr_set_clock(nullptr);
}

// Sanitized builds only: a report must not vanish into the pipe.
extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

Captured::Captured(bool with_stderr) : saved_console_(console_path)
{
    EXPECT_EQ(pipe2(fds_, O_NONBLOCK), 0);
    path_ = "/proc/self/fd/" + std::to_string(fds_[1]);
    console_path = path_.c_str();
    if (!with_stderr)
        return;
    saved_err_ = dup(STDERR_FILENO);
    dup2(fds_[1], STDERR_FILENO);
    if (__sanitizer_set_report_fd)
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(saved_err_)));
}

Captured::~Captured()
{
    if (saved_err_ >= 0) {
        dup2(saved_err_, STDERR_FILENO);
        if (__sanitizer_set_report_fd)
            __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(STDERR_FILENO)));
        close(saved_err_);
    }
    console_path = saved_console_;
    close(fds_[0]);
    close(fds_[1]);
}

std::string Captured::text()
{
    std::string s(1 << 16, '\0');
    s.resize(static_cast<size_t>(std::max<ssize_t>(0, read(fds_[0], &s[0], s.size()))));
    return s;
}

struct accounting_radius *DbTest::make_profile(const char *iface, const char *primary, const char *secret,
                                               const char *backup, const char *backup_secret, int type)
{
    ovat_config_event cfg = profile_config(iface, primary, secret, backup, backup_secret);
    struct accounting_radius *r = add_radius(iface, type);
    return r && update_radius_profile(r, &cfg, type) == 0 ? r : nullptr;
}

void reply(const SentDatagram &d, const char *secret, uint8_t code, uint8_t id_shift)
{
    AUTH_HDR r;
    size_t n = signed_answer(reinterpret_cast<uint8_t *>(&r), d.bytes.data(), &code, 1, secret);
    r.id = static_cast<uint8_t>(r.id + id_shift);
    radius_datagram from = {0, d.to, static_cast<ssize_t>(n)};
    radius_response_input(&r, &from);
}

void answer_last_request(const char *secret) { reply(testenv::sent.back(), secret); }
