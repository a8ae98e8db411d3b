// The fixed records that local peers send on Unix datagram sockets: the
// authenticator's login, the wireless HAL's station report, the cloud's
// portal profiles and the UAM service's events.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "devsim.h"
#include "peer_records.h"

namespace devsim {

namespace {

// "0x" and hex digits give bytes; anything else is taken as text, without a terminator.
std::string class_bytes(const std::string &text, size_t size)
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
    return bytes;
}

int run_login(const Command &cmd, const Words &words)
{
    using M = accounting_msg_t;
    Args a(cmd, words);
    LoginFields f;
    f.user = a.text("--user", "user1", &M::user_name);
    f.mac = a.text("--mac", DEVSIM_MAC, &M::calling_station_id);
    f.called = a.text("--called", "02-00-00-00-00-01:SSID1", &M::called_station_id);
    f.iface = a.text("--iface", DEVSIM_IFACE, &M::interface);
    f.auth_module = a.text("--auth-module", "", &M::auth_module);
    f.interim = a.integer("--interim", 0);
    f.nas_ip = a.text("--nas-ip", "", &M::nas_ip_acct);
    f.nas_id = a.text("--nas-id", "", &M::nas_id_acct);
    f.klass = class_bytes(a.get("--class"), sizeof(M::attr_class));
    f.class_length = a.integer("--class-length", static_cast<int>(f.klass.size()));
    f.session_id = a.text("--session-id", "", &M::session_id);
    accounting_msg_t m = login_record(f);
    send_unix(ACCOUNTING_RECV_RADIUS_SOCK, &m, sizeof m);
    return 0;
}

int run_report(const Command &cmd, const Words &words)
{
    Args a(cmd, words);
    ReportFields f;
    f.associate = a.has("--disassoc") ? DISASSOC : ASSOC;
    f.ip = a.ipv4("--ip", DEVSIM_IP);
    a.mac("--mac", f.mac);
    f.iface = a.text("--iface", DEVSIM_IFACE, &staStatus_t::iface);
    f.vid = a.integer("--vid", 0);
    staStatus_t s = station_report(f);
    send_unix(ACCOUNTING_RECV_WHAL_SOCK, &s, sizeof s);
    return 0;
}

// SETTINGS of one --entry: key=value pairs joined by commas.
ovat_config_event portal_entry(const std::string &iface, const std::string &settings)
{
    using E = ovat_config_event;
    check_text("--entry", iface, sizeof(E::interface));
    ProfileFields f;
    f.iface = iface;
    bool port = false, backup_port = false;
    for (size_t start = 0, end; start < settings.size(); start = end + 1) {
        end = std::min(settings.find(',', start), settings.size());
        std::string pair = settings.substr(start, end - start);
        size_t eq = pair.find('=');
        if (eq == std::string::npos)
            bad("--entry %s: '%s' is not KEY=VALUE", iface.c_str(), pair.c_str());
        std::string key = pair.substr(0, eq), value = pair.substr(eq + 1);
        std::string label = "--entry " + iface + " " + key;
        auto text = [&](std::string *field, size_t size) {
            check_text(label, value, size);
            *field = value;
        };
        if (key == "host") {
            text(&f.host, sizeof(E::hostname));
        } else if (key == "port") {
            port = true;
            f.port = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else if (key == "secret") {
            text(&f.secret, sizeof(E::secret));
        } else if (key == "backup") {
            text(&f.backup, sizeof(E::backup_hostname));
        } else if (key == "backup-port") {
            backup_port = true;
            f.backup_port = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else if (key == "backup-secret") {
            text(&f.backup_secret, sizeof(E::backup_secret));
        } else if (key == "nas-ip") {
            f.nas_ip = parse_ipv4(label, value);
        } else if (key == "nas-id") {
            text(&f.nas_id, sizeof(E::nas_id));
        } else if (key == "interim") {
            f.interim_minutes = static_cast<int>(parse_number(label, value, INT_MIN, INT_MAX));
        } else {
            bad("--entry %s: unknown setting '%s'", iface.c_str(), key.c_str());
        }
    }
    // A server named without a port listens on the standard accounting port.
    if (!port && !f.host.empty())
        f.port = 1813;
    if (!backup_port && !f.backup.empty())
        f.backup_port = 1813;
    return profile_record(f);
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
    portal_event_t p = portal_event(a.integer("--event", ACCOUNTING_EVENT_MODIFY_FOR_PORTAL));
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
        p.for_portal_profile[radio - 1][wlan - 1] = portal_entry(entry[0], entry[1]);
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
    using E = uam_event;
    Args a(cmd, words);
    UamFields f;
    std::string event = a.get("--event", "login");
    f.event = -1;
    for (const EventName &n : uam_events)
        if (event == n.name)
            f.event = n.number;
    if (f.event == -1) {
        if (event.find_first_not_of("-0123456789xabcdefABCDEF") != std::string::npos)
            bad("--event: '%s' is no event name (devsim uam --help lists them)", event.c_str());
        f.event = static_cast<int>(parse_number("--event", event, INT_MIN, INT_MAX));
    }
    f.service = a.text("--service", "", &E::service);
    f.method = a.text("--method", "", &E::method);
    f.real_username = a.text("--user", "user1", &E::real_username);
    f.username = a.text("--user", "user1", &E::username);
    f.sta_mac = a.text("--mac", DEVSIM_MAC, &E::sta_mac);
    f.iface = a.text("--iface", DEVSIM_IFACE, &E::ssid_vap_iface);
    int radio = 0, wlan = 0;
    std::string profile;
    if (wlan_numbers(a.get("--iface", DEVSIM_IFACE), &radio, &wlan))
        profile = "SSID" + std::to_string(wlan);
    f.ssid_profile = a.text("--ssid-profile", profile.c_str(), &E::ssid_profile_name);
    f.ssid = a.text("--ssid", profile.c_str(), &E::ssid_name);
    if (a.has("--foreign") && a.has("--from"))
        bad("--foreign: --from says otherwise");
    f.usr_from = a.integer("--from", a.has("--foreign") ? USR_FROM_FOREIGN : 0);
    if (a.has("--no-ip") && a.has("--ip"))
        bad("--no-ip: --ip says otherwise");
    f.ip = a.has("--no-ip") ? UAM_NO_IP : a.ipv4("--ip", DEVSIM_IP).s_addr;
    uam_event e = uam_record(f);
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
