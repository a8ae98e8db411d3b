// The records that the access point's peers send the daemon, built as those
// peers build them: by devsim, which plays the peers on their sockets, and by
// the unit tests and fuzz targets, which hand them to the input functions (so
// no gtest here). The layouts are the daemon's own headers, so that the peers
// and the daemon can never drift apart.
//
// Every byte a field does not set is zero, padding too, as the peers memset
// their records. Text is copied as given and cut to what its field holds:
// size - 1 characters and the terminator, or the whole field where none is
// needed. devsim refuses text that would be cut before it gets here.
#ifndef METERD_TOOLS_PEER_RECORDS_H
#define METERD_TOOLS_PEER_RECORDS_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "database/accounting.h"
#include "events/driver_events.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "frame/ovat_event.h"
#include "platform/platform.h"

// A server profile, of the control channel (event 4) or a portal entry.
struct ProfileFields {
    std::string iface, host, secret, backup, backup_secret, nas_id;
    int port = 0, backup_port = 0;
    struct in_addr nas_ip = {};  // network byte order
    int interim_minutes = 0;
};
ovat_config_event profile_record(const ProfileFields &f);
// A profile whose servers listen on 1813; "" for no backup.
ovat_config_event profile_config(const char *iface, const char *primary, const char *secret,
                                 const char *backup = "", const char *backup_secret = "",
                                 int interim_minutes = 0);

// A control datagram that carries a profile, or that names one interface
// (removal; "" for the events that read nothing).
accounting_event_t control_event(int64_t id, const ovat_config_event &profile);
accounting_event_t control_event(int64_t id, const char *iface = "");

// The cloud's portal datagram with every entry zero; the caller fills
// for_portal_profile.
portal_event_t portal_event(int event_id);

// The authenticator's login record.
struct LoginFields {
    std::string user, mac, called, iface, auth_module, nas_ip, nas_id, session_id;
    int interim = 0;
    std::string klass;  // the bytes of attr_class
    int class_length = 0;
};
accounting_msg_t login_record(const LoginFields &f);
accounting_msg_t login_record(const char *user, const char *mac, const char *iface, int interim = 0);

// The wireless HAL's report of a station's address.
struct ReportFields {
    int associate = DISASSOC;
    struct in_addr ip = {};  // network byte order
    uint8_t mac[6] = {};
    std::string iface;
    int vid = 0;
};
staStatus_t station_report(const ReportFields &f);
// With the other fields zero; ip in host order.
staStatus_t station_report(const uint8_t *mac, uint32_t ip);

// One wireless event message of the driver: header, interface, attribute and
// event. The lengths and types default to the true ones; tests of the
// daemon's reader set them to anything.
struct DriverFields {
    uint16_t cmd = 0;
    uint8_t mac[6] = {};
    std::string iface;  // ifi_name: all 16 bytes, no terminator needed
    uint64_t tx = 0, rx = 0;
    // The address of SARNET_CMD_STA_IP, at ip_offset in sarnet_req_data
    // (its hdr.len); left out where it would not fit the record.
    bool has_ip = false;
    uint16_t ip_offset = 0;
    struct in_addr ip = {};
    size_t payload = sizeof(sarnet_event);  // bytes of the event that are sent
    int64_t nla_len = -1, nlmsg_len = -1;   // -1: the true length
    uint16_t attr_type = SARNET_ATTR_EVENT, type = SARNETM_WIRELESS_EVENT;
};
std::vector<uint8_t> driver_message(const DriverFields &f);
std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac,
                                    uint64_t tx = 0, uint64_t rx = 0);
// A bare message of another type: the header and len - 16 zero bytes.
std::vector<uint8_t> netlink_message(uint16_t type, size_t len, uint32_t nlmsg_len);

// The UAM library's event.
struct UamFields {
    int event = UAM_EVENT_USER_LOGIN;
    std::string service, method, real_username, username, sta_mac, iface, ssid_profile, ssid;
    int usr_from = 0;
    uint32_t ip = 0;  // network byte order; UAM_NO_IP for none
};
uam_event uam_record(const UamFields &f);
// The login of a local user, with the other fields zero.
uam_event uam_login(const char *user, const char *mac, const char *iface, const char *ssid_profile);

#endif
