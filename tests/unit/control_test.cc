// The profile arms of the control channel where the real binary cannot be
// made to show them: allocation failure and a server that never resolved.
#include <cstring>
#include <string>

#include "database/accounting_db_api.h"
#include "frame/control.h"
#include "frame/memory.h"
#include "test_support.h"

namespace {

class Control : public DbTest {
protected:
    accounting_event_t rec{};

    void send(int64_t id, const void *payload, size_t len)
    {
        accounting_event_t ev{};
        ev.event_id = id;
        memcpy(&ev.u, payload, len);
        ovat_event_input(&rec, &ev, sizeof ev);
    }

    void init(const char *iface, const char *host = "127.0.0.1")
    {
        struct ovat_config_event cfg{};
        copy_text(cfg.interface, sizeof cfg.interface, iface);
        copy_text(cfg.hostname, sizeof cfg.hostname, host);
        cfg.port = 1813;
        send(ACCOUNTING_EVENT_INIT, &cfg, sizeof cfg);
    }

    void remove(const char *iface)
    {
        struct ovat_remove_event rm{};
        copy_text(rm.interface, sizeof rm.interface, iface);
        send(ACCOUNTING_EVENT_REMOVE, &rm, sizeof rm);
    }
};

TEST_F(Control, ProfileArmsUnderAllocationFailure)
{
    mtr_alloc_fail_at(1);  // the profile record
    init("wlan-1-1");
    EXPECT_TRUE(list_empty(&total_radius_server_header));
    EXPECT_NE(console().find(": add_radius fail.\n"), std::string::npos);

    mtr_alloc_fail_at(2);  // the primary server record: listed, half filled, silent
    init("wlan-1-2");
    EXPECT_EQ(list_length(&total_radius_server_header), 1u);
    EXPECT_NE(console().find(": update_radius_profile fail\n"), std::string::npos);
    EXPECT_TRUE(testenv::sent.empty());

    init("wlan-1-3");
    mtr_alloc_fail_at(1);  // no Accounting-Off node: the profile goes all the same
    remove("wlan-1-3");
    EXPECT_EQ(search_radius_by_interface("wlan-1-3", PROFILE_TYPE_NORMAL), nullptr);
    EXPECT_EQ(testenv::sent.size(), 1u);  // only its Accounting-On
}

TEST_F(Control, UnresolvedServerGetsNothingButTheNodeWaits)
{
    // Never resolved: the address is still 0.0.0.0, which means this host.
    init("wlan-1-1", "0.0.0.0");
    EXPECT_TRUE(testenv::sent.empty());
    EXPECT_EQ(list_length(&request_queue_header), 1u);
    EXPECT_NE(console().find("accounting send fail.\n"), std::string::npos);
}

}  // namespace
