#!/usr/bin/python3
"""Cloud mode: portal profiles from their own channel and portal sessions from UAM logins and the
driver's events, as FreeRADIUS records them. The daemon runs on a clock ten times faster."""
import os
import time

import harness
from freeradius import FreeRadius
from harness import Meterd

SECRET, SPEED = 'testing123', 10
PORTAL_SOCK, UAM_SOCK = '/tmp/accounting_portal.sock', '/tmp/devsim/uam.sock'
LOCAL, FOREIGN, FILTERED = '02-00-00-00-00-0a', '02-00-00-00-00-0b', '02-00-00-00-00-0c'
devsim = harness.tool('devsim')


class Cloud(harness.SystemTest):

    def start_cloud(self):
        # A cloud daemon whose first portal datagram configured wlan-1-1 and wlan-2-2.
        self.server = self.start(FreeRadius(SECRET))
        harness.hybrid_mode('5\n')
        self.start(Meterd(['-d'], speed=SPEED))
        harness._poll(lambda: harness._bound(PORTAL_SOCK) and harness._bound(UAM_SOCK), 5,
                      lambda: 'cloud sockets not bound')
        self.portal = ('portal', '--entry', 'wlan-1-1', 'host=127.0.0.1,secret=%s,interim=1' % SECRET,
                       '--entry', 'wlan-2-2', 'host=127.0.0.1,secret=%s' % SECRET)
        devsim(*self.portal)
        self.assertEqual([r['Acct-Status-Type'] for r in self.server.wait_records(2)], ['Accounting-On'] * 2)

    def records(self, user):
        return [r['Acct-Status-Type'] for r in self.server.wait_records(1) if r.get('User-Name') == user]

    def test_repeated_datagram_then_local_and_foreign_sessions(self):
        # The datagram again takes each profile down before it comes up.
        self.start_cloud()
        devsim(*self.portal)
        statuses = sorted(r['Acct-Status-Type'] for r in self.server.wait_records(6)[2:])
        self.assertEqual(statuses, ['Accounting-Off'] * 2 + ['Accounting-On'] * 2)
        self.assertRegex(self.console.text[self.mark:], r'(?s)delete_radius for wlan-1-1\.\n.*'
                         r'Interface is: wlan-1-1\n.*delete_radius for wlan-2-2\.\n.*Interface is: wlan-2-2\n')
        devsim('station', 'add', '--mac', LOCAL, '--ip', '10.0.0.7', '--rx', 10, '--tx', 20)
        # Lower case with colons is the same station; the event's own address is never used.
        devsim('uam', '--event', 'login', '--mac', LOCAL.replace('-', ':'), '--ssid', 'Guest', '--user', 'alice')
        start = self.server.wait_records(7)[6]
        want = {'Acct-Status-Type': 'Start', 'User-Name': 'alice', 'Framed-IP-Address': '10.0.0.7',
                'Calling-Station-Id': LOCAL.upper(), 'Called-Station-Id': '02-00-00-00-00-01:Guest'}
        self.assertEqual({k: start.get(k) for k in want}, want)
        # A logout ends no session: its Interim-Updates go on.
        devsim('uam', '--event', 'logout', '--mac', LOCAL)
        harness._poll(lambda: 'Interim-Update' in self.records('alice'), 15, lambda: self.records('alice'))
        # ... until the station leaves; the logout took it off the table, so coming back opens none.
        for event in ('disassoc', 'assoc'):
            devsim(event, '--mac', LOCAL, '--iface', 'wlan-1-1')
        devsim('report', '--mac', LOCAL, '--ip', '10.0.0.7')
        # A foreign user's filters do not apply; the session opens when the station associates here.
        devsim('uam', '--event', 'login', '--foreign', '--no-ip', '--service', '802.1x', '--mac', FOREIGN,
               '--user', 'bob')
        devsim('assoc', '--mac', FOREIGN, '--iface', 'wlan-1-1')
        devsim('report', '--mac', FOREIGN, '--ip', '10.0.0.9')
        # The report and the driver's events come on threads of their own: a station gone before its
        # report is read never had a session.
        harness._poll(lambda: self.records('bob') == ['Start'], 5, lambda: self.records('bob'))
        devsim('disassoc', '--mac', FOREIGN, '--iface', 'wlan-1-1')
        harness._poll(lambda: self.records('bob') == ['Start', 'Stop'], 5, lambda: self.records('bob'))
        self.assertEqual([s for s in self.records('alice') if s != 'Interim-Update'], ['Start', 'Stop'])

    def test_filtered_and_ignored_events_change_nothing(self):
        self.start_cloud()
        for extra in (['--method', 'click-through'], ['--service', '802.1x'], ['--service', 'mac-auth'],
                      ['--no-ip'], ['--iface', 'wlan-1-3', '--ssid-profile', 'SSID1']):
            devsim('uam', '--event', 'login', '--mac', FILTERED, '--user', 'carol', *extra)
        devsim('uam', '--event', 'login', '--foreign', '--mac', FOREIGN, '--user', 'bob')
        for event in ('session-timeout', 'force-logout'):
            devsim('uam', '--event', event, '--foreign', '--mac', FOREIGN)
        for mac in (FILTERED, FOREIGN):
            devsim('assoc', '--mac', mac, '--iface', 'wlan-1-1')
            devsim('report', '--mac', mac, '--ip', '10.0.0.9')
        harness._poll(lambda: self.records('bob') == ['Start'], 5, lambda: self.records('bob'))
        time.sleep(0.5)
        self.assertEqual(len(self.server.wait_records(3)), 3)  # the two Accounting-On and bob's Start

    def test_non_cloud_starts_neither_thread(self):
        harness.hybrid_mode('1\n')
        pid = self.start(Meterd(['-d'])).proc.pid
        time.sleep(0.5)
        # Main and the four of every mode (-l: 8 workers, 8 helpers); ThreadSanitizer keeps one of its own.
        threads = len(os.listdir('/proc/%d/task' % pid)) - harness.TSAN
        self.assertEqual((threads, os.path.exists(PORTAL_SOCK), os.path.exists(UAM_SOCK)),
                         (5 + 16 * harness.EXTENDED, False, False))


if __name__ == '__main__':
    harness.main()
