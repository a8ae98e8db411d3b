// The control channel as the control thread sees it: datagrams of any
// length, the dispatch, the diagnostic arms, the dump and the profile arms.
#include <arpa/inet.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "database/accounting_db_api.h"
#include "frame/meterd.h"
#include "frame/control.h"
#include "radius/radius_send_recieve.h"
#include "test_support.h"

namespace {

class Control : public DbTest {
protected:
    accounting_event_t rec{};  // the thread's record, kept across datagrams

    void send(int64_t id, const void *payload = nullptr, size_t payload_len = 0,
              size_t len = sizeof(accounting_event_t))
    {
        accounting_event_t ev;
        memset(&ev, 0, sizeof ev);
        ev.event_id = id;
        if (payload)
            memcpy(&ev.u, payload, payload_len);
        ovat_event_input(&rec, &ev, len);
    }

    void init_profile(const char *iface, const char *host, const char *secret,
                      const char *backup = "", const char *backup_secret = "")
    {
        struct ovat_config_event cfg;
        memset(&cfg, 0, sizeof cfg);
        copy_text(cfg.interface, sizeof cfg.interface, iface);
        copy_text(cfg.hostname, sizeof cfg.hostname, host);
        cfg.port = 1813;
        copy_text(cfg.secret, sizeof cfg.secret, secret);
        copy_text(cfg.backup_hostname, sizeof cfg.backup_hostname, backup);
        cfg.backup_port = 1813;
        copy_text(cfg.backup_secret, sizeof cfg.backup_secret, backup_secret);
        send(ACCOUNTING_EVENT_INIT, &cfg, sizeof cfg);
    }

