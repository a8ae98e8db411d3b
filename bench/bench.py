#!/usr/bin/python3
"""Measures the Release meterd against radclient and a local FreeRADIUS, inside a private namespace
(tests/system/harness.py): CPU per answered request, a storm of logins, memory per idle session and
size, each in both modes, the design's (default) and extended accounting (meterd -x). Writes
bench/results.md and bench/results.png and prints the table. Run it through bench/run."""
import contextlib
import ctypes
import heapq
import os
import random
import select
import re
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(BENCH)
os.environ.setdefault('METERD_BUILD_DIR', os.path.join(ROOT, 'build-bench'))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'system'))
import harness  # noqa: E402
import records  # noqa: E402
from freeradius import FreeRadius  # noqa: E402

SECRET, IFACE = 'testing123', 'wlan-1-1'
ROUNDS = 9             # each CPU figure: the median of this many rounds, each beside its comparison
N_ONOFF, N_SESSION = 200, 100
N_RADCLIENT = 500      # radclient -c N_RADCLIENT; its start-up is taken off with a -c 1 run
INTERIM = 8            # seconds; a round's sessions stop before their second update
# Stations, the seconds over which they come, and the most by which a relay delays each answer.
STORMS = ((200, 1.0, 0), (500, 1.0, 0), (200, 0, 0), (500, 0, 0), (500, 0, 0.3))
MEMORY_POINTS = (1000, 10000, 50000)
WINDOW = 64            # Starts in flight while sessions are filled in, well below 256 Identifiers
LONG_INTERIM = 86400   # the filled-in sessions wait for their Interim-Update all through the run
# Logins a second while sessions are filled in. Much faster, FreeRADIUS's socket here at times
# overflows, and by design one lost request then makes every later request of its Identifier meet
# it and be refused, so that the fill never settles.
FILL_RATE = 2000
TICK = os.sysconf('SC_CLK_TCK')
KINDS = ('Accounting-On', 'Accounting-Off', 'Start', 'Interim-Update', 'Stop')
MODES = (('default', []), ('extended', ['-x']))  # the daemon's options in each

# --- the device's peers, sending the daemon's own wire records ----------------------------------


class Device:
    """The authenticator, the wireless HAL and the driver of the simulated access point."""

    def __init__(self):
        self.unix = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.netlink = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 2)  # NETLINK_USERSOCK

    def login(self, n, interim):
        record = records.login('user%d' % n, mac_text(n), '02-00-00-00-00-01:SSID1', IFACE, interim=interim)
        self.unix.sendto(record, '/tmp/accounting_recv_radius.sock')

    def report(self, n):
        self.unix.sendto(records.report(mac_bytes(n), ip_text(n), IFACE), '/tmp/accounting_recv_wireless_hal.sock')

    def disassoc(self, n):
        try:
            self.netlink.sendto(records.driver(records.STA_DISASSOC, mac_bytes(n), IFACE), (0, 1))
        except ConnectionRefusedError:  # group 1 has it; only the copy to the kernel found nobody
            pass


def mac_bytes(n):
    return bytes([0x02, 0xbe, 0x00, (n >> 16) & 255, (n >> 8) & 255, n & 255])


def mac_text(n):
    return '-'.join('%02X' % b for b in mac_bytes(n))


def ip_text(n):
    return '10.%d.%d.%d' % ((n >> 16) & 255, (n >> 8) & 255, n & 255)


def write_stations(numbers):
    """The simulated device's stations, which the Interim-Update's look-ups read line by line: only
    those of the sessions at hand, so that the simulation's own cost stays small."""
    os.makedirs('/tmp/devsim', exist_ok=True)
    with open('/tmp/devsim/stations', 'w') as f:
        f.writelines('%s %s %d %d\n' % (mac_text(n), ip_text(n), 1000 + n, 2000 + n) for n in numbers)

# --- what is measured ------------------------------------------------------------------------


def cpu(pid):
    """On-CPU ns of every thread of pid (schedstat), and of its reaped children (clock ticks)."""
    task = '/proc/%d/task' % pid
    threads = sum(int(harness.read_file('%s/%s/schedstat' % (task, t)).split()[0]) for t in os.listdir(task))
    fields = harness.read_file('/proc/%d/stat' % pid).rsplit(')', 1)[1].split()
    return threads, (int(fields[13]) + int(fields[14])) * 10**9 // TICK


def rss_kb(pid):
    return int(re.search(r'VmRSS:\s+(\d+)', harness.read_file('/proc/%d/status' % pid)).group(1))


