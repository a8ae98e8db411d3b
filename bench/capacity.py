#!/usr/bin/python3
"""The capacity of one core: N stations log in within one second with a 60-second interim interval, so
that their Interim-Updates fall due together, and the daemon, pinned to core 0, must bring every one
of them to FreeRADIUS (on core 1 with this script) within 5 seconds of its due second. Searches the
largest such N per mode (doubling, then bisection) and times the Starts of stations that log in while
the pass runs. Prints each run, keeps the figures in bench/capacity.json and writes the capacity
section of bench/results.md from them (report.py). Run it through bench/run --capacity [MODE ...]: a
MODE is default, x or l (meterd -x, -l), or x-lean or l-lean (see MODES); default and x without one."""
import ctypes
import json
import math
import os
import re
import socket
import statistics
import struct
import sys
import threading
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(BENCH)
os.environ.setdefault('METERD_BUILD_DIR', os.path.join(ROOT, 'build-bench'))
sys.path.insert(0, os.path.join(ROOT, 'tests', 'system'))
import harness  # noqa: E402
import records  # noqa: E402
import report  # noqa: E402
from bench import IFACE, SECRET, Device, cpu, ip_text, mac_bytes, mac_text, write_stations  # noqa: E402
from freeradius import FreeRadius  # noqa: E402

DAEMON_CORE, PEER_CORE = 0, 1
INTERIM, LIMIT = 60, 5.0     # the interval, and the most an Interim-Update may arrive after its due second
LOGIN_SPREAD = 0.8           # logins are paced over this much of their second, so that they share it
PROBE_EVERY, PROBES = 0.05, 200  # Starts during the pass: one every PROBE_EVERY s, at most PROBES
LONG_INTERIM = 86400         # the probes' stations wait for no Interim-Update of their own
RECV_BUFF = 4 << 20          # FreeRADIUS's socket buffer: net.core.rmem_max here, ~4,000 requests
BUDGET = 25 * 60             # seconds for the whole search, all modes
START, SETTLE = 1813, 0.3
STATUS_TYPE, USER_NAME = 40, 1
# mode: (its options, first N, lowest and highest N tried, most runs, whether the simulated device
# knows the N stations). The simulated device finds a station by reading its stations file from the
# top, in `ovat` and in the statistics database alike: at 10,000 stations each look-up reads 5,000
# lines on average, milliseconds that a device's own tables do not cost. In a lean mode it knows
# only the stations of the Starts during the pass: each look-up of the N is a quick miss, after
# which the Interim-Update goes out all the same (with the address and counters it had: meterd -x).
MODES = {'default': ([], 300, 25, 1200, 5, True), 'x': (['-x'], 2000, 250, 20000, 5, True),
         'l': (['-l'], 2000, 250, 20000, 5, True), 'x-lean': (['-x'], 10000, 250, 20000, 6, False),
         'l-lean': (['-l'], 10000, 250, 20000, 6, False)}


def filter_program():
    """Passes the UDP datagrams to and from the accounting port as they arrive on the loopback."""
    code = [(0x20, 0, 0, 0xfffff004), (0x15, 0, 8, 0),      # pkttype == PACKET_HOST
            (0x30, 0, 0, 9), (0x15, 0, 6, 17),                # UDP
            (0xb1, 0, 0, 0),                                  # x = length of the IP header
            (0x48, 0, 0, 0), (0x15, 2, 0, START),             # source port
            (0x48, 0, 0, 2), (0x15, 0, 1, START),             # destination port
            (0x06, 0, 0, 0xffff), (0x06, 0, 0, 0)]
    return b''.join(struct.pack('HBBI', *c) for c in code)