    static std::string dump()
    {
        std::ifstream in(METERD_DB_DUMP);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    static uint32_t status_of(const SentDatagram &d) { return d.bytes.size() >= 26 ? d.bytes[25] : 0; }
};

std::string ptr(const void *p)
{
    char buf[32];
    snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

TEST_F(Control, DebugEventsAndUnknownNumbers)
{
    debug = 0;
    send(ACCOUNTING_EVENT_DEBUG_ON);
    EXPECT_EQ(debug, 1);
    send(ACCOUNTING_EVENT_DEBUG_ON);  // again: the line is written again
    send(ACCOUNTING_EVENT_DEBUG_OFF);
    EXPECT_EQ(debug, 0);
    send(static_cast<int64_t>(0x100000000LL) | ACCOUNTING_EVENT_DEBUG_ON);  // upper half set
    send(ACCOUNTING_EVENT_MODIFY_FOR_PORTAL);
    send(0);
    EXPECT_EQ(debug, 0);
    std::string out = console();
    size_t first = out.find("debug level: 1\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(out.find("debug level: 1\n", first + 1), std::string::npos);
}

TEST_F(Control, ShortDatagramsReuseWhatTheRecordHolds)
{
    send(ACCOUNTING_EVENT_DEBUG_OFF);
    // An empty datagram runs the previous event again with its payload...
    debug = 1;
    send(0, nullptr, 0, 0);
    EXPECT_EQ(debug, 0);
    // ...and a short one overwrites only its own bytes.
    send(ACCOUNTING_EVENT_DEBUG_ON, nullptr, 0, 8);
    EXPECT_EQ(debug, 1);
    // Over-long input is cut to the record.
    std::string big(600, '\0');
    int64_t id = ACCOUNTING_EVENT_DEBUG_OFF;
    memcpy(&big[0], &id, sizeof id);
    ovat_event_input(&rec, big.data(), big.size());
    EXPECT_EQ(debug, 0);
}

TEST_F(Control, DumpOfEmptyDatabaseAndOfQueuedNodes)
{
    send(ACCOUNTING_EVENT_DEBUG_DUMP);
    EXPECT_EQ(dump(), "scheduler: \n\nrequest queue: " + ptr(&request_queue_header) +
                          "\n\nfail queue: " + ptr(&fail_queue_header) + "\n");

    init_profile("wlan-1-1", "127.0.0.1", "secret");
    send(ACCOUNTING_EVENT_DEBUG_DUMP);
    std::string expected = "scheduler: \ntime:" + std::to_string(testenv::now + 5) +
                           ", queue_header: " + ptr(&request_queue_header) +
                           " \n\nrequest queue: " + ptr(&request_queue_header) +
                           "\nusername:  , report_time: " + std::to_string(testenv::now + 5) +
                           ", interface:wlan-1-1 \n\nfail queue: " + ptr(&fail_queue_header) + "\n";
    EXPECT_EQ(dump(), expected);
    // Each dump line also reaches the console, whatever debug says.
    EXPECT_NE(console().find("username:  , report_time:"), std::string::npos);
}

TEST_F(Control, ProfileComesUpAndGoesDown)
{
    init_profile("wlan-1-1", "127.0.0.1", "secret");
    ASSERT_EQ(testenv::sent.size(), 1u);
    EXPECT_EQ(status_of(testenv::sent[0]), 7u);
    EXPECT_EQ(ntohs(testenv::sent[0].to.sin_port), 1813);
    struct accounting_radius *r = search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->on_off_count, 1);

    struct ovat_remove_event rm;
    memset(&rm, 0, sizeof rm);
    copy_text(rm.interface, sizeof rm.interface, "wlan-1-2");
    send(ACCOUNTING_EVENT_REMOVE, &rm, sizeof rm);  // no such profile
    EXPECT_NE(console().find("accounting-do_event_handler_ovat-"), std::string::npos);
    EXPECT_NE(console().find(": search_radius fail.\n"), std::string::npos);
    EXPECT_EQ(testenv::sent.size(), 1u);

    copy_text(rm.interface, sizeof rm.interface, "wlan-1-1");
    send(ACCOUNTING_EVENT_REMOVE, &rm, sizeof rm);
    ASSERT_EQ(testenv::sent.size(), 2u);
    EXPECT_EQ(status_of(testenv::sent[1]), 8u);
    EXPECT_EQ(search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL), nullptr);
    EXPECT_EQ(r->acct_status, ACCOUNTING_OFF);
    EXPECT_EQ(r->on_off_count, 2);  // the On and the Off both still wait
    EXPECT_EQ(list_length(&request_queue_header), 2u);
}

TEST_F(Control, ExitSendsOneOffPerNormalProfileAndKeepsThem)
{
    init_profile("wlan-1-1", "127.0.0.1", "a");
    init_profile("wlan-1-2", "127.0.0.1", "b");
    testenv::sent.clear();
    send(ACCOUNTING_EVENT_EXIT);
    ASSERT_EQ(testenv::sent.size(), 2u);
    EXPECT_EQ(status_of(testenv::sent[0]), 8u);
    EXPECT_EQ(status_of(testenv::sent[1]), 8u);
    EXPECT_EQ(list_length(&request_queue_header), 2u);  // only the two Accounting-On
    struct accounting_radius *r = search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->acct_status, ACCOUNTING_ON);
    EXPECT_EQ(r->on_off_count, 2);
}

TEST_F(Control, AddressAndSecretChangesReachOnlyMatchingPrimaries)
{
    init_profile("wlan-1-1", "10.1.1.1", "old");
    struct ovat_ac_ip_change ch;
    memset(&ch, 0, sizeof ch);
    copy_text(ch.old_ac_ip, sizeof ch.old_ac_ip, "10.1.1.1");
    copy_text(ch.new_ac_ip, sizeof ch.new_ac_ip, "new-secret");
    send(ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE, &ch, sizeof ch);
    copy_text(ch.new_ac_ip, sizeof ch.new_ac_ip, "127.0.0.2");
    send(ACCOUNTING_EVENT_AC_IP_CHANGE, &ch, sizeof ch);
    struct accounting_radius *r = search_radius_by_interface("wlan-1-1", PROFILE_TYPE_NORMAL);
    EXPECT_STREQ(r->primary_server->secret, "new-secret");
    EXPECT_STREQ(r->primary_server->hostname, "127.0.0.2");
    EXPECT_NE(console().find("accounting_event_AC_ip_change\n"), std::string::npos);
    EXPECT_NE(console().find("ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE\n"), std::string::npos);
}

}  // namespace