def udp_port(pid):
    inodes = {os.readlink('/proc/%d/fd/%s' % (pid, fd)) for fd in os.listdir('/proc/%d/fd' % pid)}
    for line in harness.read_file('/proc/net/udp').splitlines()[1:]:
        f = line.split()
        if 'socket:[%s]' % f[9] in inodes:
            return int(f[1].split(':')[1], 16)
    raise AssertionError('meterd has no UDP socket')


def udp_sent():
    """UDP datagrams sent in this network namespace so far."""
    head, values = [line.split() for line in harness.read_file('/proc/net/snmp').splitlines()
                    if line.startswith('Udp:')]
    return int(values[head.index('OutDatagrams')])


def bpf_answers_to(port, server):
    """A socket filter that passes the datagrams from port `server` to `port` (None: to any port, as
    meterd -i may open more) as they arrive. All that the daemon sends is refused at once, so that
    watching costs the daemon next to nothing."""
    drop = lambda i: 9 - i
    code = [(0x20, 0, drop(0), 0xfffff004),                   # ld pkttype
            (0x15, 0, drop(1), 0),                            # PACKET_HOST
            (0x30, 0, 0, 9), (0x15, 0, drop(3), 17),          # UDP
            (0xb1, 0, 0, 0),                                  # x = length of the IP header
            (0x48, 0, 0, 0), (0x15, 0, drop(6), server),        # source port
            (0x48, 0, 0, 2), (0x15, 0, 0 if port is None else drop(8), port or 0),  # destination port
            (0x06, 0, 0, 0xffff), (0x06, 0, 0, 0)]
    return b''.join(struct.pack('HBBI', *c) for c in code)


