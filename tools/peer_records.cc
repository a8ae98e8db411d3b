#include "peer_records.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace {

template <class T>
T zeroed()
{
    T t;
    memset(&t, 0, sizeof t);
    return t;
}

template <size_t N>
void put(char (&field)[N], const std::string &text, bool terminated = true)
{
    memcpy(field, text.data(), std::min(text.size(), terminated ? N - 1 : N));
}

template <class T>
void append(std::vector<uint8_t> *out, const T &record)
{
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&record);
    out->insert(out->end(), p, p + sizeof record);
}

}  // namespace

ovat_config_event profile_record(const ProfileFields &f)
{
    auto c = zeroed<ovat_config_event>();
    put(c.interface, f.iface);
    put(c.hostname, f.host);
    c.port = f.port;
    put(c.backup_hostname, f.backup);
    c.backup_port = f.backup_port;
    put(c.secret, f.secret);
    put(c.backup_secret, f.backup_secret);
    c.nas_ip = f.nas_ip;
    put(c.nas_id, f.nas_id);
    c.acct_interim = f.interim_minutes;
    return c;
}

ovat_config_event profile_config(const char *iface, const char *primary, const char *secret,
                                 const char *backup, const char *backup_secret, int interim_minutes)
{
    ProfileFields f;
    f.iface = iface;
    f.host = primary;
    f.secret = secret;
    f.backup = backup;
    f.backup_secret = backup_secret;
    f.port = f.backup_port = 1813;
    f.interim_minutes = interim_minutes;
    return profile_record(f);
}

accounting_event_t control_event(int64_t id, const ovat_config_event &profile)
{
    accounting_event_t ev = control_event(id);
    ev.u.radius_profile = profile;
    return ev;
}

accounting_event_t control_event(int64_t id, const char *iface)
{
    auto ev = zeroed<accounting_event_t>();
    ev.event_id = id;
    put(ev.u.remove_profile.interface, iface);
    return ev;
}

portal_event_t portal_event(int event_id)
{
    auto p = zeroed<portal_event_t>();
    p.event_id = event_id;
    return p;
}

accounting_msg_t login_record(const LoginFields &f)
{
    auto m = zeroed<accounting_msg_t>();
    put(m.user_name, f.user);
    put(m.calling_station_id, f.mac);
    put(m.called_station_id, f.called);
    put(m.interface, f.iface);
    put(m.auth_module, f.auth_module);
    m.interim_interval = f.interim;
    put(m.nas_ip_acct, f.nas_ip);
    put(m.nas_id_acct, f.nas_id);
    size_t n = std::min(f.klass.size(), sizeof m.attr_class);
    memcpy(m.attr_class, f.klass.data(), n);
    m.class_length = f.class_length;
    put(m.session_id, f.session_id);
    return m;
}

accounting_msg_t login_record(const char *user, const char *mac, const char *iface, int interim)
{
    LoginFields f;
    f.user = user;
    f.mac = mac;
    f.iface = iface;
    f.interim = interim;
    return login_record(f);
}

staStatus_t station_report(const ReportFields &f)
{
    auto r = zeroed<staStatus_t>();
    r.associate = f.associate;
    r.client_ip = f.ip;
    memcpy(r.mac, f.mac, sizeof r.mac);
    put(r.iface, f.iface);
    r.vid = f.vid;
    return r;
}

staStatus_t station_report(const uint8_t *mac, uint32_t ip)
{
    ReportFields f;
    f.ip.s_addr = htonl(ip);
    memcpy(f.mac, mac, sizeof f.mac);
    return station_report(f);
}

std::vector<uint8_t> driver_message(const DriverFields &f)
{
    static_assert(sizeof(nlmsghdr) + sizeof(sarnet_ifinfomsg) == SARNET_ATTR_OFFSET, "layout");
    auto ev = zeroed<sarnet_event>();
    ev.hdr.cmd = f.cmd;
    memcpy(ev.data.u.sta.macaddr, f.mac, sizeof ev.data.u.sta.macaddr);
    ev.data.u.sta.tx_bytes = f.tx;
    ev.data.u.sta.rx_bytes = f.rx;
    if (f.has_ip) {
        ev.data.hdr.len = f.ip_offset;
        if (f.ip_offset + sizeof f.ip <= sizeof ev.data)
            memcpy(reinterpret_cast<uint8_t *>(&ev.data) + f.ip_offset, &f.ip, sizeof f.ip);
    }
    auto ifi = zeroed<sarnet_ifinfomsg>();
    put(ifi.ifi_name, f.iface, false);

    size_t payload = std::min(f.payload, sizeof ev);
    nlattr a;
    a.nla_len = static_cast<uint16_t>(f.nla_len < 0 ? sizeof a + payload : f.nla_len);
    a.nla_type = f.attr_type;
    auto h = zeroed<nlmsghdr>();
    size_t total = sizeof h + sizeof ifi + sizeof a + payload;
    h.nlmsg_len = static_cast<uint32_t>(f.nlmsg_len < 0 ? total : f.nlmsg_len);
    h.nlmsg_type = f.type;

    std::vector<uint8_t> m;
    append(&m, h);
    append(&m, ifi);
    append(&m, a);
    append(&m, ev);
    m.resize(total);  // a cut payload lets a short message and an event share a datagram
    return m;
}

std::vector<uint8_t> driver_message(uint16_t cmd, const char *ifname, const uint8_t *mac, uint64_t tx,
                                    uint64_t rx)
{
    DriverFields f;
    f.cmd = cmd;
    memcpy(f.mac, mac, sizeof f.mac);
    f.iface = std::string(ifname, strnlen(ifname, sizeof(sarnet_ifinfomsg::ifi_name)));
    f.tx = tx;
    f.rx = rx;
    return driver_message(f);
}

std::vector<uint8_t> netlink_message(uint16_t type, size_t len, uint32_t nlmsg_len)
{
    auto h = zeroed<nlmsghdr>();
    h.nlmsg_len = nlmsg_len;
    h.nlmsg_type = type;
    std::vector<uint8_t> m(sizeof h);
    memcpy(m.data(), &h, sizeof h);
    m.resize(len);
    return m;
}

uam_event uam_record(const UamFields &f)
{
    auto e = zeroed<uam_event>();
    e.event = f.event;
    put(e.service, f.service);
    put(e.method, f.method);
    put(e.real_username, f.real_username);
    put(e.username, f.username);
    put(e.sta_mac, f.sta_mac);
    put(e.ssid_vap_iface, f.iface);
    put(e.ssid_profile_name, f.ssid_profile);
    put(e.ssid_name, f.ssid);
    e.usr_from = f.usr_from;
    e.ip = f.ip;
    return e;
}

uam_event uam_login(const char *user, const char *mac, const char *iface, const char *ssid_profile)
{
    UamFields f;
    f.real_username = user;
    f.sta_mac = mac;
    f.iface = iface;
    f.ssid_profile = ssid_profile;
    return uam_record(f);
}
