#!/usr/bin/python3
"""RADIUS over TLS against UDP: the Release meterd of a TLS build sends the same sessions (a Start and
a Stop each, in batches) to FreeRADIUS three ways: over UDP, over TLS itself (meterd -T), and over UDP
to radsecproxy on the same host, which forwards them over TLS, what a user would run instead. Prints
the CPU per answered request (the daemon's, and the proxy's beside it), the memory (RSS) after the
run, the connections opened and the stripped binary's size. Run it through bench/run --tls."""
import os
import subprocess
import sys
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(BENCH)
os.environ.setdefault('METERD_BUILD_DIR', os.path.join(ROOT, 'build-bench-tls'))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'system'))
import harness  # noqa: E402
from bench import Device, cpu, rss_kb, write_stations  # noqa: E402
from freeradius import Certs, FreeRadius  # noqa: E402
from records import ev_init  # noqa: E402

SECRET, SESSIONS, BATCH, PROXY_PORT = 'testing123', 2000, 100, 1814
PROXY_CONF = '''ListenUDP 127.0.0.1:%d
LogLevel 1
LogDestination file:///tmp/radsecproxy.log
tls default {
    CACertificateFile %s
    CertificateFile %s
    CertificateKeyFile %s
}
client meterd {
    host 127.0.0.1
    type udp
    secret %s
}
server freeradius {
    host 127.0.0.1
    port 2083
    type tls
    secret radsec
}
realm * {
    accountingServer freeradius
}
'''


class Proxy:
    def __init__(self, certs):
        ca, (cert, key) = certs.pair('ca')[0], certs.pair('client')
        with open('/tmp/radsecproxy.conf', 'w') as f:
            f.write(PROXY_CONF % (PROXY_PORT, ca, cert, key, SECRET))
        self.proc = None

    def start(self):
        harness._spawn(self, ['radsecproxy', '-f', '-c', '/tmp/radsecproxy.conf'], '/tmp/radsecproxy.err',
                       lambda: time.sleep(0.5) or True)

    def stop(self):
        if self.proc and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(10)


class Tls(harness.SystemTest):

    def run_sessions(self, server, daemon, port, procs):
        # Every session's Start and Stop, a batch at a time; the CPU of procs per answered request.
        # radsecproxy passes no Accounting-On (it has no User-Name to route by): only the sessions count.
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', port, SECRET))
        time.sleep(1)
        device, before = Device(), [sum(cpu(p.proc.pid)) for p in procs]
        counted = lambda kind, n: harness._poll(
            lambda: sum(r['Acct-Status-Type'] == kind for r in server.records()) >= n, 60, lambda: server.kinds()[-5:])
        for first in range(0, SESSIONS, BATCH):
            for n in range(first, first + BATCH):
                device.login(n, 86400)
                device.report(n)
            counted('Start', first + BATCH)
        for first in range(0, SESSIONS, BATCH):
            for n in range(first, first + BATCH):
                device.disassoc(n)
            counted('Stop', first + BATCH)
        # ns of every thread and reaped child, per request.
        used = [(sum(cpu(p.proc.pid)) - b) / 1000 / (2 * SESSIONS) for p, b in zip(procs, before)]
        return used, [rss_kb(p.proc.pid) for p in procs]

    def test_bench(self):
        certs = Certs('/tmp/certs')
        cert, key = certs.pair('client')
        with open('/tmp/tls.conf', 'w') as f:
            f.write('ca_file = %s\ncertificate_file = %s\nprivate_key_file = %s\n' % (certs.pair('ca')[0], cert, key))
        write_stations(range(SESSIONS))
        rows = []
        for name, args, port, proxied in (('UDP', ['-i'], 1813, False), ('TLS (-T)', ['-T', '/tmp/tls.conf'], 1813, False),
                                          ('UDP to radsecproxy, TLS on', ['-i'], PROXY_PORT, True)):
            server = self.start(FreeRadius(SECRET, tls=certs))
            procs = [self.start(harness.Meterd(args, exact=True))]
            if proxied:
                procs.append(self.start(Proxy(certs)))
            us, kb = self.run_sessions(server, procs[0], port, procs)
            stats = subprocess.run([os.path.join(harness.BUILD_DIR, 'meterctl'), 'stats'], capture_output=True,
                                   text=True).stdout
            opened = [line for line in stats.splitlines() if ' over tls ' in line]
            rows.append((name, ' + '.join('%.0f' % u for u in us), '%.0f' % sum(us),
                         ' + '.join('%d' % k for k in kb), opened[0].split('opened ')[1].split(',')[0] if opened else '-'))
            for p in procs + [server]:
                p.stop()
            subprocess.run(['rm', '-rf', server.dir])
        subprocess.run(['strip', '-o', '/tmp/meterd.stripped', os.path.join(harness.BUILD_DIR, 'meterd')], check=True)
        print('\n| Transport (%d sessions, Start and Stop) | CPU per answered request, µs (meterd + proxy) | total |'
              ' RSS after, KiB (meterd + proxy) | connections opened |' % SESSIONS)
        print('|---|---:|---:|---:|---:|')
        for row in rows:
            print('| %s |' % ' | '.join(row))
        print('\nStripped meterd of the TLS build: %d bytes (dynamic: %s)' % (
            os.path.getsize('/tmp/meterd.stripped'),
            ', '.join(sorted(set(l.split()[-1].strip('[]') for l in subprocess.run(
                ['readelf', '-d', '/tmp/meterd.stripped'], capture_output=True, text=True).stdout.splitlines()
                if 'NEEDED' in l)))))


if __name__ == '__main__':
    harness.main()
