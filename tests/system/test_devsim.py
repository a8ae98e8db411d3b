#!/usr/bin/python3
"""devsim on its own: the driver datagrams the daemon cannot show (bad input by design, several
messages in one), and the arguments it refuses. The other records are proven at FreeRADIUS by
the radacct and cloud suites."""
import os
import struct

import harness
import records
from records import STA_ASSOC, STA_COUNTERS, STA_DISASSOC, STA_IP

LOGIN, REPORT = '/tmp/accounting_recv_radius.sock', '/tmp/accounting_recv_wireless_hal.sock'
PORTAL, UAM, STATIONS = '/tmp/accounting_portal.sock', '/tmp/devsim/uam.sock', '/tmp/devsim/stations'
STATION = bytes.fromhex('020000000002')  # devsim's when none is named
devsim = harness.tool('devsim', check=False)


class Devsim(harness.SystemTest):

    def send(self, sock, *args):
        """Runs devsim, which must succeed silently; returns the one datagram it sent."""
        result = devsim(*args)
        self.assertEqual((result.returncode, result.stderr), (0, ''))
        return sock.recv(8192)

    def test_driver_datagram(self):
        # Each message as the records module writes it, but for what an option changes.
        nl = self.listen((0, 1))
        other = lambda n: struct.pack('<IH', n, 2) + bytes(-(-n // 4) * 4 - 6)  # padded to 4 bytes

        def event(cmd, mac=STATION, iface='wlan-1-1', size=244, attr_len=None, **fields):
            m = bytearray(records.driver(cmd, mac, iface, **fields)[:size])  # cut, and its lengths with it
            m[0:4], m[40:42] = size.to_bytes(4, 'little'), (attr_len or size - 40).to_bytes(2, 'little')
            return m
        # A short message of another type, then two events, each on a 4-byte boundary.
        d = self.send(nl, 'other', '--len', '18', '--then', 'ip', '--mac', '02:00:00:00:00:0a', '--iface',
                      'wlan-1-10-abcdef', '--ip', '192.0.2.9', '--then', 'counters', '--tx', str(2 ** 40),
                      '--rx', '5', '--nla-len', '8')
        self.assertEqual(d, other(18) + event(STA_IP, bytes.fromhex('02000000000a'), 'wlan-1-10-abcdef',
                                              ip='192.0.2.9') + event(STA_COUNTERS, attr_len=8, tx=2 ** 40, rx=5))
        d, e = self.send(nl, 'disassoc', '--type', '3', '--nlmsg-len', '999', '--attr-type', '7',
                         '--truncate', '100'), event(STA_DISASSOC)
        self.assertEqual(d, struct.pack('<IH', 999, 3) + e[6:42] + struct.pack('<H', 7) + e[44:100])
        d = self.send(nl, 'other', '--then', 'assoc', '--payload', '24')  # fits in the daemon's 256 bytes
        self.assertEqual(d, other(16) + event(STA_ASSOC, size=68))

    def test_refusals_send_nothing(self):
        socks = [self.listen(address) for address in (LOGIN, REPORT, PORTAL, UAM, (0, 1))]
        with open(STATIONS, 'w') as f:
            f.write('02:00:00:00:00:0a 10.0.0.9 1 2\n')
        # One of each kind of check: command, length, option, missing value, number, address, entry.
        for args in (['frob'], ['login', '--user', 'u' * 64], ['login', '--frob', '1'], ['login', '--iface'],
                     ['counters', '--tx', '-1'], ['report', '--mac', '02:00:00:00:00'], ['report', '--ip', '10.0.0'],
                     ['portal', '--entry', 'wlan-1-1', 'host=h,port=x'], ['station', 'set', '--ip', '1.2.3'],
                     ['owe', 'add', '--wlan', '0']):
            with self.subTest(args=args):
                result = devsim(*args)
                self.assertRegex('%d %s' % (result.returncode, result.stderr), r'^2 devsim: [^\n]+\n$')
        for sock in socks:
            self.assertRaises(BlockingIOError, sock.recv, 8192)
        self.assertEqual(harness.read_file(STATIONS), '02:00:00:00:00:0a 10.0.0.9 1 2\n')
        self.assertFalse(os.path.exists('/tmp/devsim/owe'))
        # A good edit keeps the other fields; nobody listening is a failure of its own.
        self.assertEqual(devsim('station', 'set', '--mac', '02000000000a', '--tx', '7').returncode, 0)
        self.assertEqual(harness.read_file(STATIONS), '02-00-00-00-00-0A 10.0.0.9 1 7\n')
        os.unlink(LOGIN)
        result = devsim('login')
        self.assertEqual((result.returncode, result.stderr), (1, 'devsim: %s: No such file or directory\n' % LOGIN))


if __name__ == '__main__':
    harness.main()
