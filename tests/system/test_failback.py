#!/usr/bin/python3
"""meterd -k against FreeRADIUS with its stock SQL accounting (radacct in SQLite) that goes away and
comes back: a backup-only profile, a primary away for a minute, failback to the primary, a server
that ignores Status-Server, and what `meterctl stats` says meanwhile. Every daemon is started with -k
(or, to show the design beside it, without); it runs on a clock twenty times faster, FreeRADIUS on
real time."""
import json
import time

import harness
from freeradius import FreeRadius
from harness import Meterd
from records import ev_init

SECRET, SPEED, PRIMARY, BACKUP = 'testing123', 20, 1813, 1814
# The daemon's first and longest probe intervals and its scheduler's tick, in its seconds.
PROBE_FIRST, PROBE_CAP, TICK = 10, 30, 3
devsim, meterctl = harness.tool('devsim'), harness.tool('meterctl', check=False)


Server = lambda port, status_server=True: FreeRadius(SECRET, port, sql=True, status_server=status_server)


class Failback(harness.SystemTest):

    def meterd(self, keep=True):
        # Without -k, in extended mode every extension but -k.
        return self.start(Meterd(['-d', '-k'], speed=SPEED) if keep else
                          Meterd(['-d'] + ['-gicr'] * harness.EXTENDED, speed=SPEED, exact=True))

    def login(self, session, mac, interim=0):
        # A session that begins (its Start goes) when the station is reported; returns that moment.
        devsim('station', 'add', '--mac', mac, '--ip', '10.0.0.9', '--rx', 100, '--tx', 200)
        devsim('login', '--user', 'u-' + session, '--mac', mac, '--iface', 'wlan-1-1', '--interim', interim,
               '--session-id', session)
        devsim('report', '--mac', mac, '--ip', '10.0.0.9')
        return time.monotonic()

    def leave(self, mac):
        return devsim('disassoc', '--mac', mac, '--iface', 'wlan-1-1') and time.monotonic()

    def states(self):
        # meterctl stats --json: each server's state by its port, and the backlog.
        report = json.loads(meterctl('stats', '--json').stdout)
        return {s['port']: s for s in report['states']}, report['backlog']

    def until(self, found, seconds, what):
        # Polls found() for up to `seconds` of the daemon's time (and one real second more); what
        # (text, or a function that returns it) says what failed.
        return harness._poll(found, seconds / SPEED + 1, what if callable(what) else lambda: what)

    def test_backup_only_profile(self):
        backup = self.start(Server(BACKUP))
        self.meterd().send(ev_init('wlan-1-1', '', 0, '', '127.0.0.1', BACKUP, SECRET))
        backup.wait_records(1)
        # Each request goes to the backup at once, not after a primary's empty time-outs.
        self.login('S-b', 'aa:00:00:00:00:01', interim=30)
        backup.wait_records(2, timeout=10 / SPEED + 1)
        backup.wait_records(3, timeout=(30 + TICK + 10) / SPEED + 1)
        self.leave('aa:00:00:00:00:01')
        backup.wait_records(4, timeout=10 / SPEED + 1)
        time.sleep(2 * 30 / SPEED)  # two more intervals: the Stop ended the session
        self.assertEqual(backup.kinds(), [('Accounting-On', ''), ('Start', 'S-b'), ('Interim-Update', 'S-b'),
                                          ('Stop', 'S-b')])
        row = backup.rows()['S-b']
        self.assertEqual((row['acctterminatecause'], row['acctinputoctets'], bool(row['acctstoptime'])),
                         ('NAS-Request', 100, True))

    def away_a_minute(self, keep):
        # S-1 begins while the server is there and ends while it is away; S-2 begins and ends
        # while it is away. Returns the server and the real moments (begin, end) of each session.
        server = self.start(Server(PRIMARY))
        self.meterd(keep).send(ev_init('wlan-1-1', '127.0.0.1', PRIMARY, SECRET))
        server.wait_records(1)
        begin1 = self.login('S-1', 'aa:00:00:00:00:01')
        server.wait_records(2)
        server.stop()
        gone = time.monotonic()
        begin2 = self.login('S-2', 'aa:00:00:00:00:02')
        time.sleep(10 / SPEED)
        end1, end2 = self.leave('aa:00:00:00:00:01'), self.leave('aa:00:00:00:00:02')
        time.sleep(max(0.0, gone + 60 / SPEED - time.monotonic()))
        server.start()
        return server, {'S-1': (begin1, end1), 'S-2': (begin2, end2)}

    def test_primary_away_a_minute_loses_nothing(self):
        server, moments = self.away_a_minute(keep=True)
        closed = lambda: (rows := server.rows()) and len(rows) == 2 and all(r['acctstoptime'] for r in rows.values())
        self.until(closed, PROBE_CAP + 2 * TICK, lambda: 'not every session closed: %s' % server.rows())
        rows, start, stop = server.rows(), *[[r for r in server.records() if r.get('Acct-Status-Type') == kind
                                              and r['Acct-Session-Id'] == 'S-1'][0] for kind in ('Start', 'Stop')]
        # The stock SQL takes its times from Event-Timestamp: each Stop's is its disassociation, by
        # the devsim calls' real times (within their spread), and for S-1 by its own session time
        # (to the second), however late the request came; the delay shows in Acct-Delay-Time.
        began = rows['S-1']['acctstarttime']
        for session, (_, end) in moments.items():
            self.assertLessEqual(abs(rows[session]['acctstoptime'] - began - SPEED * (end - moments['S-1'][0])), 5)
        self.assertLessEqual(abs(rows['S-1']['acctstoptime'] - began - int(stop['Acct-Session-Time']) +
                                 int(start['Acct-Session-Time'])), 1)
        self.assertGreaterEqual(int(stop['Acct-Delay-Time']), 30)

    def test_primary_away_a_minute_without_k_gives_up(self):
        server, _ = self.away_a_minute(keep=False)
        self.wait_console('accounting fail. Accounting server 127.0.0.1 no response.\n')
        time.sleep((PROBE_CAP + 2 * TICK) / SPEED)
        # S-2 never reached it, and S-1's Stop was given up: the session stays open.
        self.assertEqual({k: r['acctstoptime'] for k, r in server.rows().items()}, {'S-1': None})

    def test_failback_to_the_primary(self):
        primary, backup = self.start(Server(PRIMARY)), self.start(Server(BACKUP))
        self.meterd().send(ev_init('wlan-1-1', '127.0.0.1', PRIMARY, SECRET, '127.0.0.1', BACKUP, SECRET))
        primary.wait_records(1)
        primary.stop()
        self.login('S-a', 'aa:00:00:00:00:01')
        backup.wait_records(1, timeout=5)  # after the primary's budget
        self.assertEqual(self.states()[0][PRIMARY]['dead'], 1)
        primary.start()
        back = time.monotonic()
        self.until(lambda: self.states()[0][PRIMARY]['dead'] == 0, PROBE_CAP + TICK, 'no failback')
        self.assertLessEqual((time.monotonic() - back) * SPEED, PROBE_CAP + 2 * TICK)
        # New requests go to the primary again: the next session's Start and the first one's Stop.
        self.login('S-b', 'aa:00:00:00:00:02')
        self.leave('aa:00:00:00:00:01')
        primary.wait_records(3)
        time.sleep(10 / SPEED)
        self.assertEqual(backup.kinds(), [('Start', 'S-a')])
        self.assertEqual(sorted(primary.kinds()[1:]), [('Start', 'S-b'), ('Stop', 'S-a')])
        self.assertEqual(sorted(primary.rows()), ['S-a', 'S-b'])

    def test_server_that_ignores_status_server_is_found_by_a_request(self):
        # Away from the start: the Accounting-On spends its budget and waits, and so does a Start.
        server = Server(PRIMARY, status_server=False)
        daemon = self.meterd()
        made = time.monotonic()
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', PRIMARY, SECRET))
        self.until(lambda: self.states()[0][PRIMARY]['dead'], 4 * 9 + TICK, 'the server did not die')
        self.login('S-n', 'aa:00:00:00:00:01')
        # After three unanswered Status-Servers the oldest request is the probe; unanswered too,
        # it goes back to the backlog as the oldest, not behind the Start.
        five = lambda: (r := self.states())[0][PRIMARY]['probes'] >= 5 and r[1]['length'] == 2 and r[1]
        backlog = self.until(five, 10 + 20 + 40 + 9 + TICK, 'no request probed')
        self.assertGreaterEqual(backlog['oldest_age'], (time.monotonic() - made) * SPEED - 3)
        # Back, it ignores the next Status-Server and answers the next probing request: the On.
        self.start(server)
        self.until(lambda: server.kinds() == [('Accounting-On', ''), ('Start', 'S-n')], PROBE_CAP + 2 * TICK,
                   lambda: 'not found again, or not oldest first: %s' % server.kinds())
        state = self.until(lambda: (s := self.states()[0][PRIMARY])['dead'] == 0 and s, TICK, 'still dead')
        self.assertEqual(state['probe_answers'], 0)

    def test_stats_while_both_servers_are_away(self):
        # Nobody listens on either port: the Accounting-On spends both budgets and waits, and so
        # does a Start made once both are dead.
        daemon = self.meterd()
        before = time.monotonic()
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', PRIMARY, SECRET, '127.0.0.1', BACKUP, SECRET))
        after = time.monotonic()
        self.until(lambda: self.states()[0][BACKUP]['dead'], 2 * 4 * 9 + TICK, 'the backup did not die')
        self.login('S-w', 'aa:00:00:00:00:01')
        self.until(lambda: (r := self.states())[1]['length'] == 2 and min(s['probes'] for s in r[0].values()),
                   PROBE_FIRST + TICK, 'no probes')
        asked = time.monotonic()
        states, backlog = self.states()
        # The oldest is the Accounting-On, its age counted from when it was made (whole seconds).
        age = backlog['oldest_age']
        self.assertTrue((asked - after) * SPEED - 1 <= age <= (time.monotonic() - before) * SPEED + 1, age)
        primary, backup = states[PRIMARY], states[BACKUP]
        self.assertEqual([(s['dead'], s['probe_answers']) for s in (primary, backup)], [(1, 0)] * 2)
        # The backup died a whole budget after the primary.
        self.assertTrue(20 <= backup['since'] - primary['since'] <= 45, (primary, backup))
        # The backup comes back (soon enough that a Status-Server finds it, not a request): the
        # backlog drains to it while the primary stays dead.
        server = self.start(Server(BACKUP))
        self.until(lambda: self.states()[1]['length'] == 0, 2 * 20 + TICK, 'the backlog did not drain')
        states = self.states()[0]
        self.assertEqual((states[PRIMARY]['dead'], states[BACKUP]['dead'], states[BACKUP]['probe_answers'],
                          states[BACKUP]['since'] > backup['since']), (1, 0, 1, True))
        server.wait_records(2)
        self.assertEqual(sorted(server.kinds()), [('Accounting-On', ''), ('Start', 'S-w')])


if __name__ == '__main__':
    harness.main()
