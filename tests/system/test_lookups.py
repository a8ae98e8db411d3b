#!/usr/bin/python3
"""meterd -l against FreeRADIUS: a device whose shell hangs, floods or says nothing and whose
statistics database stops answering, and Stops, profile removals and dumps that meet look-ups in
flight. The daemon runs on real time: each look-up's time-out is 2 s of it. The sim's ovat is
replaced, in this test's own mount namespace, by binding a script over the built one."""
import json
import os
import pathlib
import shutil
import time

import harness
from freeradius import FreeRadius
from harness import Meterd
from records import EV_REMOVE, event, ev_init

SECRET, INTERIM = 'testing123', 3
OVAT = os.path.join(harness.BUILD_DIR, 'ovat')
HANG = '/tmp/devsim/dbcmd_hang'
devsim, meterctl = harness.tool('devsim'), harness.tool('meterctl', check=False)
mac = '02:00:00:00:02:%02x'.__mod__


class Lookups(harness.SystemTest):

    def daemon(self):
        server = self.start(FreeRadius(SECRET))
        daemon = self.start(Meterd(['-d', '-l']))
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        return server, daemon

    def device(self, script):
        # ovat as this shell script (None: the sim's own again), for the daemon's next look-ups.
        if os.path.ismount(OVAT):
            harness._sh('umount', OVAT)
        if script:
            pathlib.Path('/tmp/ovat').write_text('#!/bin/sh\n' + script + '\n')
            os.chmod('/tmp/ovat', 0o755)
            harness._sh('mount', '--bind', '/tmp/ovat', OVAT)
            self.addCleanup(lambda: os.path.ismount(OVAT) and harness._sh('umount', OVAT))

    def login(self, n, ip, interim=INTERIM):
        # Every session with the same interval: the interim queue is one, in order of insertion.
        devsim('station', 'add', '--mac', mac(n), '--ip', ip, '--rx', 100 + n, '--tx', 200)
        devsim('login', '--user', 'u%d' % n, '--mac', mac(n), '--iface', 'wlan-1-1', '--interim', interim,
               '--session-id', 'S-%d' % n)
        devsim('report', '--mac', mac(n), '--ip', ip)

    def stats(self):
        return json.loads(meterctl('stats', '--json').stdout)['lookups']

    def zombies(self, pid):
        # Children of pid that have ended and were not reaped.
        found = []
        for stat in pathlib.Path('/proc').glob('[0-9]*/stat'):
            try:
                fields = stat.read_text().rsplit(')', 1)[1].split()
            except OSError:
                continue
            if fields[0] == 'Z' and int(fields[1]) == pid:
                found.append(stat.parent.name)
        return found

    def interims(self, server, session, since):
        return [r for r in server.records()[since:]
                if r.get('Acct-Status-Type') == 'Interim-Update' and r.get('Acct-Session-Id') == session]

    def test_a_device_that_hangs_floods_or_says_nothing(self):
        server, daemon = self.daemon()
        self.login(1, '10.0.2.1')
        harness._poll(lambda: self.interims(server, 'S-1', 0), 10, lambda: 'no Interim-Update')
        # What ovat does, whether the database hangs too, and the address the Interim-Update then
        # carries; its counters are those the session had.
        faults = [('exec sleep 1000', True), ('head -c 10000000 /dev/zero | tr "\\0" x', False), ('exit 0', False)]
        for n, (script, database_hangs) in enumerate(faults, 2):
            self.device(script)
            if database_hangs:
                pathlib.Path(HANG).touch()
            since = len(server.records())
            self.login(n, '10.0.2.%d' % n)  # its Start is answered meanwhile
            harness._poll(lambda: len(self.interims(server, 'S-1', since)) >= 2, 20,
                          lambda: 'no Interim-Updates under %r: %s' % (script, self.stats()))
            self.assertIn(('Start', 'S-%d' % n), server.kinds()[since:])
            last = self.interims(server, 'S-1', since)[-1]
            self.assertEqual((last.get('Framed-IP-Address'), last['Acct-Input-Octets']), (None, '101'), script)
            if database_hangs:
                os.unlink(HANG)
        # The device back: the next Interim-Update carries what it says now.
        self.device(None)
        devsim('station', 'set', '--mac', mac(1), '--ip', '10.0.2.99', '--rx', 5000, '--tx', 6000)
        since = len(server.records())
        harness._poll(lambda: [r for r in self.interims(server, 'S-1', since)
                               if r.get('Framed-IP-Address') == '10.0.2.99' and r['Acct-Input-Octets'] == '5000'],
                      15, lambda: 'no Interim-Update after the device came back')
        counts = self.stats()
        self.assertGreaterEqual((counts['timed_out'], counts['killed']), (2, 4))
        self.assertEqual(self.zombies(daemon.proc.pid), [])

    def test_stops_removals_and_dumps_meet_lookups(self):
        # Each look-up takes a quarter of a second, so that what the control socket and the driver
        # do lands while workers have sessions in hand; ASan and Meterd.stop watch the daemon.
        shutil.copy(OVAT, '/tmp/ovat.sim')
        self.device('sleep 0.25; exec /tmp/ovat.sim "$@"')
        server, daemon = self.daemon()
        seen_queue = False
        for round in range(8):
            for n in range(6):
                self.login(n, '10.0.3.%d' % (n + 1), interim=1)
            harness._poll(lambda: self.stats()['pending'] > 0, 10, lambda: 'no look-up in flight')
            seen_queue |= 'look-up queue:' in daemon.dump()
            for n in range(0, 6, 2):
                devsim('disassoc', '--mac', mac(n), '--iface', 'wlan-1-1')
            if round % 2:
                offs = server.kinds().count(('Accounting-Off', ''))
                daemon.send(event(EV_REMOVE, 'wlan-1-1'))
                harness._poll(lambda: server.kinds().count(('Accounting-Off', '')) > offs, 10, lambda: 'no Off')
                daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        harness._poll(lambda: self.stats()['gone'] > 0, 10, lambda: 'no look-up met a session gone: %s' % self.stats())
        self.assertTrue(seen_queue)
        self.assertIn('look-ups:', meterctl('stats').stdout)
        self.assertEqual(self.zombies(daemon.proc.pid), [])


if __name__ == '__main__':
    harness.main()
