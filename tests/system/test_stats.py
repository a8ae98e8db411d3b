#!/usr/bin/python3
"""meterctl stats: the delivery counters that meterd reports are what scripted RADIUS servers counted,
through loss, answers of every kind, a wrong secret and a silent primary; and the command's failures.
The daemon runs on a clock ten times faster."""
import json
import os
import socket
import struct
import time

import harness
from harness import CONTROL_SOCK, Meterd
import records
from records import ev_init

SECRET = 'testing123'
FIGURES = ('requests', 'retransmissions', 'responses', 'malformed', 'bad_authenticators', 'unknown_types',
           'dropped', 'timeouts')
meterctl = harness.tool('meterctl', check=False)


class CountingPeer(harness.Peer):
    # An accounting server that treats each datagram as its plan says (then as `default`) and counts
    # in the daemon's figures what it received and sent back. 'answer'; 'drop' (loss); 'wrong'
    # (signed with another secret); 'short' (10 bytes of a header that says 20); 'empty' (0 bytes);
    # 'code11' (an answer of another Code, which the daemon takes); 'twice' (the second answer
    # finds no request). Every datagram not answered, or answered wrongly, times out.
    REPLIES = {'answer': [5], 'drop': [], 'wrong': ['wrong'], 'short': ['short'], 'empty': ['empty'],
               'code11': [11], 'twice': [5, 5]}
    FIGURE = {'wrong': 'bad_authenticators', 'short': 'malformed', 'empty': 'malformed',
              'code11': 'unknown_types', 'twice': 'dropped'}

    def __init__(self, ip, plan=(), default='answer', delay=0):
        super().__init__(SECRET, ip, plan=plan, default=default)
        self.delay, self.seen, self.counted = delay, set(), dict.fromkeys(FIGURES, 0)

    def handle(self, data, source):
        action, count, self.source = self.plan.pop(0) if self.plan else self.default, self.counted, source
        count['retransmissions' if data in self.seen else 'requests'] += 1
        self.seen.add(data)
        count['responses'] += len(self.REPLIES[action])
        count['timeouts'] += action not in ('answer', 'code11', 'twice')
        if action in self.FIGURE:
            count[self.FIGURE[action]] += 1
        time.sleep(self.delay)
        for kind in self.REPLIES[action]:
            self.sock.sendto(self.answer(kind, data), source)

    def transmissions(self):
        return self.counted['requests'] + self.counted['retransmissions']


