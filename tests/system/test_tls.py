#!/usr/bin/python3
"""RADIUS over TLS with the building blocks alone (the -T file, the TLS seam, the stream reader, the
packet functions, through build/tls_probe) against FreeRADIUS's own TLS listener: accounting
answered and recorded, and each refusal told apart, with nothing reaching the server."""
import pathlib
import socket
import threading

import harness
from freeradius import Certs, FreeRadius

probe = harness.tool('tls_probe', check=False)


class Tls(harness.SystemTest):

    def setUp(self):
        super().setUp()
        self.certs = Certs('/tmp/certs')  # in the test's own /tmp

    def probe(self, address='127.0.0.1', count=1, client='client', **keys):
        # The probe's line for a -T file with our client pair, the CA and `keys`.
        cert, key = self.certs.pair(client)
        lines = dict(ca_file=self.certs.pair('ca')[0], certificate_file=cert, private_key_file=key, **keys)
        pathlib.Path('/tmp/meterd-tls.conf').write_text(''.join('%s = %s\n' % kv for kv in lines.items()))
        result = probe('/tmp/meterd-tls.conf', address, count)
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


if __name__ == '__main__':
    harness.main()
