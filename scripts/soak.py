#!/usr/bin/python3
"""Soak: sessions through relays that lose 30% of the datagrams both ways, to a primary and a backup
FreeRADIUS with their stock SQL accounting (radacct in SQLite). The primary is killed at 250 s and
started again at 500 s; later both servers are away together for 120 s. Each session's station
has byte counters on the simulated device, and each session ends by the driver's disassociation.

Fails unless the daemon stays up, every session's Start and Stop reach a server or end by the retry
rule, and once all is over the heap holds what it held before. In extended mode (meterd -x) also
unless no session is given up, no answer is refused, and every session's Stop stands in radacct
with the device's totals and a stop time within 1 s of its disassociation.

Runs the Release build (METERD_BUILD_DIR, default build-soak) in a private mount and network
namespace, as root. Not part of CI: about a quarter of an hour a mode. Usage:
scripts/soak.py [--mode default|extended|both] [SESSIONS] (default: both modes, 5000 sessions
each); METERD_SOAK_RATE sessions a second (default 10), which the timeline's moments assume."""
import argparse
import json
import os
import random
import re
import select
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
os.environ.setdefault('METERD_BUILD_DIR', os.path.join(HERE, '..', 'build-soak'))
sys.path.insert(0, os.path.join(HERE, '..', 'tests', 'system'))
import harness  # noqa: E402
import records  # noqa: E402
from freeradius import FreeRadius  # noqa: E402

# METERD_SOAK_SCALE shortens the timeline and the sessions' lives, for a trial of the script.
SCALE = float(os.environ.get('METERD_SOAK_SCALE', 1))
SECRET, LOSS, LIFETIME = 'testing123', 0.3, 100 * SCALE
RATE = int(os.environ.get('METERD_SOAK_RATE', 10))
PRIMARY, BACKUP = 1813, 1823  # FreeRADIUS; the relays listen 10000 above
# Seconds after the first session: the primary killed and started again, both away, both back.
KILL, RESTART, BOTH_AWAY, BOTH_BACK = (int(t * SCALE) for t in (250, 500, 540, 660))
PROBE_INTERVAL = 30  # extended mode's longest
MODES = {'default': ['-d'], 'extended': ['-d', '-x']}
# One heap for all threads, and no per-thread caches of freed chunks, which the allocator
# would count as in use: then its figures are what the daemon holds.
MALLOC_ENV = {'MALLOC_ARENA_MAX': '1', 'GLIBC_TUNABLES': 'glibc.malloc.tcache_count=0:glibc.malloc.mxfast=0'}


def attributes(packet):
    # {type: value} of a RADIUS packet, read within its bytes.
    attrs, pos = {}, 20
    while pos + 2 <= len(packet) and packet[pos + 1] >= 2:
        attrs.setdefault(packet[pos], packet[pos + 2:pos + packet[pos + 1]])
        pos += packet[pos + 1]
    return attrs


class Relay(threading.Thread):
    # Forwards the daemon's datagrams to a server and the answers back, losing each with LOSS. Each
    # source port of the daemon (meterd -i opens more) has a port of its own towards the server, as
    # a server tells duplicates apart by source port. Keeps when each request came and each answer
    # went back, for the failback.
    def __init__(self, port, server_port, seed):
        super().__init__(daemon=True)
        self.front = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.front.bind(('127.0.0.1', port))
        self.server, self.random = ('127.0.0.1', server_port), random.Random(seed)
        self.backs, self.clients = {}, {}  # the daemon's address -> our socket to the server, and back
        self.requests, self.answered = [], []  # monotonic times: Accounting-Requests in, answers out
        self.reset()

    def reset(self):
        self.sent = self.lost = self.answers = self.answers_lost = self.probes = 0
        self.requests.clear()
        self.answered.clear()

    def run(self):
        while True:
            for sock in select.select([self.front, *self.clients], [], [])[0]:
                data, source = sock.recvfrom(4096)
                if sock is self.front:
                    self.sent += 1
                    if source not in self.backs:
                        back = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                        self.backs[source], self.clients[back] = back, source
                    if data[0] == 4:
                        self.requests.append(time.monotonic())
                    else:
                        self.probes += 1
                    if self.random.random() < LOSS:
                        self.lost += 1
                    else:
                        self.backs[source].sendto(data, self.server)
                else:
                    self.answers += 1
                    if self.random.random() < LOSS:
                        self.answers_lost += 1
                    else:
                        self.answered.append(time.monotonic())
                        self.front.sendto(data, self.clients[sock])

    def failback(self, since):
        # Seconds from `since` to the first answer the daemon got, and to the first request after it.
        answer = next((t for t in self.answered if t >= since), None)
        request = answer and next((t for t in self.requests if t > answer), None)
        return tuple(None if t is None else t - since for t in (answer, request))


