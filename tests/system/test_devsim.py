#!/usr/bin/python3
"""devsim on its own: the driver datagrams the daemon cannot show (bad input by design, several
messages in one), and the arguments it refuses. The other records are proven at FreeRADIUS by
the session and cloud suites."""
import os
import socket
import struct

import harness

LOGIN, REPORT = '/tmp/accounting_recv_radius.sock', '/tmp/accounting_recv_wireless_hal.sock'
PORTAL, UAM, STATIONS = '/tmp/accounting_portal.sock', '/tmp/devsim/uam.sock', '/tmp/devsim/stations'
devsim = harness.tool('devsim', check=False)


class Devsim(harness.SystemTest):

    def send(self, sock, *args):
        """Runs devsim, which must succeed silently; returns the one datagram it sent."""
        result = devsim(*args)
        self.assertEqual((result.returncode, result.stderr), (0, ''))
        return sock.recv(8192)

    def test_driver_datagram(self):
        nl = self.listen((0, 1))
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
        socks = [self.listen(address) for address in (LOGIN, REPORT, PORTAL, UAM, (0, 1))]
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
