#!/usr/bin/python3
"""RADIUS over TLS against FreeRADIUS's own TLS listener: first with the building blocks alone (the
-T file, the TLS seam, the stream reader, the packet functions, through build/tls_probe), accounting
answered and recorded and each refusal told apart; then the real meterd -T: a session recorded as over
UDP with nothing readable on the wire, refusals counted with nothing sent, a server restarted, a
handshake that never ends, and a thousand sessions over one connection. The daemon runs on real
time: its Interim-Update's look-up starts a sanitized tool, which hangs under libfaketime."""
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import threading
import time

import harness
from freeradius import Certs, FreeRadius
from harness import Meterd
from records import EV_REMOVE, ev_init, event

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'bench'))
from bench import Device, write_stations  # noqa: E402

SECRET, MAC = 'testing123', 'aa:bb:cc:dd:ee:02'
probe, devsim, meterctl = harness.tool('tls_probe', check=False), harness.tool('devsim'), harness.tool('meterctl', check=False)
# What differs between two runs of one session, whatever the transport: times, and the row's key.
MOVING = {'radacctid', 'acctstarttime', 'acctupdatetime', 'acctstoptime', 'acctsessiontime', 'acctinterval',
          'Acct-Delay-Time', 'Event-Timestamp', 'Acct-Session-Time', 'Packet-Src-Port', 'Packet-Transmit-Counter'}


