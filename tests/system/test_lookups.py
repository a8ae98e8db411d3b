#!/usr/bin/python3
"""meterd -l against FreeRADIUS, on real time (a look-up's time-out is 2 s of it): a device whose shell
hangs, floods or says nothing and whose database hangs; Stops, removals and dumps meeting look-ups."""
import json
import os
import pathlib
import shutil

import harness
from freeradius import FreeRadius
from harness import Meterd
from records import EV_REMOVE, event, ev_init

SECRET, OVAT, HANG = 'testing123', os.path.join(harness.BUILD_DIR, 'ovat'), '/tmp/devsim/dbcmd_hang'
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
        # ovat as this shell script (None: the sim's own again), bound over the built one in this
        # test's mount namespace; unmounted lazily, as a child may still run it.
        if os.path.ismount(OVAT):
            harness._sh('umount', '-l', OVAT)
        if script:
            pathlib.Path('/tmp/ovat').write_text('#!/bin/sh\n' + script + '\n')
            os.chmod('/tmp/ovat', 0o755)
            harness._sh('mount', '--bind', '/tmp/ovat', OVAT)
            self.addCleanup(lambda: os.path.ismount(OVAT) and harness._sh('umount', '-l', OVAT))

    def login(self, n, interim=3):
        # Every session with the same interval: the interim queue is one, in order of insertion.
        ip = '10.0.2.%d' % n
        devsim('station', 'add', '--mac', mac(n), '--ip', ip, '--rx', 100 + n, '--tx', 200)
        devsim('login', '--user', 'u%d' % n, '--mac', mac(n), '--iface', 'wlan-1-1', '--interim', interim,
               '--session-id', 'S-%d' % n)
        devsim('report', '--mac', mac(n), '--ip', ip)

    def stats(self):
        return json.loads(meterctl('stats', '--json').stdout)['lookups']

    def zombies(self, pid):
        # Children of pid that ended and were not reaped; a process may end while we read.
        found = []
        for stat in pathlib.Path('/proc').glob('[0-9]*/stat'):
            try:
                found += [stat.read_text().rsplit(') ', 1)[1].startswith('Z %d ' % pid)]
            except OSError:
                pass
        return found.count(True)

    def interims(self, server, since, session='S-1'):
        return [r for r in server.records()[since:]
                if r.get('Acct-Status-Type') == 'Interim-Update' and r.get('Acct-Session-Id') == session]

    def test_a_device_that_hangs_floods_or_says_nothing(self):
        server, daemon = self.daemon()
        self.login(1)
        harness._poll(lambda: self.interims(server, 0), 10, lambda: 'no Interim-Update')
        # Interim-Updates go on without an address and with the counters the session had, and the
        # Start of a login is answered meanwhile.
        for n, script in enumerate(['exec sleep 1000', 'head -c 10000000 /dev/zero | tr "\\0" x', 'exit 0'], 2):
            self.device(script)
            if n == 2:
                pathlib.Path(HANG).touch()  # the database too
            since = len(server.records())
            self.login(n)
            harness._poll(lambda: len(self.interims(server, since)) >= 2, 20,
                          lambda: 'no Interim-Updates under %r: %s' % (script, self.stats()))
            self.assertIn(('Start', 'S-%d' % n), server.kinds()[since:])
            last = self.interims(server, since)[-1]
            self.assertEqual((last.get('Framed-IP-Address'), last['Acct-Input-Octets']), (None, '101'), script)
            if n == 2:
                os.unlink(HANG)
        # The address that failed look-ups kept goes with the Stop.
        devsim('disassoc', '--mac', mac(2), '--iface', 'wlan-1-1')
        harness._poll(lambda: [r for r in server.records() if r.get('Acct-Status-Type') == 'Stop' and
                               r.get('Framed-IP-Address') == '10.0.2.2'], 10, lambda: 'no Stop with 10.0.2.2')
        # The device back, with a new address that no report tells: the next Interim-Update has it.
        self.device(None)
        devsim('station', 'set', '--mac', mac(1), '--ip', '10.0.2.99', '--rx', 5000, '--tx', 6000)
        since = len(server.records())
        harness._poll(lambda: [r for r in self.interims(server, since)
                               if r.get('Framed-IP-Address') == '10.0.2.99' and r['Acct-Input-Octets'] == '5000'],
                      15, lambda: 'no Interim-Update after the device came back')
        counts = self.stats()
        self.assertGreaterEqual((counts['timed_out'], counts['killed']), (2, 4))
        self.assertEqual(self.zombies(daemon.proc.pid), 0)

    def test_stops_removals_and_dumps_meet_lookups(self):
        # Each look-up takes a quarter of a second, so that the control socket and the driver act
        # while workers have sessions in hand; ASan and Meterd.stop watch the daemon.
        shutil.copy(OVAT, '/tmp/ovat.sim')
        self.device('sleep 0.25; exec /tmp/ovat.sim "$@"')
        server, daemon = self.daemon()
        dumps = []
        for round in range(8):
            for n in range(6):
                self.login(n, interim=1)
            harness._poll(lambda: self.stats()['pending'] > 0, 10, lambda: 'no look-up in flight')
            dumps.append(daemon.dump())
            for n in range(0, 6, 2):
                devsim('disassoc', '--mac', mac(n), '--iface', 'wlan-1-1')
            if round % 2:
                offs = server.kinds().count(('Accounting-Off', ''))
                daemon.send(event(EV_REMOVE, 'wlan-1-1'))
                harness._poll(lambda: server.kinds().count(('Accounting-Off', '')) > offs, 10, lambda: 'no Off')
                daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        harness._poll(lambda: self.stats()['gone'] > 0, 10, lambda: 'no look-up met a session gone: %s' % self.stats())
        self.assertTrue(any('look-up queue:' in dump for dump in dumps))
        self.assertIn('look-ups:', meterctl('stats').stdout)
        self.assertEqual(self.zombies(daemon.proc.pid), 0)


if __name__ == '__main__':
    harness.main()
