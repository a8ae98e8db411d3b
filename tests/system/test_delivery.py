#!/usr/bin/python3
"""Accounting-On/Off against scriptable RADIUS peers: wire bytes, retransmission, failover
and the answers taken or refused. Each test's daemon runs on a clock ten times faster."""
import re

import harness
from harness import EV_AC_IP_CHANGE, EV_EXIT, EV_REMOVE, ON_TAIL, OFF_TAIL, Meterd, Peer, event, ev_init, queued

SECRET, BACKUP_SECRET = 'testing123', 'backup-s3cret'
SPEED = 10


class Delivery(harness.SystemTest):

    def setUp(self):
        super().setUp()
        self.daemon = self.start(Meterd(['-d'], speed=SPEED))

    def test_on_off_bytes_and_exit(self):
        daemon, peer = self.daemon, self.start(Peer(SECRET))
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', peer.port, SECRET))
        on = peer.wait(1)[0]
        self.assertEqual((on[0], on[2:4], on[20:]), (4, b'\x00\x38', ON_TAIL))
        self.assertTrue(harness.request_authentic(on, SECRET))
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')

        daemon.send(event(EV_REMOVE, 'wlan-1-1'))
        off = peer.wait(2)[1]
        self.assertEqual((off[0], off[1], off[2:4], off[20:]), (4, (on[1] + 1) % 256, b'\x00\x38', OFF_TAIL))
        self.assertTrue(harness.request_authentic(off, SECRET))
        self.wait_console('Accounting off. Server IP:127.0.0.1\n')
        self.wait_console('free RADIUS profile \n')
        self.assertEqual(queued(daemon.dump()), [])

        # At exit every profile sends its Accounting-Off once, waiting for nothing.
        for interface in ('wlan-1-1', 'wlan-2-1'):
            daemon.send(ev_init(interface, '127.0.0.1', peer.port, SECRET))
        self.wait_console('Accounting on. Server IP:127.0.0.1\n', count=3)
        daemon.send(event(EV_EXIT))
        offs = peer.wait(6)[4:]
        self.assertEqual([d[20:] for d in offs], [OFF_TAIL] * 2)
        self.assertTrue(all(harness.request_authentic(d, SECRET) for d in offs))
        self.assertNotEqual(offs[0][1], offs[1][1])
        for off in offs:  # so their answers match nothing
            self.wait_console('Accounting Fail!! Response packet ID %d does not match the request packet\n' % off[1])
        daemon.sleep(30)
        self.assertEqual(len(peer.received), 6)
        self.assertEqual(queued(daemon.dump()), [])
        # The profiles are still in service.
        daemon.send(event(EV_REMOVE, 'wlan-1-1'))
        self.assertEqual(peer.wait(7)[6][20:], OFF_TAIL)
        self.wait_console('free RADIUS profile \n', count=2)

    def test_failover_to_backup_then_give_up(self):
        # Alone on its daemon: other nodes due in the same pass would shift the ticks.
        daemon = self.daemon
        primary = self.start(Peer(SECRET, default='drop'))
        backup = self.start(Peer(BACKUP_SECRET, default='drop'))
        daemon.send(ev_init('wlan-1-1', 'localhost', primary.port, SECRET, '127.0.0.1', backup.port, BACKUP_SECRET))
        primary.wait(1)
        # An on/off node has a blank for a user name; the scheduler wakes at its deadline.
        dump = daemon.dump()
        [(user, deadline, interface)] = queued(dump)
        self.assertEqual((user, interface), (' ', 'wlan-1-1'))
        self.assertEqual(re.findall(r'^time:(\d+),', dump, re.M), [deadline])
        backup.wait(4, 100 / SPEED)
        daemon.sleep(30)
        p, b = primary.wait(4), backup.wait(4)
        self.assertEqual((len(p), len(b), len(set(p)), len(set(b))), (4, 4, 1, 1))
        # Same Identifier and attributes, signed anew for the backup.
        self.assertEqual(b[0][:4] + b[0][20:], p[0][:4] + p[0][20:])
        self.assertTrue(harness.request_authentic(b[0], BACKUP_SECRET))
        self.assertFalse(harness.request_authentic(b[0], SECRET))
        # Lost after 5 to 8 s, sent again at the next 3-second tick; then every third tick.
        times = [t for peer in (primary, backup) for t, _ in peer.received]
        g = [round((b - a) * SPEED, 1) for a, b in zip(times, times[1:])]
        self.assertTrue(7.5 <= g[0] <= 12 and all(7.5 <= x <= 11.5 for x in g[1:]), g)
        end = self.wait_console(' accounting fail. Accounting server localhost no response. Try backup.\n')
        self.console.wait_for(' accounting fail. Accounting server 127.0.0.1 no response.\n', end)
        self.assertEqual(queued(daemon.dump()), [])

    def test_answers(self):
        # Any Code settles a request, but only with the right authenticator; an
        # answered Accounting-Off frees the profile and its waiting Accounting-On.
        daemon = self.daemon
        peers = {i: self.start(Peer(SECRET, ip, plan=plan)) for i, ip, plan in (
            ('wlan-1-1', '127.0.0.1', ['wrong']), ('wlan-1-2', '127.0.0.1', [2]), ('wlan-1-3', '127.0.0.1', [11]),
            ('wlan-1-4', '127.0.0.1', ['late']), ('wlan-1-5', '127.0.0.1', ['twice']),
            ('wlan-2-1', '127.0.0.1', ['drop']), ('wlan-3-1', '127.0.0.2', ['drop'] * 9))}
        moved = self.start(Peer(SECRET, '127.0.0.3', peers['wlan-3-1'].port))
        for interface, peer in peers.items():
            daemon.send(ev_init(interface, peer.ip, peer.port, SECRET))
            peer.wait(1)
        # Both before the first time-out; a new AC address takes effect at the next transmission.
        daemon.send(event(EV_AC_IP_CHANGE, '127.0.0.2', '127.0.0.3'))
        daemon.send(event(EV_REMOVE, 'wlan-2-1'))
        self.wait_console("Replace interface wlan-3-1's radius ip.\n")
        self.assertEqual(peers['wlan-2-1'].wait(2)[1][20:], OFF_TAIL)
        self.wait_console('free RADIUS profile \n')
        self.assertEqual(queued(daemon.dump(), 'wlan-2-1'), [])
        self.assertEqual(moved.wait(1, 15 / SPEED), peers['wlan-3-1'].wait(1))
        daemon.sleep(30)
        self.assertEqual({i: len(p.received) for i, p in dict(peers, moved=moved).items()},
                         {'wlan-1-1': 2, 'wlan-1-2': 1, 'wlan-1-3': 1, 'wlan-1-4': 2, 'wlan-1-5': 1,
                          'wlan-2-1': 2, 'wlan-3-1': 1, 'moved': 1})
        self.assertEqual(len(set(peers['wlan-1-1'].wait(2))), 1)
        self.assertEqual(queued(daemon.dump()), [])
        text = self.console.since(self.mark)
        self.assertEqual(text.count('Accounting on. Server IP:127.0.0.1\n'), 5)
        # The second of two answers finds its request gone.
        self.assertIn('Response packet ID %d does not match' % peers['wlan-1-5'].received[0][1][1], text)
        self.assertIn('Accounting on. Server IP:127.0.0.3\n', text)
        self.assertIn('Accounting FAIL!! Packet from RADIUS server verification fail: '
                      'The shared secret is probably incorrect\n', text)

if __name__ == '__main__':
    harness.main()
