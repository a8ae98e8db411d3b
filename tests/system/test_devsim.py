#!/usr/bin/python3
"""devsim on its own: the bytes of each kind of datagram, and the arguments it refuses."""
import os
import socket
import struct
import subprocess

import harness

DEVSIM = os.path.join(harness.BUILD_DIR, 'devsim')
LOGIN, REPORT = '/tmp/accounting_recv_radius.sock', '/tmp/accounting_recv_wireless_hal.sock'
PORTAL, UAM, STATIONS = '/tmp/accounting_portal.sock', '/tmp/devsim/uam.sock', '/tmp/devsim/stations'
ENTRY = '<64s64si64si65s65s2x4s65s3xi'  # ovat_config_event, 408 bytes


def devsim(*args):
    return subprocess.run([DEVSIM, *args], capture_output=True, text=True)


def z(text, size):
    return text.encode().ljust(size, b'\0')


class Devsim(harness.SystemTest):

    def listen(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        return self.bound(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM), path)

    def bound(self, sock, address):
        sock.bind(address)
        sock.setblocking(False)
        self.addCleanup(sock.close)
        return sock

    def send(self, sock, *args):
        """Runs devsim, which must succeed silently; returns the one datagram it sent."""
        result = devsim(*args)
        self.assertEqual((result.returncode, result.stderr), (0, ''))
        return sock.recv(8192)

    def test_unix_records(self):
        login = self.listen(LOGIN)
        d = self.send(login, 'login', '--user', 'u' * 63, '--mac', 'aa:bb', '--called', 'c', '--iface', 'wlan-2-5',
                      '--auth-module', 'psk', '--interim', '-7', '--nas-ip', '1.2.3.4', '--nas-id', 'n',
                      '--class', '0x00ff10', '--session-id', 's' * 31)
        self.assertEqual(struct.unpack('<64s32s128s64s32si32s128s128si32s', d), (
            z('u' * 63, 64), z('aa:bb', 32), z('c', 128), z('wlan-2-5', 64), z('psk', 32), -7, z('1.2.3.4', 32),
            z('n', 128), b'\0\xff\x10'.ljust(128, b'\0'), 3, z('s' * 31, 32)))
        d = self.send(login, 'login', '--class', 'abc', '--class-length', '200')
        self.assertEqual((d[:5], d[484:488], struct.unpack_from('<i', d, 612)), (b'user1', b'abc\0', (200,)))

        d = self.send(self.listen(REPORT), 'report', '--mac', '0a1b2c3d4e5f', '--ip', '192.0.2.7', '--vid', '12',
                      '--iface', 'i' * 19, '--disassoc')
        self.assertEqual(struct.unpack('<i4s6s20s2xi', d),
                         (0, socket.inet_aton('192.0.2.7'), bytes.fromhex('0a1b2c3d4e5f'), z('i' * 19, 20), 12))

        d = self.send(self.listen(PORTAL), 'portal', '--event', '9', '--entry', 'wlan-2-3',
                      'host=h,secret=s,backup=b,nas-ip=192.0.2.1,nas-id=n,interim=10')
        at = 4 + 3264 + 2 * 408
        self.assertEqual(struct.unpack_from(ENTRY, d, at), (
            z('wlan-2-3', 64), z('h', 64), 1813, z('b', 64), 1813, z('s', 65), z('', 65),
            socket.inet_aton('192.0.2.1'), z('n', 65), 10))
        self.assertEqual((len(d), d[:4], d[4:at] + d[at + 408:]), (6532, struct.pack('<i', 9), bytes(6528 - 408)))

        d = self.send(self.listen(UAM), 'uam', '--event', 'logout', '--user', 'u', '--mac', 'aa-bb',
                      '--iface', 'wlan-2-4', '--ssid', 'Guest', '--foreign', '--no-ip')
        self.assertEqual([len(d), d[:4], d[12:13], d[44:46], d[108:110], d[304:308], d[760:766], d[824:830],
                          d[888:897], d[904:910], d[936:940]],
                         [1144, struct.pack('<i', 4), b'\0', b'u\0', b'u\0', b'\xff' * 4, b'Guest\0', b'SSID4\0',
                          b'wlan-2-4\0', b'aa-bb\0', struct.pack('<i', 2)])

    def test_driver_datagram(self):
        nl = self.bound(socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_USERSOCK), (0, 1))
        # A short message of another type, then two events, each on a 4-byte boundary.
        d = self.send(nl, 'other', '--len', '18', '--then', 'ip', '--mac', '02:00:00:00:00:0a', '--iface',
                      'wlan-1-10-abcdef', '--ip', '192.0.2.9', '--then', 'counters', '--tx', str(2 ** 40),
                      '--rx', '5', '--nla-len', '8')
        self.assertEqual(len(d), 20 + 244 + 244)
        self.assertEqual(struct.unpack_from('<IH', d, 0), (18, 2))
        self.assertEqual(struct.unpack_from('<IH10x16s', d, 20) + struct.unpack_from('<HH2xH', d, 60),
                         (244, 1, b'wlan-1-10-abcdef', 204, 0x8000, 0x8101))
        self.assertEqual((struct.unpack_from('<H', d, 72)[0], d[82:88], d[248:252]),
                         (176, bytes.fromhex('02000000000a'), socket.inet_aton('192.0.2.9')))
        self.assertEqual(struct.unpack_from('<HH2xH', d, 304) + struct.unpack_from('<QQ', d, 476),
                         (8, 0x8000, 0x8008, 2 ** 40, 5))
        d = self.send(nl, 'disassoc', '--type', '3', '--nlmsg-len', '999', '--attr-type', '7', '--truncate', '100')
        self.assertEqual(struct.unpack_from('<IH', d) + struct.unpack_from('<2xHxxH', d, 40) + (len(d), d[16:25]),
                         (999, 3, 7, 0x8002, 100, b'wlan-1-1\0'))
        d = self.send(nl, 'other', '--then', 'assoc', '--payload', '24')  # fits in the daemon's 256 bytes
        self.assertEqual((len(d),) + struct.unpack_from('<I', d, 16) + struct.unpack_from('<HH2xH', d, 56),
                         (84, 68, 28, 0x8000, 0x8001))

    def test_refusals_send_nothing(self):
        socks = [self.listen(path) for path in (LOGIN, REPORT, PORTAL, UAM)]
        socks.append(self.bound(socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_USERSOCK), (0, 1)))
        with open(STATIONS, 'w') as f:
            f.write('02:00:00:00:00:0a 10.0.0.9 1 2\n')
        for args in (['frob'], ['login', '--user', 'u' * 64], ['login', '--frob', '1'], ['login', '--iface'],
                     ['login', '--interim', '1x'], ['login', '--class', '0x1'], ['report', '--mac', '02:00:00:00:00'],
                     ['report', '--ip', '10.0.0'], ['assoc', '--iface', 'i' * 17], ['counters', '--tx', '-1'],
                     ['other', '--then', 'frob'], ['ip', '--truncate', '245'], ['portal', '--entry', 'wlan-3-1', ''],
                     ['portal', '--entry', 'wlan-1-1', 'host=h,port=x'], ['uam', '--event', 'frob'],
                     ['station', 'set', '--ip', '1.2.3'], ['station', 'add', '--mac', '02:00:00:00:00:0a', '--rx', 'x'],
                     ['station', 'frob'], ['owe', 'add', '--wlan', '0']):
            with self.subTest(args=args):
                result = devsim(*args)
                self.assertEqual(result.returncode, 2)
                self.assertRegex(result.stderr, r'^devsim: [^\n]+\n$')
        for sock in socks:
            self.assertRaises(BlockingIOError, sock.recv, 8192)
        self.assertEqual(harness.read_file(STATIONS), '02:00:00:00:00:0a 10.0.0.9 1 2\n')
        self.assertFalse(os.path.exists('/tmp/devsim/owe'))
        # A good edit keeps the other fields; nobody listening is a failure of its own.
        self.assertEqual(devsim('station', 'set', '--mac', '02000000000a', '--tx', '7').returncode, 0)
        self.assertEqual(harness.read_file(STATIONS), '02-00-00-00-00-0A 10.0.0.9 1 7\n')
        socks[0].close()
        os.unlink(LOGIN)
        result = devsim('login')
        self.assertEqual((result.returncode, result.stderr), (1, 'devsim: %s: No such file or directory\n' % LOGIN))


if __name__ == '__main__':
    harness.main()
