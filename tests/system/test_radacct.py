#!/usr/bin/python3
"""A user's whole session on the simulated access point, driven only by devsim and the control socket,
past 4 GiB and then 8 GiB, as FreeRADIUS records it and its stock SQL accounting stores it in its
radacct table (SQLite): the device's 64-bit totals with meterd -x, their low 32 bits by default. The
daemon runs on a clock ten times faster."""
import harness
from freeradius import FreeRadius
from harness import Meterd
from records import ev_init

SECRET, SPEED, MAC, GIB = 'testing123', 10, 'aa:bb:cc:dd:ee:02', 2 ** 30
# What the device counts (rx, tx) before each Interim-Update, and at the end in the driver's
# counters event: a little, then the station's upload (Acct-Input) passes 4 GiB, its download 4 GiB
# and 8 GiB.
STEPS = [(1000, 2000)] + [(int(rx * GIB), int(tx * GIB)) for rx, tx in ((4.2, 5.5), (5.9, 8.8))]
MOVED = (int(6.4 * GIB), int(9.7 * GIB))
devsim = harness.tool('devsim')


def usage(record):
    # (input, output) octets of a detail record, the Gigawords above the 32 bits.
    return tuple(int(record.get('Acct-%s-Gigawords' % d, 0)) << 32 | int(record.get('Acct-%s-Octets' % d, 0))
                 for d in ('Input', 'Output'))


class Radacct(harness.SystemTest):

    def session(self, *options):
        # The session's detail records, and the radacct table after each of them.
        server = self.start(FreeRadius(SECRET, sql=True))
        # Each test picks its mode itself, whatever METERD_MODE says.
        daemon = self.start(Meterd(['-d', *options], speed=SPEED, exact=True))
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        devsim('station', 'add', '--mac', MAC, '--ip', '10.0.0.8', '--rx', 0, '--tx', 0)
        devsim('login', '--user', 'dave', '--mac', MAC, '--iface', 'wlan-1-1', '--interim', 30,
               '--class', '0x0102ff', '--session-id', 'S-big')
        self.wait_console("node's session-id is: S-big\n")
        devsim('report', '--mac', MAC, '--ip', '10.0.0.7')  # the report's address goes into the Start
        tables = []
        # Each record is written once its row is; the next Interim-Update is 30 s (3 s here) away.
        for n, (rx, tx) in enumerate(STEPS, 2):
            server.wait_records(n)
            tables.append(server.radacct())
            devsim('station', 'set', '--mac', MAC, '--rx', rx, '--tx', tx)
        server.wait_records(5)
        tables.append(server.radacct())
        devsim('counters', '--mac', MAC, '--iface', 'wlan-1-1', '--rx', MOVED[0], '--tx', MOVED[1])
        devsim('disassoc', '--mac', MAC, '--iface', 'wlan-1-1')
        records = server.wait_records(6)[1:]
        tables.append(server.radacct())
        # Once the Stop is answered the session is gone: no record can follow it.
        harness._poll(lambda: 'username: dave' not in daemon.dump(), 5, lambda: 'the session outlived its Stop')
        self.assertEqual([len(t) for t in tables], [1] * 5)
        row = tables[-1][0]
        self.assertEqual((row['acctsessionid'], row['username'], row['acctterminatecause']),
                         ('S-big', 'dave', 'NAS-Request'))
        same = {'User-Name': 'dave', 'Acct-Session-Id': 'S-big', 'Calling-Station-Id': 'AA-BB-CC-DD-EE-02',
                'Class': '0x0102ff'}
        self.assertEqual([{k: r.get(k) for k in same} for r in records], [same] * 5)
        self.assertEqual([r['Framed-IP-Address'] for r in records], ['10.0.0.7'] + ['10.0.0.8'] * 4)
        self.assertEqual(records[-1]['Acct-Terminate-Cause'], 'NAS-Request')
        self.wait_console('Accounting Stop. Username: dave')
        return records, [(t[0]['acctinputoctets'], t[0]['acctoutputoctets']) for t in tables]

    def test_extended_mode_stores_the_64_bit_totals(self):
        records, octets = self.session('-x')
        self.assertEqual(octets, [(0, 0)] + STEPS + [MOVED])
        # What operators' accounting-assurance checks expect: one Start and one Stop, the last
        # record, under one Acct-Session-Id; the Stop with the highest usage, within 3% of what the
        # station moved; Gigawords that roll over.
        self.assertEqual([r['Acct-Status-Type'] for r in records], ['Start'] + ['Interim-Update'] * 3 + ['Stop'])
        self.assertEqual({r['Acct-Session-Id'] for r in records}, {'S-big'})
        used = [usage(r) for r in records]
        for d, moved in enumerate(MOVED):
            self.assertEqual(max(u[d] for u in used), used[-1][d])
            self.assertLessEqual(abs(used[-1][d] - moved), 0.03 * moved)
        self.assertEqual([r.get('Acct-Output-Gigawords') for r in records[1:]], ['0', '1', '2', '2'])

    def test_default_stores_the_low_32_bits(self):
        records, octets = self.session()
        # As designed, an Interim-Update reads a counter past 2 GiB as 0, and 0 for both.
        self.assertEqual(octets, [(0, 0), STEPS[0], (0, 0), (0, 0), (MOVED[0] % 2 ** 32, MOVED[1] % 2 ** 32)])
        self.assertFalse([r for r in records if 'Acct-Input-Gigawords' in r or 'Acct-Output-Gigawords' in r])


if __name__ == '__main__':
    harness.main()
