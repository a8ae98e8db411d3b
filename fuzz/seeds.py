#!/usr/bin/env python3
# Writes the seed corpus: valid records of each input, in the frames that
# fuzz.cc reads, aimed at the sessions and profiles of its starting database.
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
DEBUG, PASS, SIGN, BACKUP = 0x09, 0x10, 0x20, 0x40
SECONDS = {0: 0, 3: 1, 6: 2, 60: 3}


def later(seconds):  # flags: move the clock on first
    return SECONDS[seconds] << 1


def frame(record, flags=0, select=None):
    head = bytes([flags]) + (bytes([select]) if select is not None else b'')
    return head + struct.pack('<H', len(record)) + record


def text(s, n):
    return struct.pack('%ds' % n, s.encode())


def config(iface, host, backup='', secret='primary-secret', backup_secret='backup-secret', interim=1):
    return struct.pack('<64s64si64si65s65s2xI65s3xi', iface.encode(), host.encode(), 1813, backup.encode(),
                       1813, secret.encode(), backup_secret.encode(), 0x0100007f, b'nas', interim)


def control(event_id, payload=b''):
    return struct.pack('<q', event_id) + payload.ljust(408, b'\0')


def portal(entries):
    slots = [config('', *entries[i]) if i in entries else bytes(408) for i in range(16)]
    return struct.pack('<i', 6) + b''.join(slots)


def login(user, mac, iface, session_id='', klass=b''):
    return (text(user, 64) + text(mac, 32) + text('02-00-00-00-00-01:ssid', 128) + text(iface, 64) +
            text('portal', 32) + struct.pack('<i', 60) + text('10.0.0.1', 32) + text('ap', 128) +
            klass.ljust(128, b'\0') + struct.pack('<i', len(klass)) + text(session_id, 32))


def report(last, ip=None):
    return struct.pack('<i4s6s20s2xi', 1, bytes([10, 0, 0, ip or last]), bytes([2, 0, 0, 0, 0, last]),
                       b'wlan-1-1', 1)


def driver(cmd, last, iface, tx=0, rx=0, ip_at=0):
    sta = struct.pack('<H6s144xQQ16x', 0, bytes([2, 0, 0, 0, 0, last]), tx, rx)
    data = struct.pack('<HH4x', ip_at, 0) + sta
    if ip_at:
        data = data[:ip_at] + bytes([10, 0, 0, 99]) + data[ip_at + 4:]
    event = struct.pack('<HH4x', 0, cmd) + data
    attr = struct.pack('<HH', 4 + len(event), 0x8000) + event
    return struct.pack('<IHHII', 40 + len(attr), 1, 0, 0, 0) + text(iface, 16) + bytes(8) + attr


def uam(event, mac, iface='wlan-1-3', usr_from=0, service='', method=''):
    e = bytearray(1144)
    struct.pack_into('<i', e, 0, event)
    e[12:44], e[108:172] = text(service, 32), text('bob', 64)
    e[664:696], e[760:824] = text(method, 32), text('ssid', 64)
    e[824:888], e[888:904], e[904:936] = text('SSID3', 64), text(iface, 16), text(mac, 32)
    struct.pack_into('<i', e, 936, usr_from)
    return bytes(e)


SEEDS = {
    'control': {
        'init': frame(control(4, config('wlan-1-5', '127.0.0.1', '127.0.0.2')), DEBUG),
        'remove': frame(control(2, text('wlan-1-1', 64))),
        'ip_change': frame(control(3, text('127.0.0.1', 64) + text('127.0.0.9', 64))),
        'secret': frame(control(7, text('127.0.0.1', 64) + text('new-secret', 64))),
        'exit_remove_retry': frame(control(5)) + frame(control(2, text('wlan-1-1', 64))) +
        b''.join(frame(control(0), later(6) | PASS) for _ in range(10)),
        'debug_dump': frame(control(101)) + frame(control(102)) + frame(control(100)),
        'short_repeat': frame(control(4, config('wlan-1-6', 'localhost')))[:3 + 200] + frame(b''),
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
        'unknown_then_pass': frame(report(9)) + frame(report(2), later(6) | PASS),
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
        'retry_failover': b''.join(frame(b'', later(6) | PASS, 0) for _ in range(12)) +
        b''.join(frame(b'\x05', DEBUG | SIGN | BACKUP, i) for i in range(8)),
        'interim': frame(b'\x05', SIGN, 7) + frame(b'', later(60) | PASS, 0) + frame(b'', later(60) | PASS, 0) +
        frame(b'\x05', DEBUG | SIGN, 0),
        'raw': frame(bytes([5, 3, 0, 20]) + bytes(16), DEBUG, 0) + frame(b'\x05\x01', DEBUG, 0),
    },
}

for target, seeds in SEEDS.items():
    os.makedirs(os.path.join(HERE, 'corpus', target), exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(HERE, 'corpus', target, name), 'wb') as f:
            f.write(data)
