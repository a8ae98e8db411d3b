#!/usr/bin/env python3
# Writes the seed corpus: valid records of each input, in the frames that
# fuzz.cc reads, aimed at the sessions and profiles of its starting database.
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, '..', 'tools'))
import records  # noqa: E402

DEBUG, PASS, SIGN, BACKUP = 0x09, 0x10, 0x20, 0x40
KEEP = 0x80  # the response target's first selector: meterd -k, a probe in flight
LATER6, LATER60 = 2 << 1, 3 << 1  # flags: move the clock on first, by 6 or 60 seconds


def frame(record, flags=0, select=None):
    head = bytes([flags]) + (bytes([select]) if select is not None else b'')
    return head + struct.pack('<H', len(record)) + record


def text(s, n):
    return struct.pack('%ds' % n, s.encode())


def config(iface, host, backup=''):
    return records.config(iface, host, 1813, backup, 1813, 'primary-secret', 'backup-secret', '127.0.0.1', 'nas', 1)


control = records.event


def portal(entries):
    return records.portal({i: config('', *hosts) for i, hosts in entries.items()})


def login(user, mac, iface, session_id='', klass=b''):
    return records.login(user, mac, '02-00-00-00-00-01:ssid', iface, 'portal', 60, '10.0.0.1', 'ap', klass, session_id)


def report(last):
    return records.report(bytes([2, 0, 0, 0, 0, last]), '10.0.0.%d' % last, 'wlan-1-1', vid=1)


def driver(cmd, last, iface, tx=0, rx=0, ip_at=0):
    return records.driver(cmd, bytes([2, 0, 0, 0, 0, last]), iface, tx, rx, '10.0.0.99' if ip_at else None, ip_at)


def uam(event, mac, iface='wlan-1-3', usr_from=0, service='', method=''):
    return records.uam(event, service=service, real_username='bob', method=method, ssid_name='ssid',
                       ssid_profile_name='SSID3', ssid_vap_iface=iface, sta_mac=mac, usr_from=usr_from)


def rpacket(code, ident, length, fill=0):  # a RADIUS packet as the stream carries it
    return bytes([code, ident]) + struct.pack('!H', length) + bytes([fill]) * (length - 4)


SEEDS = {
    'control': {
        'init': frame(control(4, config('wlan-1-5', '127.0.0.1', '127.0.0.2')), DEBUG),
        'remove': frame(control(2, text('wlan-1-1', 64))),
        'ip_change': frame(control(3, text('127.0.0.1', 64) + text('127.0.0.9', 64))),
        'secret': frame(control(7, text('127.0.0.1', 64) + text('new-secret', 64))),
        'exit_remove_retry': frame(control(5)) + frame(control(2, text('wlan-1-1', 64))) +
        b''.join(frame(control(0), LATER6 | PASS) for _ in range(10)),
        'debug_dump': frame(control(101)) + frame(control(102)) + frame(control(100)),
        'short_repeat': frame(control(4, config('wlan-1-6', 'localhost')))[:3 + 200] + frame(b''),
        # The delivery counters: whole, with a payload, cut to the number, then one byte over it.
        'stats': frame(control(103), DEBUG) + frame(control(103, text('wlan-1-1', 64)), LATER6 | PASS) +
        frame(control(103)[:8]) + frame(b'\x67'),
    },
    'portal': {
        'two': frame(portal({0: ('127.0.0.1', '127.0.0.2'), 9: ('127.0.0.1',)}), DEBUG),
        # A short datagram overwrites the first entries and keeps the rest.
        'short': frame(portal({0: ('127.0.0.1',)})[:4 + 408]) + frame(portal({1: ('127.0.0.2',)})[:4 + 2 * 408]),
        'again_then_empty': frame(portal({2: ('127.0.0.1',)})) + frame(portal({}), DEBUG | PASS),
    },
    'login': {
        'login': frame(login('carol', '02:00:00:00:00:06', 'wlan-1-1')),
        'session_class': frame(login('dave', '020000000007', 'wlan-1-2', '0123456789abcdef', b'cls'), DEBUG),
        'no_profile': frame(login('erin', '02-00-00-00-00-08', 'wlan-2-8')),
    },
    'report': {
        'waiting': frame(report(2), DEBUG),
        'unknown_then_pass': frame(report(9)) + frame(report(2), LATER6 | PASS),
    },
    'netlink': {
        'disassoc': frame(driver(0x8002, 1, 'wlan-1-1'), DEBUG),
        'counters_disassoc': frame(driver(0x8008, 1, 'wlan-1-1', 1000, 2000) + driver(0x8002, 1, 'wlan-1-1')[:212]),
        'assoc_ip': frame(driver(0x8001, 4, 'wlan-1-3')) + frame(driver(0x8101, 2, 'wlan-1-1', ip_at=176)),
        'owe': frame(driver(0x8002, 1, 'wlan-1-14')),
    },
    'uam': {
        'login': frame(uam(1, '02:00:00:00:00:0a')),
        'foreign_logout': frame(uam(1, '02-00-00-00-00-04', usr_from=2), DEBUG) + frame(uam(4, '02:00:00:00:00:04')),
        'filtered': frame(uam(1, '02:00:00:00:00:0b', method='click-through')) +
        frame(uam(1, '02:00:00:00:00:0c', service='802.1x')),
    },
    'response': {
        'each_request': b''.join(frame(b'\x05', DEBUG | SIGN, i) for i in range(10)),
        'retry_failover': b''.join(frame(b'', LATER6 | PASS, 0) for _ in range(12)) +
        b''.join(frame(b'\x05', DEBUG | SIGN | BACKUP, i) for i in range(8)),
        'interim': frame(b'\x05', SIGN, 7) + frame(b'', LATER60 | PASS, 0) + frame(b'', LATER60 | PASS, 0) +
        frame(b'\x05', DEBUG | SIGN, 0),
        'raw': frame(bytes([5, 3, 0, 20]) + bytes(16), DEBUG, 0) + frame(b'\x05\x01', DEBUG, 0),
        # Under -k, the primary dead: its probe answered with a wrong Code, then as a server answers it.
        'probe': frame(b'\x02', SIGN, KEEP) + frame(b'\x05', DEBUG | SIGN, 0) + frame(b'', LATER6 | PASS, 0),
    },
    # Each frame is one read of the connection.
    'stream': {
        'two_in_one_read': frame(rpacket(5, 1, 20) + rpacket(5, 2, 44)),
        'cut_in_header_and_body': frame(rpacket(5, 1, 38)[:3]) + frame(rpacket(5, 1, 38)[3:30]) +
        frame(rpacket(5, 1, 38)[30:] + rpacket(2, 9, 4096)[:100]) + frame(rpacket(2, 9, 4096)[100:]),
        'too_long_after_one': frame(rpacket(5, 1, 20) + bytes([5, 2, 0x10, 0x01])) + frame(rpacket(5, 3, 20)),
        'too_short': frame(bytes([5, 1, 0, 19]) + bytes(15)),
    },
}

for target, seeds in SEEDS.items():
    os.makedirs(os.path.join(HERE, 'corpus', target), exist_ok=True)
    for name, data in seeds.items():
        open(os.path.join(HERE, 'corpus', target, name), 'wb').write(data)
