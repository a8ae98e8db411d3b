// The fixed records that local peers send on Unix datagram sockets: the
// authenticator's login, the wireless HAL's station report, the cloud's
// portal profiles and the UAM service's events.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "database/accounting.h"
#include "devsim.h"
#include "events/portal_events.h"
#include "events/station_events.h"
#include "platform/platform.h"

namespace devsim {

namespace {

// "0x" and hex digits give bytes; anything else is taken as text, without a terminator.
int class_bytes(const std::string &text, unsigned char *out, size_t size)
{
    std::string bytes = text;
    if (text.compare(0, 2, "0x") == 0) {
        std::string hex = text.substr(2);
        if (hex.empty() || hex.size() % 2 ||
            hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            bad("--class: '%s' is not an even number of hex digits after 0x", text.c_str());
        bytes.clear();
        for (size_t i = 0; i < hex.size(); i += 2)
            bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    if (bytes.size() > size)
        bad("--class: %zu bytes, the field holds %zu", bytes.size(), size);
    memcpy(out, bytes.data(), bytes.size());
    return static_cast<int>(bytes.size());
}

int run_login(const Command &cmd, const Words &words)
{
    Args a(cmd, words);
    accounting_msg_t m;
    memset(&m, 0, sizeof m);
    a.text("--user", "user1", m.user_name);
    a.text("--mac", DEVSIM_MAC, m.calling_station_id);
    a.text("--called", "02-00-00-00-00-01:SSID1", m.called_station_id);
    a.text("--iface", DEVSIM_IFACE, m.interface);
    a.text("--auth-module", "", m.auth_module);
    m.interim_interval = a.integer("--interim", 0);
    a.text("--nas-ip", "", m.nas_ip_acct);
    a.text("--nas-id", "", m.nas_id_acct);
    m.class_length = class_bytes(a.get("--class"), m.attr_class, sizeof m.attr_class);
    m.class_length = a.integer("--class-length", m.class_length);
    a.text("--session-id", "", m.session_id);
    send_unix(ACCOUNTING_RECV_RADIUS_SOCK, &m, sizeof m);
    return 0;
}

int run_report(const Command &cmd, const Words &words)
{
    Args a(cmd, words);
    staStatus_t s;
    memset(&s, 0, sizeof s);
    s.associate = a.has("--disassoc") ? DISASSOC : ASSOC;
    s.client_ip = a.ipv4("--ip", DEVSIM_IP);
    a.mac("--mac", s.mac);
    a.text("--iface", DEVSIM_IFACE, s.iface);
    s.vid = a.integer("--vid", 0);
    send_unix(ACCOUNTING_RECV_WHAL_SOCK, &s, sizeof s);
    return 0;
}

// SETTINGS of one --entry: key=value pairs joined by commas.
void portal_entry(const std::string &iface, const std::string &settings, ovat_config_event *e)
{
    put_text("--entry", iface, e->interface, sizeof e->interface);
    bool port = false, backup_port = false;
    for (size_t start = 0, end; start < settings.size(); start = end + 1) {
        end = std::min(settings.find(',', start), settings.size());
        std::string pair = settings.substr(start, end - start);
        size_t eq = pair.find('=');
        if (eq == std::string::npos)
            bad("--entry %s: '%s' is not KEY=VALUE", iface.c_str(), pair.c_str());
        std::string key = pair.substr(0, eq), value = pair.substr(eq + 1);
        std::string label = "--entry " + iface + " " + key;
        if (key == "host") {
            put_text(label, value, e->hostname, sizeof e->hostname);
        } else if (key == "port") {
            port = true;
            e->port = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else if (key == "secret") {
            put_text(label, value, e->secret, sizeof e->secret);
        } else if (key == "backup") {
            put_text(label, value, e->backup_hostname, sizeof e->backup_hostname);
        } else if (key == "backup-port") {
            backup_port = true;
            e->backup_port = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else if (key == "backup-secret") {
            put_text(label, value, e->backup_secret, sizeof e->backup_secret);
        } else if (key == "nas-ip") {
            e->nas_ip = parse_ipv4(label, value);
        } else if (key == "nas-id") {
            put_text(label, value, e->nas_id, sizeof e->nas_id);
        } else if (key == "interim") {
            e->acct_interim = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else {
            bad("--entry %s: unknown setting '%s'", iface.c_str(), key.c_str());
        }
    }
    // A server named without a port listens on the standard accounting port.
    if (!port && e->hostname[0])
        e->port = 1813;
    if (!backup_port && e->backup_hostname[0])
        e->backup_port = 1813;
}

// wlan-R-W as radio and WLAN from 1; false for anything else.
bool wlan_numbers(const std::string &iface, int *radio, int *wlan)
{
    char tail;
    return sscanf(iface.c_str(), "wlan-%d-%d%c", radio, wlan, &tail) == 2;
}

int run_portal(const Command &cmd, const Words &words)
{
    Args a(cmd, words);
    portal_event_t p;
    memset(&p, 0, sizeof p);
    p.event_id = a.integer("--event", ACCOUNTING_EVENT_MODIFY_FOR_PORTAL);
    bool seen[PORTAL_SLOTS][PORTAL_VAPS] = {};
    for (const Words &entry : a.all("--entry")) {
        int radio = 0, wlan = 0;
        if (!wlan_numbers(entry[0], &radio, &wlan) || radio < 1 || radio > PORTAL_SLOTS || wlan < 1 ||
            wlan > PORTAL_VAPS)
            bad("--entry: '%s' is none of wlan-1-1 to wlan-%d-%d", entry[0].c_str(), PORTAL_SLOTS,
                PORTAL_VAPS);
        if (seen[radio - 1][wlan - 1])
            bad("--entry: %s given twice", entry[0].c_str());
        seen[radio - 1][wlan - 1] = true;
        portal_entry(entry[0], entry[1], &p.for_portal_profile[radio - 1][wlan - 1]);
    }
    send_unix(ACCOUNTING_PORTAL_SOCK, &p, sizeof p);
    return 0;
}

struct EventName {
    const char *name;
    int number;
};
const EventName uam_events[] = {
    {"login", UAM_EVENT_USER_LOGIN},
    {"logout", UAM_EVENT_USER_LOGOUT},
    {"logout2", UAM_EVENT_USER_LOGOUT2},
    {"reauth-timeout", UAM_EVENT_USER_REAUTH_TIMEOUT},
    {"lease-timeout", UAM_EVENT_USER_LEASE_TIMEOUT},
    {"idle-timeout", UAM_EVENT_USER_IDLE_TIMEOUT},
    {"session-timeout", UAM_EVENT_USER_SESSION_TIMEOUT},
    {"force-logout", UAM_EVENT_USER_FORCE_LOGOUT},
};

int run_uam(const Command &cmd, const Words &words)
{
    Args a(cmd, words);
    struct uam_event e;
    memset(&e, 0, sizeof e);
    std::string event = a.get("--event", "login");
    e.event = -1;
    for (const EventName &n : uam_events)
        if (event == n.name)
            e.event = n.number;
    if (e.event == -1) {
        if (event.find_first_not_of("-0123456789xabcdefABCDEF") != std::string::npos)
            bad("--event: '%s' is no event name (devsim uam --help lists them)", event.c_str());
        e.event = static_cast<int>(parse_number("--event", event, INT_MIN, INT_MAX));
    }
    a.text("--service", "", e.service);
    a.text("--method", "", e.method);
    a.text("--user", "user1", e.real_username);
    a.text("--user", "user1", e.username);
    a.text("--mac", DEVSIM_MAC, e.sta_mac);
    a.text("--iface", DEVSIM_IFACE, e.ssid_vap_iface);
    int radio = 0, wlan = 0;
    std::string profile;
    if (wlan_numbers(a.get("--iface", DEVSIM_IFACE), &radio, &wlan))
        profile = "SSID" + std::to_string(wlan);
    a.text("--ssid-profile", profile.c_str(), e.ssid_profile_name);
    a.text("--ssid", profile.c_str(), e.ssid_name);
    if (a.has("--foreign") && a.has("--from"))
        bad("--foreign: --from says otherwise");
    e.usr_from = a.integer("--from", a.has("--foreign") ? USR_FROM_FOREIGN : 0);
    if (a.has("--no-ip") && a.has("--ip"))
        bad("--no-ip: --ip says otherwise");
    e.ip = a.has("--no-ip") ? UAM_NO_IP : a.ipv4("--ip", DEVSIM_IP).s_addr;
    send_unix(root() + "/uam.sock", &e, sizeof e);
    return 0;
}

}  // namespace

const Command login_command = {
    "login", "[options]",
    "send a login record (accounting_msg_t, 648 bytes), as the authenticator does\n"
    "Goes to " ACCOUNTING_RECV_RADIUS_SOCK ". Text fields are sent as given.",
    {
        {"--user", "TEXT", "user_name (user1)"},
        {"--mac", "TEXT", "calling_station_id, any text (" DEVSIM_MAC ")"},
        {"--called", "TEXT", "called_station_id (02-00-00-00-00-01:SSID1)"},
        {"--iface", "NAME", "interface (" DEVSIM_IFACE ")"},
        {"--auth-module", "TEXT", "auth_module (empty)"},
        {"--interim", "SECONDS", "interim_interval (0)"},
        {"--nas-ip", "TEXT", "nas_ip_acct (empty)"},
        {"--nas-id", "TEXT", "nas_id_acct (empty)"},
        {"--class", "BYTES", "attr_class, 0x and hex digits or text; class_length is their count"},
        {"--class-length", "N", "class_length as given, whatever --class holds"},
        {"--session-id", "TEXT", "session_id (empty)"},
    },
    run_login,
};

const Command report_command = {
    "report", "[options]",
    "send a station report (staStatus_t, 40 bytes), as the wireless HAL does\n"
    "Goes to " ACCOUNTING_RECV_WHAL_SOCK ".",
    {
        {"--mac", "MAC", "mac (" DEVSIM_MAC ")"},
        {"--ip", "A.B.C.D", "client_ip (" DEVSIM_IP ")"},
        {"--iface", "NAME", "iface (" DEVSIM_IFACE ")"},
        {"--vid", "N", "vid (0)"},
        {"--disassoc", nullptr, "associate is DISASSOC (else ASSOC)"},
    },
    run_report,
};

const Command portal_command = {
    "portal", "[--event N] [--entry IFACE SETTINGS ...]",
    "send the portal profiles (portal_event_t, 6532 bytes), as the cloud does\n"
    "Goes to " ACCOUNTING_PORTAL_SOCK ". Entries not given are all zero. SETTINGS are\n"
    "KEY=VALUE joined by commas: host, port (1813), secret, backup, backup-port (1813),\n"
    "backup-secret, nas-ip, nas-id, interim (minutes). Example:\n"
    "  devsim portal --entry wlan-1-1 host=127.0.0.1,secret=s3cret --entry wlan-2-3 host=10.0.0.9",
    {
        {"--event", "N", "event_id (6)"},
        {"--entry", "IFACE SETTINGS", "the entry of IFACE, wlan-1-1 to wlan-2-8", true},
    },
    run_portal,
};

const Command uam_command = {
    "uam", "[options]",
    "send a UAM event (struct uam_event, 1144 bytes), as the UAM service does\n"
    "Goes to $DEVSIM_ROOT/uam.sock, where the simulated UAM library reads it.",
    {
        {"--event", "N|NAME",
         "event (login); login, logout, logout2, reauth-timeout, lease-timeout, idle-timeout, "
         "session-timeout, force-logout"},
        {"--service", "TEXT", "service (empty), e.g. 802.1x, mac-auth"},
        {"--method", "TEXT", "method (empty), e.g. click-through"},
        {"--user", "TEXT", "real_username and username (user1)"},
        {"--mac", "TEXT", "sta_mac, any text (" DEVSIM_MAC ")"},
        {"--iface", "NAME", "ssid_vap_iface (" DEVSIM_IFACE ")"},
        {"--ssid", "TEXT", "ssid_name (as --ssid-profile)"},
        {"--ssid-profile", "TEXT", "ssid_profile_name (SSID<W> of the iface wlan-R-W)"},
        {"--from", "N", "usr_from (0)"},
        {"--foreign", nullptr, "usr_from is 2, a foreign user"},
        {"--ip", "A.B.C.D", "ip (" DEVSIM_IP ")"},
        {"--no-ip", nullptr, "ip is 0xFFFFFFFF, no address"},
    },
    run_uam,
};

}  // namespace devsim
