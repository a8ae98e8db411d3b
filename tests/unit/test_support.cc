#include "test_support.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

#include "database/portal_users.h"
#include "database/profiles.h"
#include "delivery/transaction.h"
#include "frame/clock.h"
#include "frame/console.h"
#include "frame/extensions.h"
#include "radius/radius_msg.h"
#include "radius/radius_send_recieve.h"

namespace testenv {
time_t now = 1000000;
std::vector<SentDatagram> sent;
}  // namespace testenv

namespace {

// One file a process: ctest runs the tests in parallel processes.
const std::string console_file = "/tmp/meterd-console-" + std::to_string(getpid());

ssize_t capture_send(int, const void *buf, size_t len, const struct sockaddr_in *to)
{
    auto *bytes = static_cast<const uint8_t *>(buf);
    testenv::sent.push_back({{bytes, bytes + len}, *to});
    return static_cast<ssize_t>(len);
}

}  // namespace

size_t list_length(const struct list_head *head)
{
    size_t n = 0;
    for (const struct list_head *p = head->next; p != head; p = p->next)
        n++;
    return n;
}

void DbTest::SetUp()
{
    testenv::now = 1000000;
    testenv::sent.clear();
    mtr_set_clock([] { return testenv::now; });
    radius_sendto = capture_send;
    transaction_init();
    console_path = console_file.c_str();
    debug = 1;
    is_cloud = 1;
    init_meterd_db();  // the portal user table, empty; a test turns cloud mode on itself
    is_cloud = 0;
}

void DbTest::TearDown()
{
    clear_database();
    extensions = 0;
    is_cloud = 0;
    debug = 0;
    console_path = "/dev/null";
    unlink(console_file.c_str());
    mtr_set_clock(nullptr);
}

std::string DbTest::console()
{
    std::ifstream f(console_file);
    return {std::istreambuf_iterator<char>(f), {}};
}

struct accounting_radius *DbTest::make_profile(const char *iface, const char *primary, const char *secret,
                                               const char *backup, const char *backup_secret, int type)
{
    ovat_config_event cfg = profile_config(iface, primary, secret, backup, backup_secret);
    struct accounting_radius *r = add_radius(iface, type);
    return r && update_radius_profile(r, &cfg, type) == 0 ? r : nullptr;
}

void answer_last_request(const char *secret)
{
    AUTH_HDR r;
    signed_answer(reinterpret_cast<uint8_t *>(&r), testenv::sent.back().bytes.data(), nullptr, 0, secret);
    radius_response_input(&r);
}
