#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "database/accounting_db_api.h"
#include "delivery/queues.h"
#include "delivery/scheduler.h"
#include "radius/radius_send_recieve.h"
#include "test_support.h"

namespace {

// Passes 3 seconds apart, as the thread makes them, until the queues are
// empty. Gives the seconds, from the start, of each datagram and of the end.
std::vector<time_t> run_passes(time_t limit = 120)
{
    const time_t t0 = testenv::now;
    std::vector<time_t> times(testenv::sent.size(), 0);
    for (time_t t = t0 + SCHEDULER_TICK; t <= t0 + limit; t += SCHEDULER_TICK) {
        scheduler_pass(testenv::now = t);
        times.resize(testenv::sent.size(), t - t0);
        if (list_empty(&request_queue_header) && list_empty(&fail_queue_header)) {
            times.push_back(t - t0);
            break;
        }
    }
    return times;
}

void first_transmission(struct accounting_node *node, int status)
{
    send_accounting(node, status);
    insert_node_to_queue(node, QUEUE_TYPE_REQUEST);
}

bool signed_with(const std::vector<uint8_t> &bytes, const char *secret)
{
    AUTH_HDR copy{};
    memcpy(&copy, bytes.data(), bytes.size());
    get_accounting_vector(&copy, secret);
    return memcmp(&copy, bytes.data(), bytes.size()) == 0;
}

using RetryTest = DbTest;

TEST_F(RetryTest, FourToThePrimaryThenFourToTheBackup)
{
    struct accounting_radius *r =
        make_profile("wlan-1-1", "192.0.2.1", "primary-secret", "192.0.2.2", "backup-secret");
    first_transmission(add_new_node_for_on_off(r), ACCOUNTING_ON);
    // Retransmissions three passes apart; given up at 69 s, the last entry being the end.
    EXPECT_EQ(run_passes(), (std::vector<time_t>{0, 9, 18, 27, 36, 45, 54, 63, 69}));
    const auto &sent = testenv::sent;
    ASSERT_EQ(sent.size(), 8u);
    for (size_t i = 0; i < 8; i++) {
        EXPECT_STREQ(inet_ntoa(sent[i].to.sin_addr), i < 4 ? "192.0.2.1" : "192.0.2.2");
        if (i % 4) {
            EXPECT_EQ(sent[i].bytes, sent[i - 1].bytes);
        }
    }
    // Failover re-signs the same packet: Identifier and attributes stay.
    EXPECT_TRUE(signed_with(sent[0].bytes, "primary-secret"));
    EXPECT_TRUE(signed_with(sent[4].bytes, "backup-secret"));
    EXPECT_TRUE(std::equal(sent[0].bytes.begin(), sent[0].bytes.begin() + 4, sent[4].bytes.begin()));
    EXPECT_TRUE(std::equal(sent[0].bytes.begin() + 20, sent[0].bytes.end(),
                           sent[4].bytes.begin() + 20, sent[4].bytes.end()));

    EXPECT_EQ(r->on_off_count, 0);  // a failed Accounting-On keeps its profile
    EXPECT_EQ(list_length(&total_radius_server_header), 1u);
    const std::string out = console();
    EXPECT_NE(out.find("\n accounting fail. Accounting server 192.0.2.1 no response. Try backup.\n"),
              std::string::npos);
    EXPECT_NE(out.find("\n accounting fail. Accounting server 192.0.2.2 no response.\n"),
              std::string::npos);
}

// LeakSanitizer checks the releases: a removed profile is on no list that
// the fixture clears.
TEST_F(RetryTest, RemovedProfileIsReleasedByItsLastOnOffNode)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "192.0.2.1", "s");
    struct accounting_radius *other = make_profile("wlan-1-2", "192.0.2.9", "s");
    first_transmission(add_new_node_for_on_off(r), ACCOUNTING_ON);
    first_transmission(add_new_node_for_on_off(r), ACCOUNTING_OFF);
    remove_radius(r);
    testenv::now += 20;  // outlives the release on the same queues
    first_transmission(add_new_node_for_on_off(other), ACCOUNTING_ON);
    testenv::now -= 20;
    run_passes(36);
    EXPECT_EQ(list_length(&fail_queue_header) + list_length(&request_queue_header), 1u);
    const std::string out = console();
    size_t one = out.find("\n accounting fail. Accounting server 192.0.2.1 no response.\n"
                          "on_off_count now is: 1\n");
    EXPECT_NE(one, std::string::npos);
    EXPECT_NE(out.find("free RADIUS profile \n", one), std::string::npos);
}

TEST_F(RetryTest, RemovedProfileWithoutServersIsReleasedWhenDropped)
{
    struct accounting_radius *r = make_profile("wlan-1-1", "", "");
    first_transmission(add_new_node_for_on_off(r), ACCOUNTING_OFF);
    remove_radius(r);
    EXPECT_EQ(run_passes(), (std::vector<time_t>{6}));  // nothing sent
    EXPECT_NE(console().find("free RADIUS profile \n"), std::string::npos);
}

}  // namespace