class Sniffer(threading.Thread):
    """The kernel's time of every answer that reaches the daemon's UDP port on the loopback."""

    def __init__(self):
        super().__init__(daemon=True)
        self.answers, self.cond = [], threading.Condition()
        self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800))
        self.sock.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE: drop nothing
        self.sock.setsockopt(socket.SOL_SOCKET, 35, 1)  # SO_TIMESTAMPNS
        self.watch(0, 0)
        self.sock.bind(('lo', 0x0800))

    def watch(self, port, server):
        self.program = ctypes.create_string_buffer(bpf_answers_to(port, server))
        fprog = struct.pack('HL', len(self.program.raw) // 8, ctypes.addressof(self.program))
        self.sock.setsockopt(socket.SOL_SOCKET, 26, fprog)  # SO_ATTACH_FILTER, in place of the last
        with self.cond:
            self.answers = []

    def run(self):
        while True:
            _, anc, _, _ = self.sock.recvmsg(64, 64)
            sec, nsec = struct.unpack('qq', anc[0][2][:16])
            with self.cond:
                self.answers.append(sec + nsec / 1e9)
                self.cond.notify_all()

    def count(self):
        return len(self.answers)

    def wait_answers(self, n, timeout=20):
        with self.cond:
            if not self.cond.wait_for(lambda: len(self.answers) >= n, timeout):
                raise AssertionError('%d answers to meterd, wanted %d' % (len(self.answers), n))


LOCKSTAT = '/tmp/bench/lockstat'


@contextlib.contextmanager
def lockstat():
    """A daemon started inside it runs with bench/lockstat.cc preloaded, which keeps in LOCKSTAT how
    long its threads hold the lock `mutex` (the address of the symbol in the binary, which keeps its
    symbols). Only the daemon has it: it takes it out of the environment that its children get."""
    binary = os.path.join(harness.BUILD_DIR, 'meterd')
    symbols = subprocess.run(['nm', binary], check=True, capture_output=True, text=True).stdout
    offset = re.search(r'^([0-9a-f]+) [BbDd] mutex$', symbols, re.M).group(1)
    if os.path.exists(LOCKSTAT):
        os.unlink(LOCKSTAT)
    env = {'LD_PRELOAD': os.path.join(harness.BUILD_DIR, 'liblockstat.so'), 'METERD_LOCKSTAT': LOCKSTAT,
           'METERD_LOCK_OFFSET': offset}
    os.environ.update(env)
    try:
        yield
    finally:
        for name in env:
            del os.environ[name]


def lock_counters(longest_from_now=False):
    """(ns held in all, holds, the longest hold in ns, ns waited for it) so far; with longest_from_now
    the longest hold counts from here on."""
    fd = os.open(LOCKSTAT, os.O_RDWR)
    try:
        if longest_from_now:
            os.pwrite(fd, bytes(8), 16)
        return struct.unpack('<4Q', os.pread(fd, 32, 0))
    finally:
        os.close(fd)


def radclient_cpu(packet, count):
    """CPU ns of one radclient that sends the request `count` times, one at a time."""
    path = '/tmp/bench/request'
    attrs, i = [], 20
    while i < len(packet):
        attrs.append('Attr-%d = 0x%s' % (packet[i], packet[i + 2:i + packet[i + 1]].hex()))
        i += packet[i + 1]
    with open(path, 'w') as f:
        f.write(',\n'.join(attrs) + '\n')
    with open(path) as stdin:
        proc = subprocess.Popen(['radclient', '-q', '-c', str(count), '127.0.0.1:1813', 'acct', SECRET],
                                stdin=stdin, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = status
    assert status == 0, 'radclient failed on:\n' + '\n'.join(attrs)
    return (usage.ru_utime + usage.ru_stime) * 1e9


def radclient_per_request(packet):
    """radclient's CPU per request with its start-up taken off: (cpu(-c N) - cpu(-c 1)) / (N - 1)."""
    return (radclient_cpu(packet, N_RADCLIENT) - radclient_cpu(packet, 1)) / (N_RADCLIENT - 1)


class Relay(threading.Thread):
    """Stands between the daemon and FreeRADIUS and holds each answer for a random time up to `most`
    seconds, as a distant server's answers may come: out of order. Each source port of the daemon
    (meterd -i opens more) has a port of its own towards the server, which tells duplicates apart
    by source port."""

    def __init__(self, most):
        super().__init__(daemon=True)
        self.most, self.random, self.held = most, random.Random(1), []
        self.down = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.down.bind(('127.0.0.1', 0))
        self.ups, self.clients = {}, {}  # the daemon's address -> our socket to the server, and back
        self.port, self.forwarded = self.down.getsockname()[1], 0

    def run(self):
        while True:
            wait = max(0, self.held[0][0] - time.monotonic()) if self.held else None
            for sock in select.select([self.down, *self.clients], [], [], wait)[0]:
                if sock is self.down:
                    data, client = self.down.recvfrom(4096)
                    if client not in self.ups:
                        up = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                        up.connect(('127.0.0.1', 1813))
                        self.ups[client], self.clients[up] = up, client
                    self.ups[client].send(data)
                    self.forwarded += 1
                else:
                    heapq.heappush(self.held, (time.monotonic() + self.random.uniform(0, self.most),
                                               sock.recv(4096), self.clients[sock]))
            while self.held and self.held[0][0] <= time.monotonic():
                _, data, client = heapq.heappop(self.held)
                self.down.sendto(data, client)


class Rig:
    """FreeRADIUS, the sniffer and one daemon at a time, inside the namespace."""

    def __init__(self):
        harness.console()
        self.undo = harness.fresh_dirs()
        os.makedirs('/tmp/bench')
        self.server = FreeRadius(SECRET)
        self.server.start()
        self.sniffer = Sniffer()
        self.sniffer.start()
        self.device, self.daemon, self.options = Device(), None, []

    def restart(self, port=1813, any_port=False):
        """A new daemon (a restarted access point) with the profile of wlan-1-1 on server port `port`;
        returns once its Accounting-On is answered. With any_port the answers to every port of this
        host from `port` count, for a storm, in which nothing else talks to the server."""
        if self.daemon:
            self.daemon.stop()
        for path in ('/tmp/accounting.sock', '/tmp/accounting_recv_radius.sock',
                     '/tmp/accounting_recv_wireless_hal.sock', harness.PID_FILE):
            if os.path.exists(path):
                os.unlink(path)
        self.daemon = harness.Meterd(self.options)  # no -d: the console stays quiet
        with lockstat():
            self.daemon.start()
        self.pid = self.daemon.proc.pid
        self.sniffer.watch(None if any_port else udp_port(self.pid), port)
        self.control(records.ev_init(IFACE, '127.0.0.1', port, SECRET))

    def control(self, datagram):
        """A control event that sends one request; waits for its answer."""
        n = self.sniffer.count() + 1
        self.daemon.send(datagram)
        self.sniffer.wait_answers(n)

    def settle(self):
        time.sleep(0.05)
        return cpu(self.pid)

    def stop(self):
        if self.daemon:
            self.daemon.stop()
        self.server.stop()
        self.undo()

# --- the measurements ------------------------------------------------------------------------


def capture(rig):
    """The daemon's On, Start, Interim-Update, Stop and Off of station 0, as a peer receives them."""
    write_stations([0])
    peer = harness.Peer(SECRET)
    peer.start()
    rig.restart(peer.port)
    rig.device.login(0, 3)
    rig.device.report(0)
    peer.wait(3, timeout=15)
    rig.device.disassoc(0)
    peer.wait(4)
    rig.daemon.send(records.event(records.EV_REMOVE, IFACE))
    packets = peer.wait(5)
    peer.stop()
    return dict(zip(KINDS, (packets[0], packets[4], packets[1], packets[2], packets[3])))


def cpu_round(rig, first, packets):
    """One round: for each kind of request, meterd's CPU per answered request, then at once radclient's
    for the same request. Returns {kind: (meterd threads ns, meterd children ns, radclient ns)} and, as
    'held', how long one Interim-Update held the lock."""
    sn, dev, out = rig.sniffer, rig.device, {}
    write_stations(range(first, first + N_SESSION))

    def batch(kind, n, send_one, requests=None):
        before = rig.settle()
        for i in range(n):
            send_one(i)
        after = rig.settle()
        requests = requests or n
        out[kind] = ((after[0] - before[0]) / requests, (after[1] - before[1]) / requests,
                     radclient_per_request(packets[kind]))

    def session(i, *events):
        answered = sn.count() + 1
        for e in events:
            e(first + i)
        sn.wait_answers(answered)

    batch('Accounting-On', N_ONOFF, lambda i: rig.control(records.ev_init('wlan-2-%d' % i, '127.0.0.1', 1813,
                                                                          SECRET)))
    batch('Accounting-Off', N_ONOFF, lambda i: rig.control(records.event(records.EV_REMOVE, 'wlan-2-%d' % i)))
    # A Start is a login and the station's address report; the scheduler sends the Interim-Updates in
    # its own passes; a Stop is a disassociation on netlink.
    batch('Start', N_SESSION, lambda i: session(i, lambda n: dev.login(n, INTERIM), dev.report))
    mark, lock = sn.count(), lock_counters(longest_from_now=True)
    batch('Interim-Update', 1, lambda i: sn.wait_answers(mark + N_SESSION, timeout=INTERIM + 15), N_SESSION)
    # The lock held per update: every hold of any thread while the updates went out and were answered.
    after = lock_counters()
    # Each update takes the lock at least once: fewer holds means that the preload missed the lock.
    assert after[1] - lock[1] >= N_SESSION, 'lockstat counted %d holds of the lock for %d Interim-Updates' % (
        after[1] - lock[1], N_SESSION)
    out['held'] = (after[0] - lock[0]) / N_SESSION / 1e9
    out['longest'] = after[2] / 1e9
    # The gap between two answers within a pass, the measure before: how long each update held the
    # lock while the pass ran their look-ups under it one after the other; not once they run outside.
    times = sn.answers[mark:mark + N_SESSION]
    out['gap'] = statistics.median(b - a for a, b in zip(times, times[1:]) if b - a < 1)
    batch('Stop', N_SESSION, lambda i: session(i, dev.disassoc))
    return out


def queues(rig):
    """Sessions on the request, fail and interim queues, from a dump."""
    parts = re.split(r'\n(?:request|fail|interim) queue:', rig.daemon.dump())
    return [p.count('username:') for p in parts[1:3]] + [sum(p.count('username:') for p in parts[3:])]


def storm(rig, stations, spread, delay):
    """An access point's restart: `stations` log in and report their addresses within `spread` seconds
    (0: all at once). Each station's login and report go out together. With `delay`, the answers come
    through a Relay."""
    relay = Relay(delay) if delay else None
    if relay:
        relay.start()
    rig.restart(relay.port if relay else 1813, any_port=True)
    sn = rig.sniffer
    before, sent = rig.settle(), relay.forwarded if relay else udp_sent()
    begin = time.time()
    for n in range(stations):
        while time.time() < begin + spread * n / stations:
            time.sleep(0.0002)
        rig.device.login(n, LONG_INTERIM)
        last_login = time.time()
        rig.device.report(n)
    sn.wait_answers(1 + stations, timeout=30)
    time.sleep(0.5)
    cpu_ns = cpu(rig.pid)[0] - before[0]
    # A Start whose Identifier an older request still holds, at the server or in the daemon's walk,
    # waits for its time-out and is sent again. The dumps are kept out of the CPU figure.
    deadline = time.time() + 60
    while True:
        waiting = queues(rig)
        mark = cpu(rig.pid)[0]
        if waiting[:2] == [0, 0] or time.time() > deadline:
            break
        time.sleep(1)
        cpu_ns += cpu(rig.pid)[0] - mark
    assert waiting == [0, 0, stations], 'storm of %d: sessions on request, fail, interim queue: %s' % (
        stations, waiting)
    answers = sn.answers[1:]
    # Without the relay only the daemon and FreeRADIUS send UDP, one answer for each datagram answered.
    sent = relay.forwarded - sent if relay else udp_sent() - sent - len(answers)
    late = [t - last_login for t in answers if t - last_login > 2.5]
    return {'stations': stations, 'spread': spread, 'delay': delay, 'last': max(answers) - last_login,
            'sent_again': sent - stations, 'late': late, 'cpu': cpu_ns / stations, 'took': last_login - begin}


def memory(rig):
    """VmRSS of the empty daemon with its profile, and at each point of MEMORY_POINTS idle sessions:
    started, answered, waiting for an Interim-Update a day ahead. A fill in which the sessions did
    not all end up idle is done again with a fresh daemon, at most twice."""
    for attempt in range(3):
        try:
            return fill(rig)
        except AssertionError as e:
            print('memory, attempt %d: %s' % (attempt + 1, str(e)[:200]), flush=True)
    raise AssertionError('no fill of %d idle sessions in three attempts' % MEMORY_POINTS[-1])


def fill(rig):
    # The sniffer counts every answer, also one that the daemon refuses: after a lost request the
    # window no longer holds, the daemon ends with sessions still waiting, and the fill failed.
    rig.restart()
    sn = rig.sniffer
    time.sleep(0.5)
    empty, points, n = rss_kb(rig.pid), [], 0
    begin = time.monotonic()
    for target in MEMORY_POINTS:
        while n < target:
            time.sleep(max(0, begin + n / FILL_RATE - time.monotonic()))
            if n - (sn.count() - 1) >= WINDOW:
                sn.wait_answers(n - WINDOW + 2)
            rig.device.login(n, LONG_INTERIM)
            rig.device.report(n)
            n += 1
        sn.wait_answers(1 + n, timeout=60)
        time.sleep(1)
        points.append((target, rss_kb(rig.pid)))
    # A retransmission or two may still be on its way.
    deadline = time.time() + 30
    while (waiting := queues(rig))[:2] != [0, 0] and time.time() < deadline:
        time.sleep(2)
    assert waiting == [0, 0, n], 'sessions on request, fail, interim queue: %s' % waiting
    return empty, points


def size():
    # (C library, stripped size, shared libraries) of the daemon measured here, and of the same
    # source linked statically against musl (bench/run builds it in BUILD_DIR/musl), as an image
    # without a shared C library carries it.
    sizes = []
    for libc, build in (('glibc', harness.BUILD_DIR), ('musl, static', os.path.join(harness.BUILD_DIR, 'musl'))):
        binary = os.path.join(build, 'meterd')
        subprocess.run(['strip', '-o', '/tmp/bench/meterd', binary], check=True)
        dynamic = subprocess.run(['readelf', '-d', binary], check=True, capture_output=True, text=True).stdout
        sizes.append((libc, os.path.getsize('/tmp/bench/meterd'), re.findall(r'\(NEEDED\).*\[(.*)\]', dynamic)))
    return sizes


def main():
    harness.enter_namespace()
    rig = Rig()
    results = {}
    try:
        for mode, options in MODES:
            rig.options = options
            print('%s mode: meterd %s' % (mode, ' '.join(options)), flush=True)
            packets = capture(rig)
            rig.restart()
            rounds = []
            for r in range(ROUNDS):
                rounds.append(cpu_round(rig, 1 + r * N_SESSION, packets))
                print('round %d, us per request (meterd threads/children/radclient): %s; lock held %.3f ms per '
                      'Interim-Update, longest hold %.3f ms, gap %.3f ms' % (
                          r + 1, ', '.join('%s %s' % (k, '/'.join('%.0f' % (x / 1000) for x in v))
                                           for k, v in rounds[-1].items() if k in KINDS),
                          rounds[-1]['held'] * 1000, rounds[-1]['longest'] * 1000, rounds[-1]['gap'] * 1000), flush=True)
            storms = []
            for stations, spread, delay in STORMS:
                storms.append(storm(rig, stations, spread, delay))
                print('storm: %s' % {k: v for k, v in storms[-1].items() if k != 'late'}, flush=True)
            mem = memory(rig)
            print('memory: empty %d kB, %s' % mem, flush=True)
            results[mode] = rounds, storms, mem
        binary = size()
    finally:
        rig.stop()
    import report
    report.write(results, binary, N_RADCLIENT, N_SESSION)


if __name__ == '__main__':
    main()