class Tls(harness.SystemTest):

    @classmethod
    def setUpClass(cls):
        # Made once for the file, in the build folder, which every test's fresh /tmp leaves in sight.
        shutil.rmtree(os.path.join(harness.BUILD_DIR, 'tls-certs'), ignore_errors=True)
        cls.certs = Certs(os.path.join(harness.BUILD_DIR, 'tls-certs'))

    def tls_file(self, client='client', **keys):
        # A -T file with our client pair, the CA and `keys`.
        cert, key = self.certs.pair(client)
        lines = dict(ca_file=self.certs.pair('ca')[0], certificate_file=cert, private_key_file=key, **keys)
        pathlib.Path('/tmp/meterd-tls.conf').write_text(''.join('%s = %s\n' % kv for kv in lines.items()))
        return '/tmp/meterd-tls.conf'

    def probe(self, address='127.0.0.1', count=1, client='client', **keys):
        # The probe's line for a -T file with our client pair, the CA and `keys`.
        result = probe(self.tls_file(client, **keys), address, count)
        self.assertEqual(result.stderr, '')
        return result.stdout.strip()

    def test_accounting_answered_and_recorded_and_each_refusal_told_apart(self):
        server = self.start(FreeRadius('testing123', tls=self.certs))
        # The address in the certificate, then its DNS name; each packet in a record of its own,
        # also 50 back to back: FreeRADIUS closes a connection where two share one.
        self.assertRegex(self.probe(), r'^ok TLSv1\.3 TLS_\S+ answered 1$')
        self.assertRegex(self.probe(server_name='radius.test', count=50), r'^ok TLSv1\.3 \S+ answered 50$')
        # FreeRADIUS's threads may write them in another order than they came.
        records = server.wait_records(51)
        self.assertEqual(sorted((r['User-Name'], r['Acct-Session-Id']) for r in records),
                         sorted([('probe-%d' % i, 'tls-probe-%d' % i) for i in [0] + list(range(50))]))
        # A wrong secret inside TLS (FreeRADIUS drops what it cannot verify), then each refusal: none
        # is recorded.
        for cert, args, line in [
                ('server', dict(secret='not-radsec'), 'no answer: 0 of 1 answered'),
                ('server', dict(server_name='other.test'), 'certificate refused: hostname mismatch'),
                ('server', dict(address='127.0.0.2'), 'certificate refused: IP address mismatch'),
                ('server', dict(client='rogue-client'),
                 'refused by the server: closed after asking for our certificate'),
                ('rogue', {}, 'certificate refused: unable to get local issuer certificate'),
                ('expired', {}, 'certificate refused: certificate has expired')]:
            with self.subTest(cert=cert, **args):
                if cert != server.tls_cert:
                    server.stop()
                    server = self.start(FreeRadius('testing123', tls=self.certs, tls_cert=cert))
                # Later servers share the first one's detail file.
                self.assertEqual((self.probe(**args), len(server.records())), (line, 51))

    def test_a_listener_that_does_not_speak_tls(self):
        # One that answers in plain text, one that hangs up, one that never answers.
        for reply, line in ((b'HTTP/1.0 400 Bad Request\r\n\r\n', 'failed: wrong version number'),
                            (b'', 'failed: connection closed'),
                            (None, 'timed out: handshake timed out')):
            with self.subTest(line=line), socket.create_server(('127.0.0.1', 2083)) as listener:
                def serve():
                    conn, _ = listener.accept()
                    self.addCleanup(conn.close)  # held open by the one that never answers
                    conn.recv(4096)
                    if reply is not None:
                        conn.sendall(reply)
                        conn.close()
                threading.Thread(target=serve, daemon=True).start()
                self.assertEqual(self.probe(), line)


    # --- the daemon ----------------------------------------------------------------------------

    def meterd(self, *options, client='client', **keys):
        # meterd -d -T with a file of our client pair.
        return self.start(Meterd(['-d', *options, '-T', self.tls_file(client, **keys)], exact=True))

    def connections(self, port=1813):
        # meterctl stats --json: the TLS connection of each server, by its address.
        report = json.loads(meterctl('stats', '--json').stdout)
        return {t['address']: t for t in report.get('transports', []) if t['port'] == port}

    def begin(self, server, daemon, session):
        # The profile's Accounting-On, then dave's session with its Start and first Interim-Update.
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        devsim('station', 'add', '--mac', MAC, '--ip', '10.0.0.8', '--rx', 1000, '--tx', 2000)
        devsim('login', '--user', 'dave', '--mac', MAC, '--iface', 'wlan-1-1', '--interim', 3, '--session-id', session)
        devsim('report', '--mac', MAC, '--ip', '10.0.0.8')
        server.wait_records(3)
        return daemon

    def session(self, *options):
        # Accounting-On, a Start, an Interim-Update, a Stop and the Accounting-Off of one session
        # (meterd with options) into FreeRADIUS's SQL accounting: its detail records and radacct rows,
        # without what moves from run to run.
        server = self.start(FreeRadius(SECRET, sql=True, tls=self.certs))
        daemon = self.begin(server, self.start(Meterd(['-d', *options], exact=True)), 'S-t')
        devsim('disassoc', '--mac', MAC, '--iface', 'wlan-1-1')
        server.wait_records(4)
        daemon.send(event(EV_REMOVE, 'wlan-1-1'))
        records, rows = server.wait_records(5), server.radacct()
        for thing in (daemon, server):
            thing.stop()
        shutil.rmtree(server.dir)
        return ([{k: v for k, v in r.items() if k not in MOVING} for r in records],
                [{k: v for k, v in r.items() if k not in MOVING} for r in rows])

    def test_a_session_over_tls_is_recorded_as_over_udp_and_unreadable_on_the_wire(self):
        over_udp = self.session()
        self.assertEqual([r['Acct-Status-Type'] for r in over_udp[0]],
                         ['Accounting-On', 'Start', 'Interim-Update', 'Stop', 'Accounting-Off'])
        capture = subprocess.Popen(['dumpcap', '-q', '-i', 'lo', '-w', '/tmp/lo.pcap'], stderr=subprocess.DEVNULL)
        self.addCleanup(capture.kill)
        harness._poll(lambda: os.path.exists('/tmp/lo.pcap'), 5, lambda: 'dumpcap did not start')
        time.sleep(0.5)
        self.assertEqual(self.session('-T', self.tls_file()), over_udp)
        capture.terminate()
        capture.wait(5)
        # No RADIUS over UDP left, and the TCP payload (there is some) shows no attribute's text.
        read = lambda *args: subprocess.run(['tshark', '-r', '/tmp/lo.pcap', *args], capture_output=True,
                                            text=True, check=True).stdout.split()
        self.assertEqual(read('-Y', 'udp'), [])
        payload = bytes.fromhex(''.join(read('-Y', 'tcp.len > 0', '-T', 'fields', '-e', 'tcp.payload')))
        self.assertGreater(len(payload), 1000)
        for text in (b'dave', b'S-t', b'AA-BB-CC-DD-EE-02', b'wlan-1-1'):
            self.assertNotIn(text, payload)

    def test_a_bad_file_stops_the_start(self):
        os.chmod(self.certs.pair('client')[1], 0o644)
        self.addCleanup(os.chmod, self.certs.pair('client')[1], 0o600)
        for keys in ({}, {'colour': 'blue'}):
            with self.subTest(**keys):
                result = subprocess.run([os.path.join(harness.BUILD_DIR, 'meterd'), '-T', self.tls_file(**keys)],
                                        capture_output=True, text=True, timeout=10)
                self.assertEqual((result.returncode, result.stderr.count('\n')), (1, 1), result.stderr)
                self.assertIn('colour' if keys else 'private_key_file', result.stderr)
                self.assertFalse(os.path.exists(harness.PID_FILE))

    def test_refusals_counted_and_nothing_sent(self):
        # A server of an unknown CA, one with an expired certificate, one that refuses our certificate;
        # and one that drops what a wrong secret signed: unanswered, the connection is closed.
        for cert, client, secret, figure, line in (
                ('rogue', 'client', 'radsec', 'certificate_refusals', ': certificate refused: '),
                ('expired', 'client', 'radsec', 'certificate_refusals', ': certificate refused: '),
                ('server', 'rogue-client', 'radsec', 'handshake_failures', ': refused by the server: '),
                ('server', 'client', 'not-radsec', 'lost', ': a request went unanswered, connection closed')):
            with self.subTest(cert=cert, client=client, secret=secret):
                server = self.start(FreeRadius(SECRET, tls=self.certs, tls_cert=cert))
                daemon = self.meterd(client=client, secret=secret)
                mark = len(self.console.text)
                daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
                line = 'RADIUS/TLS to 127.0.0.1' + ' port 2083' * (figure != 'lost') + line
                harness._poll(lambda: line in self.console.text[mark:], 15, lambda: self.console.text[mark:])
                harness._poll(lambda: self.connections()['127.0.0.1'][figure] >= 1, 5, lambda: self.connections())
                time.sleep(1)  # the retransmissions' time
                self.assertEqual(server.records(), [])
                self.assertNotIn(secret, self.console.text[mark:])
                for thing in (daemon, server):
                    thing.stop()
    def test_a_restarted_server_loses_nothing(self):
        server = self.start(FreeRadius(SECRET, tls=self.certs))
        self.begin(server, self.meterd('-x'), 'S-r')
        # Away while an Interim-Update falls due and its pass sends it (3 s each at most, and its
        # look-up); the same detail file when it is back.
        server.stop()
        time.sleep(8)
        server = self.start(FreeRadius(SECRET, tls=self.certs))
        # The Interim-Update of the outage comes late, not lost; then the Stop.
        late = server.wait_records(4, timeout=40)[3]
        self.assertEqual(late['Acct-Status-Type'], 'Interim-Update')
        devsim('disassoc', '--mac', MAC, '--iface', 'wlan-1-1')
        harness._poll(lambda: ('Stop', 'S-r') in server.kinds(), 10, lambda: server.kinds())
        kinds = [k for k, _ in server.kinds()]
        self.assertEqual((kinds[:2], set(kinds[2:-1]), kinds[-1]), (['Accounting-On', 'Start'], {'Interim-Update'}, 'Stop'))
        connection = self.connections()['127.0.0.1']
        # It went while the server was away: refused then, and again on a new connection.
        self.assertEqual((connection['opened'], connection['lost'], connection['up']), (2, 1, 1))
        self.assertGreaterEqual(connection['handshake_failures'], 1)

    def test_a_handshake_that_never_ends_fails_over_to_the_backup(self):
        # The primary accepts TCP and says nothing; the backup is FreeRADIUS on another address,
        # which the certificate names as radius.test alone.
        backup = self.start(FreeRadius(SECRET, tls=self.certs, tls_address='127.0.0.2'))
        listener, held = socket.create_server(('127.0.0.1', 2083)), []

        def hold():
            try:
                while True:
                    held.append(listener.accept()[0])
            except OSError:  # shut down
                listener.close()
        threading.Thread(target=hold, daemon=True).start()
        # A listener stays one while its accept() waits: shut down, it wakes and lets the port go.
        self.addCleanup(lambda: [s.close() for s in held])
        self.addCleanup(listener.shutdown, socket.SHUT_RDWR)
        daemon = self.meterd(server_name='radius.test')
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET, '127.0.0.2', 1813, SECRET))
        self.assertEqual(backup.wait_records(1, timeout=60)[0]['Acct-Status-Type'], 'Accounting-On')
        self.wait_console('RADIUS/TLS to 127.0.0.1 port 2083: timed out: no connection within the time')
        connections = self.connections()
        self.assertEqual(connections['127.0.0.1']['opened'], 0)
        self.assertGreaterEqual(connections['127.0.0.1']['handshake_failures'], 1)
        self.assertEqual(connections['127.0.0.2']['opened'], 1)
        self.assertTrue(held)

    def test_an_idle_connection_kept_by_its_watchdog(self):
        # FreeRADIUS closes a connection after 30 idle seconds; the watchdog's Status-Server keeps it.
        server = self.start(FreeRadius(SECRET, tls=self.certs))
        self.meterd().send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        time.sleep(35)
        connection = self.connections()['127.0.0.1']
        self.assertEqual((connection['opened'], connection['lost'], connection['up']), (1, 0, 1),
                         self.console.text[self.mark:] + server.log()[-3000:])
        self.assertGreaterEqual(connection['watchdogs'], 1)
        self.assertEqual(server.records()[1:], [])  # Status-Server is no accounting

    def test_a_thousand_sessions_over_one_connection(self):
        server, sessions = self.start(FreeRadius(SECRET, tls=self.certs)), 1000
        write_stations(range(sessions))
        daemon = self.meterd()
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        device = Device()
        self.addCleanup(device.unix.close)
        self.addCleanup(device.netlink.close)
        for n in range(sessions):
            device.login(n, 86400)
            device.report(n)
        server.wait_records(1 + sessions, timeout=60)
        for n in range(sessions):
            device.disassoc(n)
        records = server.wait_records(1 + 2 * sessions, timeout=60)
        users = lambda kind: {r['User-Name'] for r in records if r['Acct-Status-Type'] == kind}
        self.assertEqual((len(users('Start')), len(users('Stop'))), (sessions, sessions))
        connection = self.connections()['127.0.0.1']
        self.assertEqual((connection['opened'], connection['lost']), (1, 0))
        self.assertRegex(meterctl('stats').stdout, r'\n127\.0\.0\.1:1813 over tls to port 2083: up, TLSv1\.3 TLS_\S+, '
                         r'opened 1, handshake failures 0, certificate refusals 0, lost 0\n')


if __name__ == '__main__':
    harness.main()