class Console(threading.Thread):
    # Reads the daemon's console line by line and keeps only what the soak asks about.
    def __init__(self):
        super().__init__(daemon=True)
        os.mkfifo('/tmp/.console')
        harness._sh('mount', '--bind', '/tmp/.console', '/dev/console')
        self.fd = os.open('/dev/console', os.O_RDWR)
        self.gave_up, self.failovers, self.refused = set(), 0, 0

    def run(self):
        rest = b''
        while True:
            lines = (rest + os.read(self.fd, 65536)).split(b'\n')
            rest = lines.pop()
            for line in lines:
                if line.startswith(b'Accounting FAIL!! Packet from RADIUS server verification fail'):
                    self.refused += 1  # an answer to another request with the same Identifier
                elif line.endswith(b'no response. Try backup.'):
                    self.failovers += 1
                elif line.endswith(b'no response.'):  # the last transmission to the backup went unanswered
                    self.gave_up.add(line.split(b' ', 1)[0].decode('latin-1'))


def tool(name, *args):
    return subprocess.run([os.path.join(harness.BUILD_DIR, name)] + [str(a) for a in args], check=True,
                          capture_output=True, text=True).stdout


def mac(i):
    return '02:00:00:%02x:%02x:%02x' % (i >> 16 & 255, i >> 8 & 255, i & 255)


def totals(i):
    # The device's byte counters of session i's station at its end: received, sent. One session in
    # ten has received more than 4 GiB, which only Gigawords carry.
    return 1000 + 7 * i + (i % 10 == 0) * (5 << 30), 5000 + 13 * i


def memory(daemon):
    # kB: the resident set, and the heap's bytes in use as the allocator counts them. The
    # allocator first gives back what is free, so that RSS shows what the daemon holds.
    pid = daemon.proc.pid
    subprocess.run(['gdb', '-p', str(pid), '-batch', '-ex', 'call (int)malloc_trim(0)',
                    '-ex', 'call (void)malloc_stats()'], check=True, capture_output=True)
    in_use = re.findall(r'in use bytes\s*=\s*(\d+)', daemon.stderr())[-1]
    rss = re.search(r'VmRSS:\s+(\d+)', harness.read_file('/proc/%d/status' % pid)).group(1)
    return int(rss), int(in_use) / 1024


def backlog():
    report = json.loads(tool('meterctl', 'stats', '--json'))
    return int(report.get('backlog', {}).get('length', 0))


def settle(daemon, relays):
    # Waits until no request is in flight or waits, and the relays have been quiet for a while.
    while True:
        counts = [r.sent for r in relays]
        time.sleep(10)
        if counts == [r.sent for r in relays] and 'username:' not in daemon.dump() and not backlog():
            return


class Sessions:
    # Logs sessions in at RATE a second and lets each go LIFETIME seconds later; keeps the moments
    # (time of day) before and after each disassociation, and how many sessions live.
    def __init__(self):
        self.ended, self.living = {}, 0

    def run(self, first, count):
        begin, queue = time.monotonic(), []
        for i in range(first, first + count):
            time.sleep(max(0, begin + (i - first) / RATE - time.monotonic()))
            while queue and queue[0][1] + LIFETIME <= time.monotonic():
                self.leave(queue.pop(0)[0])
            ip = '10.%d.%d.%d' % (i >> 16 & 255, i >> 8 & 255, i & 255)
            tool('devsim', 'station', 'add', '--mac', mac(i), '--ip', ip, '--rx', 0, '--tx', 0)
            tool('devsim', 'login', '--user', 'u%d' % i, '--mac', mac(i), '--iface', 'wlan-1-1',
                 '--session-id', 'S%d' % i)
            tool('devsim', 'report', '--mac', mac(i), '--ip', ip)
            self.living += 1
            queue.append((i, time.monotonic()))
        while queue:
            time.sleep(max(0, queue[0][1] + LIFETIME - time.monotonic()))
            self.leave(queue.pop(0)[0])

    def leave(self, i):
        # The driver's last counters of the station, then its disassociation.
        rx, tx = totals(i)
        tool('devsim', 'counters', '--mac', mac(i), '--iface', 'wlan-1-1', '--rx', rx, '--tx', tx)
        before = time.time()
        tool('devsim', 'disassoc', '--mac', mac(i), '--iface', 'wlan-1-1')
        self.ended[i] = before, time.time()
        self.living -= 1
        tool('devsim', 'station', 'del', '--mac', mac(i))


