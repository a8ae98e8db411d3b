"""The daemon's wire records as its peers send them, as peer_records.cc builds them in C++, for the
demo, the bench, the soak, the fuzz seeds and the system tests. Host byte order (x86-64 here),
natural alignment; every byte a field does not set is zero, as the peers memset their records.
Text is given as str or bytes; struct cuts what is longer than its field. Each format's size is
asserted to be the size the daemon's headers assert."""
import socket
import struct

EV_REMOVE, EV_AC_IP_CHANGE, EV_INIT, EV_EXIT, EV_PORTAL, EV_SECRET_CHANGE = 2, 3, 4, 5, 6, 7
EV_DEBUG_OFF, EV_DEBUG_ON, EV_DUMP = 100, 101, 102

# ovat_config_event: interface, hostname, port, backup_hostname, backup_port, secret, backup_secret,
# nas_ip (network order), nas_id, acct_interim (minutes).
CONFIG = struct.Struct('<64s64si64si65s65s2x4s65s3xi')
CONTROL = struct.Struct('<q408s')                      # accounting_event_t: event_id, the union
PORTAL = struct.Struct('<i%ds' % (16 * CONFIG.size))   # portal_event_t: event_id, 2 x 8 entries
# accounting_msg_t: user_name, calling_station_id, called_station_id, interface, auth_module,
# interim_interval, nas_ip_acct, nas_id_acct, attr_class, class_length, session_id.
LOGIN = struct.Struct('<64s32s128s64s32si32s128s128si32s')
REPORT = struct.Struct('<i4s6s20s2xi')                 # staStatus_t: associate, client_ip, mac, iface, vid
# The driver's message: nlmsghdr, sarnet_ifinfomsg, nlattr, then sarnet_event: its header, the
# header of sarnet_req_data and sarnet_sta_info up to rx_bytes (vid, macaddr, 144 bytes, tx, rx).
NLMSGHDR = struct.Struct('<IHHII')
IFINFO = struct.Struct('<16sH2xi')
NLATTR = struct.Struct('<HH')
SARNET_EVENT = struct.Struct('<HH4xHH4xH6s144xQQ16x')
assert (CONFIG.size, CONTROL.size, PORTAL.size, LOGIN.size, REPORT.size) == (408, 416, 6532, 648, 40)
assert (NLMSGHDR.size, IFINFO.size, NLATTR.size, SARNET_EVENT.size) == (16, 24, 4, 200)
DRIVER_SIZE = NLMSGHDR.size + IFINFO.size + NLATTR.size + SARNET_EVENT.size  # 244
SARNET_WIRELESS_EVENT, SARNET_ATTR_EVENT = 1, 0x8000
STA_ASSOC, STA_DISASSOC, STA_COUNTERS, STA_IP = 0x8001, 0x8002, 0x8008, 0x8101
ASSOC = 1


def _text(s):
    return s.encode() if isinstance(s, str) else s


def config(iface='', host='', port=0, backup='', backup_port=0, secret='', backup_secret='',
           nas_ip='0.0.0.0', nas_id='', interim=0):
    return CONFIG.pack(_text(iface), _text(host), port, _text(backup), backup_port, _text(secret),
                       _text(backup_secret), socket.inet_aton(nas_ip), _text(nas_id), interim)


def event(event_id, *fields):
    # A control datagram: each text field of the union in 64 bytes, or bytes as given.
    payload = b''.join(struct.pack('64s', _text(f)) if isinstance(f, str) else f for f in fields)
    return CONTROL.pack(event_id, payload)


def ev_init(iface, host, port, secret, backup_host='', backup_port=0, backup_secret=''):
    # A profile without NAS address or identifier and without interim updates.
    return event(EV_INIT, config(iface, host, port, backup_host, backup_port, secret, backup_secret))


def portal(entries, event_id=EV_PORTAL):
    # entries: {index: config bytes}, index 8 * (radio - 1) + (WLAN - 1); the rest zero.
    return PORTAL.pack(event_id, b''.join(entries.get(i, bytes(CONFIG.size)) for i in range(16)))


def login(user='', mac='', called='', iface='', auth_module='', interim=0, nas_ip='', nas_id='', klass=b'',
          session_id='', class_length=None):
    return LOGIN.pack(*map(_text, (user, mac, called, iface, auth_module)), interim, _text(nas_ip),
                      _text(nas_id), klass, len(klass) if class_length is None else class_length, _text(session_id))


def report(mac, ip, iface='', associate=ASSOC, vid=0):
    # mac: 6 bytes; ip: dotted text.
    return REPORT.pack(associate, socket.inet_aton(ip), mac, _text(iface), vid)


def driver(cmd, mac, iface, tx=0, rx=0, ip=None, ip_offset=176):
    # One whole wireless event message; ip (dotted text) goes at ip_offset of sarnet_req_data.
    ev = bytearray(SARNET_EVENT.pack(0, cmd, ip_offset if ip else 0, 0, 0, mac, tx, rx))
    if ip:
        ev[8 + ip_offset:8 + ip_offset + 4] = socket.inet_aton(ip)
    return (NLMSGHDR.pack(DRIVER_SIZE, SARNET_WIRELESS_EVENT, 0, 0, 0) + IFINFO.pack(_text(iface), 0, 0) +
            NLATTR.pack(NLATTR.size + len(ev), SARNET_ATTR_EVENT) + ev)


# struct uam_event, every field under its own name.
UAM_FIELDS = ('event count sub_event service username real_username define_name unique ip dst_ip tunnel_ip '
              'attribute type update ip6 dst_ip6 tunnel_ip6 event_flag default_lease_time default_reauth_time '
              'match_flag idle_timeout idle_timeout_form_acct_flag session_timeout radius_profile_name '
              'old_radius_profile_name accounting_status notify_cc method locale gender age auth_time ssid_name '
              'ssid_profile_name ssid_vap_iface sta_mac usr_from ga_acct_status ga_binding_token wispr_bw_up '
              'wispr_bw_down ssh_tty').split()
UAM = struct.Struct('<3i32s64s64s64s65s3x3I2B2xI16s16s16sI2i2IiI128s128s2i32s16s16s16s16s64s64s16s32s2i128s2i64s')
assert UAM.size == 1144 and len(UAM_FIELDS) == len(UAM.unpack(bytes(UAM.size)))


def uam(event, **fields):
    # Fields by their names in struct uam_event; ip is its 32 bits as stored (0xFFFFFFFF for none).
    values = dict(zip(UAM_FIELDS, UAM.unpack(bytes(UAM.size))), event=event)
    values.update((k, _text(v) if isinstance(v, str) else v) for k, v in fields.items())
    return UAM.pack(*(values[name] for name in UAM_FIELDS))