class Sniffer(threading.Thread):
    """The kernel's arrival time and the head of every request to FreeRADIUS and of every answer from
    it. Parsed after the run, so that the loop keeps up with a whole pass."""

    def __init__(self):
        super().__init__(daemon=True)
        self.seen, self.counted = [], [None, 0, 0]
        self.sock = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800))
        self.sock.setsockopt(socket.SOL_SOCKET, 33, 256 << 20)  # SO_RCVBUFFORCE: drop nothing
        self.sock.setsockopt(socket.SOL_SOCKET, 35, 1)  # SO_TIMESTAMPNS
        self.program = ctypes.create_string_buffer(filter_program())
        fprog = struct.pack('HL', len(self.program.raw) // 8, ctypes.addressof(self.program))
        self.sock.setsockopt(socket.SOL_SOCKET, 26, fprog)  # SO_ATTACH_FILTER
        self.sock.bind(('lo', 0x0800))

    def run(self):
        while True:
            data, anc, _, _ = self.sock.recvmsg(1024, 64)
            sec, nsec = struct.unpack('qq', anc[0][2][:16])
            self.seen.append((sec + nsec / 1e9, data))

    def mark(self):
        return len(self.seen)

    def interims(self, since):
        """Interim-Updates that arrived since the mark `since`, parsed as they come."""
        if self.counted[0] != since:
            self.counted = [since, since, 0]
        upto = len(self.seen)
        self.counted[2] += sum(1 for r in self.parse(self.counted[1], upto)[0] if r[3] == 3)
        self.counted[1] = upto
        return self.counted[2]

    def parse(self, since=0, until=None):
        """(requests, answers): requests as (time, daemon port, Identifier, Acct-Status-Type, User-Name),
        answers as (time, daemon port, Identifier)."""
        requests, answers = [], []
        for t, d in self.seen[since:until]:
            ihl = (d[0] & 15) * 4
            sport, dport = struct.unpack('!HH', d[ihl:ihl + 4])
            radius = d[ihl + 8:]
            if dport != START:
                answers.append((t, dport, radius[1]))
                continue
            status, user, i = None, None, 20
            while i + 2 <= len(radius) and radius[i + 1] >= 2:
                if radius[i] == STATUS_TYPE:
                    status = struct.unpack('!I', radius[i + 2:i + 6])[0]
                elif radius[i] == USER_NAME:
                    user = radius[i + 2:i + radius[i + 1]].decode('latin-1')
                i += radius[i + 1]
            requests.append((t, sport, radius[1], status, user))
        return requests, answers


def runs(pid):
    """How often the daemon's threads have been put on a CPU so far (schedstat)."""
    task = '/proc/%d/task' % pid
    return sum(int(harness.read_file('%s/%s/schedstat' % (task, t)).split()[2]) for t in os.listdir(task))


def next_wake(pid, timeout=3.6):
    """The time at which an idle daemon's thread next runs: its scheduler's pass, every 3 s."""
    before, deadline = runs(pid), time.time() + timeout
    while time.time() < deadline:
        time.sleep(0.001)
        if runs(pid) != before:
            return time.time()
    return None


def pin(pid, core):
    """Every thread of pid onto `core`; what they start later inherits it."""
    for _ in range(2):
        for tid in os.listdir('/proc/%d/task' % pid):
            os.sched_setaffinity(int(tid), {core})


def udp_drops():
    """Datagrams that any full socket buffer of the namespace dropped so far, the daemon's too."""
    head, values = [line.split() for line in harness.read_file('/proc/net/snmp').splitlines()
                    if line.startswith('Udp:')]
    return int(values[head.index('RcvbufErrors')])


def server_drops():
    """Datagrams that FreeRADIUS's full socket buffer dropped so far: those never reached it, although
    the packet socket saw them."""
    for line in harness.read_file('/proc/net/udp').splitlines()[1:]:
        f = line.split()
        if f[1].endswith(':%04X' % START):
            return int(f[-1])
    return 0




def sleep_until(t):
    time.sleep(max(0, t - time.time()))


class Rig:
    """FreeRADIUS and the sniffer on the peers' core; one daemon at a time on its own."""

    def __init__(self):
        harness.console()
        self.undo = harness.fresh_dirs()
        self.sniffer = Sniffer()
        self.sniffer.start()
        self.device, self.daemon, self.server = Device(), None, None

    def server_start(self):
        # The minimal accounting server: its detail file alone, no SQL, and a socket buffer that holds
        # a whole pass.
        if self.server:
            self.server.stop()
            harness._sh('rm', '-rf', self.server.dir)
        self.server = FreeRadius(SECRET)
        config = self.server.config
        self.server.config = lambda: config().replace('port = %d }' % START,
                                                      'port = %d, recv_buff = %d }' % (START, RECV_BUFF))
        self.server.start()

    def daemon_start(self, options):
        """A fresh daemon whose scheduler passes come late in their second (fraction 0.7 to 0.97): a
        pass just before the second in which the updates fall due makes them wait for the next, nearly
        3 s, the worst case. Returns the time of one pass."""
        target = 0.85
        for _ in range(5):
            self.daemon_stop()
            sleep_until(math.floor(time.time()) + 1 + target)
            self.daemon = harness.Meterd(options, exact=True)
            self.daemon.start()
            self.pid = self.daemon.proc.pid
            pin(self.pid, DAEMON_CORE)
            wake = next_wake(self.pid)
            again = wake and next_wake(self.pid, 3.3)
            if wake and again and 2.9 < again - wake < 3.1:
                phase = again % 1
                if 0.7 <= phase < 0.97:
                    break
                target = (target + 0.85 - phase) % 1
        else:
            raise AssertionError('no scheduler pass late in its second in five starts; last %r, %r' % (wake, again))
        mark = self.sniffer.mark()
        self.daemon.send(records.ev_init(IFACE, '127.0.0.1', START, SECRET))
        harness._poll(lambda: self.sniffer.parse(mark)[1], 5, lambda: 'no answer to the Accounting-On')
        return again

    def daemon_stop(self):
        if self.daemon:
            self.daemon.stop()
            self.daemon = None
        for path in ('/tmp/accounting.sock', '/tmp/accounting_recv_radius.sock',
                     '/tmp/accounting_recv_wireless_hal.sock', harness.PID_FILE):
            if os.path.exists(path):
                os.unlink(path)

    def stop(self):
        self.daemon_stop()
        if self.server:
            self.server.stop()
        self.undo()


def due_seconds(dump):
    """{user: due second} of the sessions on the interim queues of a dump."""
    due = {}
    for part in re.split(r'\n(?=interim queue:)', dump)[1:]:
        for user, when in re.findall(r'username: (\S+), report_time: (\d+)', part):
            due[user] = int(when)
    return due


def one_run(rig, options, n, known=True):
    """N stations through one pass; the figures of the run."""
    load = os.getloadavg()
    rig.server_start()
    pass_at = rig.daemon_start(options)
    write_stations(range(0 if known else n, n + PROBES))
    sn, dev = rig.sniffer, rig.device
    # The login second: the one whose updates fall due in the second after a pass, so that they
    # wait for the next pass. Passes come every 3 s and the interval is a multiple of 3.
    second = math.floor(time.time()) + 1
    while (second - math.floor(pass_at)) % 3 != 1:
        second += 1
    # time() of the daemon is the kernel's coarse clock, a few ms behind: the logins begin a little
    # into their second.
    begin = second + 0.01
    logins = [(records.login('user%d' % i, mac_text(i), '02-00-00-00-00-01:SSID1', IFACE, interim=INTERIM),
               records.report(mac_bytes(i), ip_text(i), IFACE)) for i in range(n)]
    sleep_until(begin)
    mark, drops, all_drops = sn.mark(), server_drops(), udp_drops()
    first = time.time()
    for i, (login, address) in enumerate(logins):
        sleep_until(begin + LOGIN_SPREAD * i / n)
        dev.unix.sendto(login, '/tmp/accounting_recv_radius.sock')
        dev.unix.sendto(address, '/tmp/accounting_recv_wireless_hal.sock')
    last = time.time()
    # A Start that is still not answered fails the run (starts_answered < n).
    harness._poll(lambda: len(sn.parse(mark)[1]) >= n or time.time() > last + 45, 50, lambda: 'never')
    time.sleep(1)
    due = due_seconds(rig.daemon.dump())
    requests, answers = sn.parse(mark)
    starts = [t for t, _, _, status, user in requests if status == 1]
    # The pass that serves them: the first one at or after their earliest due second.
    earliest = min(due.values())
    pass_time = pass_at + 3 * math.ceil((earliest - pass_at) / 3)
    sleep_until(earliest - 1)
    before = cpu(rig.pid), cpu(rig.server.proc.pid)
    sleep_until(pass_time)
    # Starts while the pass runs: new stations, each a login and its address report.
    probes, mark2 = [], sn.mark()
    for k in range(PROBES):
        sleep_until(pass_time + 0.02 + k * PROBE_EVERY)
        probes.append(('user%d' % (n + k), time.time()))
        dev.login(n + k, LONG_INTERIM)
        dev.report(n + k)
        if sn.interims(mark2) >= len(due) or time.time() > pass_time + 3 * LIMIT:
            break
    harness._poll(lambda: sn.interims(mark2) >= len(due) or time.time() > pass_time + 4 * LIMIT, 5 * LIMIT,
                  lambda: 'never')
    time.sleep(1)
    after = cpu(rig.pid), cpu(rig.server.proc.pid)
    requests, answers = sn.parse(mark2)
    arrived = {}
    for t, _, _, status, user in requests:
        if status == 3 and user in due and user not in arrived:
            arrived[user] = t
    delays = sorted(arrived.get(u, math.inf) - d for u, d in due.items())
    # Each probe's Start, from its login to its answer's arrival at the daemon.
    start_delays = []
    for user, sent in probes:
        req = next(((t, port, ident) for t, port, ident, status, u in requests if u == user and status == 1), None)
        ans = req and next((t for t, port, ident in answers if (port, ident) == req[1:] and t >= req[0]), None)
        if sent <= max(arrived.values(), default=0):
            start_delays.append(ans - sent if ans else math.inf)
    run = {'n': n, 'options': options, 'load': load, 'logins_took': last - first,
           'starts_spread': max(starts) - min(starts), 'starts_answered': len(due),
           'due_seconds': sorted(set(due.values())), 'login_second': second, 'pass_at': pass_at,
           'due_counts': {d: list(due.values()).count(d) for d in set(due.values())},
           'starts_first': min(starts), 'pass_time': pass_time, 'first_arrival': min(arrived.values(), default=None), 'wait_for_pass': pass_time - earliest,
           'first': delays[0], 'max': delays[-1], 'p99': delays[min(len(delays) - 1, math.ceil(0.99 * len(delays)) - 1)],
           'missing': sum(1 for d in delays if d == math.inf),
           'pass': max(arrived.values()) - min(arrived.values()) if arrived else 0,
           'start_max': max(start_delays, default=None),
           'start_median': statistics.median(start_delays) if start_delays else None,
           'probes': len(start_delays),
           'daemon_cpu': (sum(after[0]) - sum(before[0])) / 1e9, 'server_cpu': (sum(after[1]) - sum(before[1])) / 1e9,
           'drops': server_drops() - drops, 'all_drops': udp_drops() - all_drops,
           'sent_again': sum(1 for r in requests if r[3] == 3 and r[4] in due) - len(arrived)}
    run['ok'] = run['missing'] == 0 and run['max'] <= LIMIT and len(due) == n and run['drops'] == 0
    rig.daemon_stop()
    return run


def show(mode, r):
    print('%s N=%d: %s; max %.2f s, p99 %.2f s (first %.2f s, pass %.2f s after %.2f s wait), %d missing; '
          'Start during the pass: max %s, median %s (%d); logins took %.2f s, Starts over %.2f s, due %s; '
          'CPU daemon %.2f s, FreeRADIUS %.2f s; dropped at FreeRADIUS %d, in all %d; updates sent again %d; load %.2f' % (
              mode, r['n'], 'ok' if r['ok'] else 'NOT within %g s' % LIMIT, r['max'], r['p99'], r['first'],
              r['pass'], r['wait_for_pass'], r['missing'], ms(r['start_max']), ms(r['start_median']), r['probes'],
              r['logins_took'], r['starts_spread'], r['due_seconds'], r['daemon_cpu'], r['server_cpu'],
              r['drops'], r['all_drops'], r['sent_again'], r['load'][0]), flush=True)


def ms(seconds):
    return '-' if seconds is None else '%.1f ms' % (seconds * 1000)


def search(rig, mode, deadline):
    """Doubling from the first N while runs pass (halving while they fail), then bisection, within
    the mode's runs and the deadline. Returns (largest N that passed, smallest that failed, runs)."""
    options, n, lowest, highest, most, known = MODES[mode]
    good, bad, done = None, None, []
    while len(done) < most and time.time() + 90 < deadline:
        done.append(one_run(rig, options, n, known))
        show(mode, done[-1])
        if done[-1]['ok']:
            good = n
        else:
            bad = n
        if bad is None:
            n = n * 2
            if n > highest:
                break
        elif good is None:
            n = n // 2
            if n < lowest:
                break
        else:
            if bad - good <= max(good // 8, 10):
                break
            n = (good + bad) // 2
    return good, bad, done


def main():
    os.sched_setaffinity(0, {PEER_CORE})  # before any thread or child: all of them inherit it
    harness.enter_namespace()
    modes = sys.argv[1:] or ['default', 'x']
    assert all(m in MODES for m in modes), 'modes: %s' % ', '.join(MODES)
    rig = Rig()
    results = {}
    begin = time.time()
    try:
        for i, mode in enumerate(modes):
            # Each mode gets its share of what is left of the budget.
            deadline = time.time() + (begin + BUDGET - time.time()) / (len(modes) - i)
            good, bad, done = search(rig, mode, deadline)
            results[mode] = {'options': MODES[mode][0], 'capacity': good, 'failed_at': bad,
                             'date': time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime()), 'runs': done}
            print('%s: largest N within %g s: %s (smallest that failed: %s)' % (mode, LIMIT, good, bad), flush=True)
    finally:
        rig.stop()
    # The modes not run now keep their last figures.
    kept = {}
    if os.path.exists(report.CAPACITY):
        with open(report.CAPACITY) as f:
            kept = json.load(f)['modes']
    kept.update(results)
    with open(report.CAPACITY, 'w') as f:
        json.dump({'modes': {m: kept[m] for m in MODES if m in kept}}, f, indent=1)
        f.write('\n')
    print('took %.0f s' % (time.time() - begin))
    report.update_capacity()


if __name__ == '__main__':
    main()