class Stats(harness.SystemTest):

    def stats(self):
        result = meterctl('stats', '--json')
        self.assertEqual((result.returncode, result.stderr), (0, ''))
        return json.loads(result.stdout)

    def server(self, report, address, port):
        return next((s for s in report['servers'] if (s['address'], s['port']) == (address, port)), {})

    def test_figures_are_what_the_servers_counted(self):
        daemon = self.start(Meterd(speed=10))
        # Three Accounting-Ons to a lossy server that answers in every way; whichever On a
        # datagram belongs to, what the daemon makes of the answer is the same.
        lossy = self.start(CountingPeer('127.0.0.1', ['drop', 'wrong', 'short', 'empty', 'code11', 'twice']))
        wrong = self.start(CountingPeer('127.0.0.2', default='wrong'))
        silent = self.start(CountingPeer('127.0.0.3', default='drop'))
        backup = self.start(CountingPeer('127.0.0.4', delay=0.2))
        for i, peer in enumerate((lossy, lossy, lossy, wrong)):
            daemon.send(ev_init('wlan-1-%d' % (i + 1), peer.ip, peer.port, SECRET))
        daemon.send(ev_init('wlan-2-1', silent.ip, silent.port, SECRET, backup.ip, backup.port, SECRET))
        harness._poll(lambda: silent.transmissions() and lossy.transmissions(), 5, lambda: 'no Accounting-On')
        # Its first request waits for the answer that never comes (0.5 s here).
        self.assertEqual({k: self.server(self.stats(), silent.ip, silent.port)[k] for k in ('requests', 'pending')},
                         {'requests': 1, 'pending': 1})
        # A stranger's datagram to the daemon's port counts in the row of no server.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.bind(('127.0.0.5', 0))
            stranger.sendto(b'\x05\x00\x00', lossy.source)

        # Lossy: 3 first transmissions, 3 copies, and 1 more after 'empty'; then nothing more comes.
        peers = (lossy, wrong, silent, backup)
        harness._poll(lambda: [p.transmissions() for p in peers] == [7, 4, 4, 1], 30,
                      lambda: 'datagrams: %s' % [p.transmissions() for p in peers])
        expected = [dict(p.counted, pending=0) for p in peers]
        figures = lambda report: [{k: self.server(report, p.ip, p.port).get(k) for k in expected[0]} for p in peers]
        harness._poll(lambda: figures(self.stats()) == expected, 10,
                      lambda: 'meterctl stats: %s\nthe servers counted: %s' % (figures(self.stats()), expected))
        report = self.stats()
        other = dict(dict.fromkeys(FIGURES + ('pending', 'round_trip_ms'), 0), responses=1, malformed=1)
        self.assertEqual(report['servers'][-1], dict(other, address='other', port=0))
        # At least the 0.2 s the backup waits; ten times that where libfaketime speeds the monotonic clock.
        self.assertTrue(200 <= self.server(report, backup.ip, backup.port)['round_trip_ms'] < 4000, report)
        self.assertEqual(silent.counted['retransmissions'], 3)  # then the backup takes over
        # The counters write nothing anywhere, and the table shows the same figures.
        self.assertEqual((daemon.stderr(), self.console.text[self.mark:]), ('', ''))
        table = meterctl('stats').stdout.splitlines()
        self.assertEqual(table[2].split(), ['%s:%d' % (p.ip, p.port) for p in peers] + ['other'])
        self.assertEqual(table[3].split(), ['requests'] + [str(p.counted['requests']) for p in peers] + ['0'])

    def test_more_requests_in_flight_than_identifiers(self):
        # 300 Starts and the On wait at a server that answers only then, last first. With -i the
        # daemon's second socket takes the Identifiers past 256: every pair of source port and
        # Identifier differs, and every answer is taken, none sent again.
        held = []

        class Holding(harness.Peer):
            def handle(self, data, source):
                held.append((data, source))
                for data, source in reversed(held) if len(held) == 301 else ():
                    self.sock.sendto(self.answer(5, data), source)

        peer = self.start(Holding(SECRET))
        daemon = self.start(Meterd(['-i']))
        daemon.send(ev_init('wlan-1-1', peer.ip, peer.port, SECRET))
        socks = '/tmp/accounting_recv_radius.sock', '/tmp/accounting_recv_wireless_hal.sock'
        harness._poll(lambda: held and all(map(harness._bound, socks)), 5, lambda: 'no On, or no station sockets')
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as unix:
            for n in range(300):
                mac = bytes([2, 0, 0, 0, n >> 8, n & 255])
                text = '-'.join('%02X' % b for b in mac)
                unix.sendto(records.login('u%d' % n, text, iface='wlan-1-1'), socks[0])
                unix.sendto(records.report(mac, '10.0.%d.%d' % (n >> 8, n & 255)), socks[1])
        harness._poll(lambda: len(held) == 301, 10, lambda: '%d requests came' % len(held))
        self.assertEqual(len({(source[1], data[1]) for data, source in held}), 301)
        self.assertEqual(len({source[1] for data, source in held}), 2)
        row = lambda: self.server(self.stats(), peer.ip, peer.port)
        harness._poll(lambda: row()['responses'] == 301, 5, lambda: 'stats: %s' % row())
        self.assertEqual({k: row()[k] for k in ('requests', 'retransmissions', 'dropped', 'pending')},
                         {'requests': 301, 'retransmissions': 0, 'dropped': 0, 'pending': 0})

    def test_a_daemon_without_servers_then_nobody_answers(self):
        daemon = self.start(Meterd(['-g', '-c']))
        on = dict.fromkeys(('gigawords', 'unique_ids', 'retry_per_request', 'steady_counters', 'keep_records'),
                           harness.EXTENDED)
        on.update(gigawords=True, steady_counters=True)
        lookups = dict(started=0, timed_out=0, killed=0, gone=0, pending=0)
        extended = dict(states=[], backlog={'length': 0, 'oldest_age': 0}, lookups=lookups) if harness.EXTENDED else {}
        if harness.EXTENDED:  # named only when on
            on['lookups'] = True
        self.assertEqual(self.stats(), dict(extensions=on, servers=[], **extended))
        names = ', '.join(name for name, value in on.items() if value)
        backlog = '\nbacklog: 0 requests, the oldest 0 s old\n\nlook-ups: 0 started, 0 timed out, 0 ovat killed, ' \
            '0 for sessions gone, 0 pending\n' if harness.EXTENDED else ''
        self.assertEqual(meterctl('stats').stdout, 'extensions: %s\n\nno request sent yet\n%s' % (names, backlog))
        # Its socket left without a reader, then a reader that never answers: one line each, status 1.
        daemon.stop()
        refused = (1, '', 'meterctl: meterd is not listening on %s: Connection refused\n' % CONTROL_SOCK)
        result = meterctl('stats', '--json')
        self.assertEqual((result.returncode, result.stdout, result.stderr), refused)
        os.unlink(CONTROL_SOCK)
        listener = self.listen(CONTROL_SOCK)
        result = meterctl('stats')
        self.assertEqual((result.returncode, result.stderr), (1, 'meterctl: meterd did not answer within 2 s\n'))
        self.assertEqual(listener.recv(1024), struct.pack('<q', 103).ljust(416, b'\0'))


if __name__ == '__main__':
    harness.main()
