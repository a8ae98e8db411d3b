#!/usr/bin/python3
"""Accounting-On/Off delivery against scriptable RADIUS peers: wire bytes,
retransmission, failover and the answers the daemon must take or refuse.
The slow cases run on a clock ten times faster than the real one."""
import re

import harness
from harness import ev_ac_ip_change, ev_exit, ev_init, ev_remove, parse_dump

SECRET, BACKUP_SECRET = 'testing123', 'backup-s3cret'
SPEED = 10
ON_TAIL = bytes.fromhex('280600000007 2D0600000001 04067F000001 050600000000 3D060000000F 31060000000B')
OFF_TAIL = bytes.fromhex('280600000008 2D0600000001 04067F000001 050600000000 3D060000000F 310600000006')


class Delivery(harness.SystemTest):

    def queued(self, daemon):
        dump = parse_dump(daemon.dump())
        return dump['request'] + dump['fail']

    def gaps(self, daemon, datagrams):
        return [round(daemon.faked(b.when - a.when), 1) for a, b in zip(datagrams, datagrams[1:])]

    def test_on_and_off_bytes(self):
        peer = self.start_peer(SECRET)
        daemon = self.start_meterd('-d')
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', peer.port, SECRET))
        on = peer.wait_count(1, 5)[0].data
        self.assertEqual((on[0], len(on), on[2:4], on[20:]), (4, 56, b'\x00\x38', ON_TAIL))
        self.assertTrue(harness.request_authentic(on, SECRET))
        self.assertFalse(harness.request_authentic(on, BACKUP_SECRET))
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')
        self.assertEqual(self.queued(daemon), [])

        daemon.send(ev_remove('wlan-1-1'))
        off = peer.wait_count(2, 5)[1].data
        self.assertEqual((off[0], off[1], len(off), off[20:]), (4, (on[1] + 1) % 256, 56, OFF_TAIL))
        self.assertTrue(harness.request_authentic(off, SECRET))
        self.wait_console('Accounting off. Server IP:127.0.0.1\n')
        self.wait_console('free RADIUS profile \n')
        self.assertEqual(self.queued(daemon), [])

        daemon.send(ev_remove('wlan-1-1'))
        self.wait_console(re.compile(r'accounting-do_event_handler_ovat-\d+: search_radius fail\.\n'))
        self.assertEqual(len(peer.received), 2)

    def test_retransmissions_are_identical(self):
        peer = self.start_peer(SECRET, plan=['drop', 'drop'])
        daemon = self.start_meterd(speed=SPEED)
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', peer.port, SECRET))
        peer.wait_count(1, 5)
        dump = parse_dump(daemon.dump())
        # An on/off node has a blank for a user name; the scheduler wakes at its deadline.
        [(user, deadline, interface)] = dump['request']
        self.assertEqual((user, interface), (' ', 'wlan-1-1'))
        self.assertEqual(dump['scheduler'], [deadline])
        got = peer.wait_count(3, daemon.real(40))
        daemon.sleep(25)
        self.assertEqual(len(peer.received), 3)
        self.assertEqual({d.data for d in got}, {got[0].data})
        first, second = self.gaps(daemon, got)
        # Lost after 5 to 8 s, sent again at the next 3-second tick; then every third tick.
        self.assertTrue(7.5 <= first <= 12 and 7.5 <= second <= 11.5, (first, second))
        self.assertEqual(self.queued(daemon), [])

    def test_failover_to_backup_then_give_up(self):
        primary = self.start_peer(SECRET, default='drop')
        backup = self.start_peer(BACKUP_SECRET, default='drop')
        daemon = self.start_meterd('-d', speed=SPEED)
        daemon.send(ev_init('wlan-1-1', 'localhost', primary.port, SECRET,
                            '127.0.0.1', backup.port, BACKUP_SECRET))
        backup.wait_count(4, daemon.real(100))
        daemon.sleep(30)
        p, b = primary.received, backup.received
        self.assertEqual((len(p), len(b)), (4, 4))
        self.assertEqual({d.data for d in p}, {p[0].data})
        self.assertEqual({d.data for d in b}, {b[0].data})
        # Same Identifier and attributes, signed anew for the backup.
        self.assertEqual(b[0].data[:4] + b[0].data[20:], p[0].data[:4] + p[0].data[20:])
        self.assertTrue(harness.request_authentic(b[0].data, BACKUP_SECRET))
        self.assertFalse(harness.request_authentic(b[0].data, SECRET))
        gaps = self.gaps(daemon, p + b)
        self.assertTrue(7.5 <= gaps[0] <= 12 and all(7.5 <= g <= 11.5 for g in gaps[1:]), gaps)
        m = self.wait_console(' accounting fail. Accounting server localhost no response. Try backup.\n')
        self.console.wait_for(' accounting fail. Accounting server 127.0.0.1 no response.\n', m.end())
        self.assertEqual(self.queued(daemon), [])

    def test_answers(self):
        """Which answers settle a request: any Code, late or early, but only
        with the right authenticator; a second answer finds nothing."""
        plans = {'wlan-1-1': ['wrong', 'answer'], 'wlan-1-2': [('code', 2)], 'wlan-1-3': [('code', 11)],
                 'wlan-1-4': ['twice'], 'wlan-1-5': ['defer', 'drop']}
        expected = {'wlan-1-1': 2, 'wlan-1-2': 1, 'wlan-1-3': 1, 'wlan-1-4': 1, 'wlan-1-5': 2}
        daemon = self.start_meterd('-d', speed=SPEED)
        peers = {}
        for interface, plan in plans.items():
            peers[interface] = self.start_peer(SECRET, plan=plan, default='drop')
            daemon.send(ev_init(interface, '127.0.0.1', peers[interface].port, SECRET))
            peers[interface].wait_count(1, 5)
        daemon.sleep(35)
        for interface, peer in peers.items():
            with self.subTest(interface=interface):
                self.assertEqual(len(peer.received), expected[interface])
                self.assertEqual({d.data for d in peer.received}, {peer.received[0].data})
        self.assertEqual(self.queued(daemon), [])
        text = self.console.since(self.mark)
        self.assertEqual(text.count('Accounting on. Server IP:127.0.0.1\n'), 5)
        self.assertIn('Accounting FAIL!! Packet from RADIUS server verification fail: '
                      'The shared secret is probably incorrect\n', text)
        self.assertIn('Accounting Fail!! Response packet ID %d does not match the request packet\n'
                      % peers['wlan-1-4'].received[0].id, text)

    def test_remove_ends_waiting_on(self):
        peer = self.start_peer(SECRET, plan=['drop'])
        daemon = self.start_meterd('-d', speed=SPEED)
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', peer.port, SECRET))
        peer.wait_count(1, 5)
        daemon.send(ev_remove('wlan-1-1'))
        self.assertEqual(harness.status_type(peer.wait_count(2, 5)[1].data), 8)
        self.wait_console('free RADIUS profile \n')
        self.assertEqual(self.queued(daemon), [])
        daemon.sleep(25)
        self.assertEqual(len(peer.received), 2)

    def test_exit_sends_each_off_once(self):
        peer = self.start_peer(SECRET)
        daemon = self.start_meterd('-d', speed=SPEED)
        for interface in ('wlan-1-1', 'wlan-2-1'):
            daemon.send(ev_init(interface, '127.0.0.1', peer.port, SECRET))
        self.wait_console('Accounting on. Server IP:127.0.0.1\n', count=2)
        daemon.send(ev_exit())
        offs = peer.wait_count(4, 5)[2:]
        self.assertEqual([harness.status_type(d.data) for d in offs], [8, 8])
        self.assertTrue(all(harness.request_authentic(d.data, SECRET) for d in offs))
        self.assertNotEqual(offs[0].id, offs[1].id)
        # Nobody waits for these answers, so they match nothing.
        for off in offs:
            self.wait_console('Accounting Fail!! Response packet ID %d does not match' % off.id)
        daemon.sleep(30)
        self.assertEqual(len(peer.received), 4)
        self.assertEqual(self.queued(daemon), [])
        # The profiles are still in service.
        daemon.send(ev_remove('wlan-1-1'))
        self.assertEqual(harness.status_type(peer.wait_count(5, 5)[4].data), 8)
        self.wait_console('free RADIUS profile \n')

    def test_ac_address_change_redirects_retransmission(self):
        old = self.start_peer(SECRET, ip='127.0.0.2', default='drop')
        new = self.start_peer(SECRET, ip='127.0.0.3', port=old.port)
        daemon = self.start_meterd('-d', speed=SPEED)
        daemon.send(ev_init('wlan-1-1', '127.0.0.2', old.port, SECRET))
        first = old.wait_count(1, 5)[0]
        daemon.send(ev_ac_ip_change('127.0.0.2', '127.0.0.3'))
        m = self.wait_console('accounting_event_AC_ip_change\n')
        self.console.wait_for("Replace interface wlan-1-1's radius ip.\n", m.end())
        self.assertEqual(new.wait_count(1, daemon.real(15))[0].data, first.data)
        self.wait_console('Accounting on. Server IP:127.0.0.3\n')
        daemon.sleep(15)
        self.assertEqual((len(old.received), len(new.received)), (1, 1))
        self.assertEqual(self.queued(daemon), [])


if __name__ == '__main__':
    harness.main()