def soak(mode, count, relays, console):
    # One mode's run with a daemon and servers of its own; prints its figures, returns its failures.
    for port in (PRIMARY, BACKUP):
        shutil.rmtree('/tmp/freeradius-%d' % port, ignore_errors=True)
    shutil.rmtree('/tmp/devsim', ignore_errors=True)
    servers = [FreeRadius(SECRET, PRIMARY, sql=True), FreeRadius(SECRET, BACKUP, sql=True)]
    for s in servers:
        s.start()
    daemon = harness.Meterd(MODES[mode])
    daemon.start()
    failures, marks, held = [], {}, {}
    try:
        daemon.send(records.ev_init('wlan-1-1', '127.0.0.1', PRIMARY + 10000, SECRET,
                                    '127.0.0.1', BACKUP + 10000, SECRET))
        # A warm-up, so that what the daemon keeps once it has served a session is there before.
        warm, run = 100, Sessions()
        run.run(0, warm)
        settle(daemon, relays)
        before = memory(daemon)
        for r in relays:  # the soak's figures, without the warm-up's
            r.reset()
        console.failovers, console.gave_up, console.refused = 0, set(), 0
        t0 = time.monotonic()

        def at(second, what):
            time.sleep(max(0, t0 + second - time.monotonic()))
            marks[what] = time.monotonic()

        def measure(what):
            # Memory per session that the daemon holds: those living, and those whose Stop no server
            # has recorded yet (given up ones count too, which flatters the design's figure).
            stopped = {r.get('Acct-Session-Id') for s in servers for r in s.records()
                       if r.get('Acct-Status-Type') == 'Stop'}
            held[what] = (memory(daemon), run.living + sum('S%d' % i not in stopped for i in run.ended if i >= warm))

        def timeline():
            at(KILL - 10, 'both up')
            measure('both up')
            at(KILL, 'primary killed')
            servers[0].stop()
            at(RESTART - 10, 'primary away')
            measure('primary away')
            at(RESTART, 'primary started')
            servers[0].start()
            at(BOTH_AWAY, 'both away')
            for s in servers:
                s.stop()
            at(BOTH_BACK - 5, 'both still away')
            measure('both away')
            at(BOTH_BACK, 'both back')
            for s in servers:
                s.start()
        events = threading.Thread(target=timeline, daemon=True)
        events.start()
        run.run(warm, count)
        events.join()
        settle(daemon, relays)
        after = memory(daemon)
        elapsed = time.monotonic() - t0

        if daemon.proc.poll() is not None:
            failures.append('the daemon died')
        accepted = {(r.get('Acct-Session-Id'), r.get('Acct-Status-Type')) for s in servers for r in s.records()}
        sessions = range(warm, warm + count)
        # With meterd -k a server's death reads as the design's last failure, but nothing is given up:
        # what counts is what the servers hold.
        deaths = len(console.gave_up)
        if mode == 'extended':
            console.gave_up = {'u%d' % i for i in sessions if ('S%d' % i, 'Stop') not in accepted}
        stop_only = [i for i in sessions if ('S%d' % i, 'Stop') in accepted and ('S%d' % i, 'Start') not in accepted]
        for i in sessions:
            for status in ('Start', 'Stop'):
                # A Stop replaces its session's unanswered Start (the stock SQL opens the row from it).
                excused = 'u%d' % i in console.gave_up or (status, mode) == ('Start', 'extended') and i in stop_only
                if ('S%d' % i, status) not in accepted and not excused:
                    failures.append('session %d: its %s reached no server and did not end by the retry rule'
                                    % (i, status))
        # Each session's row: the primary's or the backup's, whichever holds its stop.
        rows = {}
        for s in servers:
            for r in s.radacct():
                if r['acctstoptime'] or r['acctsessionid'] not in rows:
                    rows[r['acctsessionid']] = r
        wrong_totals, errors = [], []
        for i in sessions:
            r = rows.get('S%d' % i)
            if not r or not r['acctstoptime']:
                continue
            if (r['acctinputoctets'], r['acctoutputoctets']) != totals(i):
                wrong_totals.append(i)
            # The stop time is a whole second: the one in which the daemon took the disassociation
            # is between the seconds before and after devsim sent it.
            sent, done = run.ended[i]
            errors.append((max(0, int(sent) - r['acctstoptime'], r['acctstoptime'] - done), i))
        closed = len(errors)
        late = [i for e, i in errors if e > 1]
        if mode == 'extended':
            failures += ['session %d: given up' % int(u[1:]) for u in sorted(console.gave_up)]
            failures += ['session %d: no row with its stop time in radacct' % i for i in sessions
                         if not (rows.get('S%d' % i) or {}).get('acctstoptime')]
            failures += ['session %d: radacct holds other totals than the device' % i for i in wrong_totals]
            failures += ['session %d: stop time %.1f s from its disassociation' % (i, e) for e, i in errors if e > 1]
            if console.refused:
                failures.append('%d answers refused' % console.refused)
        if after[1] > before[1] + 1:  # a kB: what one more session, or one per thousand, would hold
            failures.append('%.1f kB more in use on the heap' % (after[1] - before[1]))

        p, b = relays
        print('\n%s mode (meterd %s)' % (mode, ' '.join(MODES[mode])))
        print('sessions %d in %.0f s; the primary killed at %d s, started at %d s; both away %d-%d s'
              % (count, elapsed, KILL, RESTART, BOTH_AWAY, BOTH_BACK))
        for name, r in (('primary', p), ('backup', b)):
            print('to the %s: %d datagrams (%d Status-Server), %d lost; %d answers, %d lost'
                  % (name, r.sent, r.probes, r.lost, r.answers, r.answers_lost))
        recorded = {t: sum(('S%d' % i, t) in accepted for i in sessions) for t in ('Start', 'Stop')}
        print('at the servers: %(Start)d Starts and %(Stop)d Stops of the sessions' % recorded
              + ', %d sessions with a Stop but no Start' % len(stop_only))
        print('failovers %d, %s %d, answers refused %d, sessions given up %d (%.1f%%)'
              % (console.failovers, 'budgets run out at a silent server' if mode == 'extended' else 'requests given up', deaths,
                 console.refused, len(console.gave_up), 100 * len(console.gave_up) / count))
        print('radacct: %d sessions closed, %d with other totals than the device; stop time error max %.1f s, '
              '%d over 1 s' % (closed, len(wrong_totals), max((e for e, _ in errors), default=0), len(late)))
        for what, since in (('primary started', marks['primary started']), ('both back', marks['both back'])):
            answer, request = p.failback(since)
            print('primary after "%s": first answer to the daemon after %s, first request after it %s'
                  % (what, 'none' if answer is None else '%.1f s' % answer,
                     'none' if request is None else '%.1f s' % request))
            if mode == 'extended' and (request is None or request > PROBE_INTERVAL):
                failures.append('no request at the primary within %d s after "%s"' % (PROBE_INTERVAL, what))
        for what, ((rss, heap), n) in held.items():
            per = (heap - before[1]) * 1024 / max(1, n)
            print('memory, %s: VmRSS %d kB, heap in use %.1f kB, %d sessions held, %.0f bytes each'
                  % (what, rss, heap, n, per))
            # The design keeps each request's whole buffer, so only extended mode has the bound.
            if mode == 'extended' and per >= 1024:
                failures.append('%s: %.0f bytes of heap per session' % (what, per))
        print('memory before: VmRSS %d kB, heap in use %.1f kB' % before)
        print('memory after:  VmRSS %d kB, heap in use %.1f kB' % after, flush=True)
    finally:
        daemon.stop()
        for s in servers:
            s.stop()
    return ['%s mode: %s' % (mode, f) for f in failures]


def main():
    parser = argparse.ArgumentParser(description='Soak meterd through lossy relays, in one mode or both.')
    parser.add_argument('--mode', choices=('default', 'extended', 'both'), default='both')
    parser.add_argument('sessions', nargs='?', type=int, default=int(os.environ.get('METERD_SOAK_SESSIONS', 5000)))
    args = parser.parse_args()
    harness.enter_namespace()
    undo = harness.fresh_dirs()
    harness._sh('ip', 'link', 'set', 'lo', 'up')
    console = Console()
    console.start()
    os.environ.update(MALLOC_ENV)
    relays = [Relay(PRIMARY + 10000, PRIMARY, 1), Relay(BACKUP + 10000, BACKUP, 2)]
    for r in relays:
        r.start()
    failures = []
    try:
        for mode in (('default', 'extended') if args.mode == 'both' else (args.mode,)):
            failures += soak(mode, args.sessions, relays, console)
    finally:
        undo()
    for f in failures[:50]:
        print('FAIL:', f)
    if len(failures) > 50:
        print('FAIL: and %d more' % (len(failures) - 50))
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
