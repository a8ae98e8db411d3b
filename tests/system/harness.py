# Drives the real meterd binary from outside, each test file in a private mount and
# network namespace: every test gets fresh tmpfs mounts on /tmp and /var/run, and
# /dev/console is a FIFO that we drain.
import functools
import hashlib
import os
import pathlib
import re
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

# The peers' wire records live with the peers, in tools/, for the scripts and fuzz seeds as well.
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'tools'))
import records  # noqa: E402

BUILD_DIR = os.path.abspath(os.environ.get('METERD_BUILD_DIR', os.path.join(
    os.path.dirname(os.path.abspath(__file__)), '..', '..', 'build')))
FAKETIME_LIB = '/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1'
CONTROL_SOCK, PID_FILE, DUMP_FILE = '/tmp/accounting.sock', '/var/run/meterd.pid', '/tmp/meterd_db'
EXTENDED = os.environ.get('METERD_MODE') == 'extended'
STDERR_FILE = '/tmp/meterd.stderr'
# Taken before the first tmpfs can hide the build folder (see _tmpfs); kept for the whole run.
BUILD_FD = os.open(BUILD_DIR, os.O_PATH)
# A meterd under ThreadSanitizer, whose runtime keeps a thread of its own.
TSAN = os.path.exists(os.path.join(BUILD_DIR, 'meterd')) and \
    b'__tsan_init' in pathlib.Path(BUILD_DIR, 'meterd').read_bytes()

# What follows the header of the Accounting-On and -Off of a profile without a NAS address.
ON_TAIL = bytes.fromhex('280600000007 2D0600000001 04067F000001 050600000000 3D060000000F 31060000000B')
OFF_TAIL = bytes.fromhex('280600000008 2D0600000001 04067F000001 050600000000 3D060000000F 310600000006')
# Extended mode closes every packet with Acct-Delay-Time, 0 for a packet sent at its event.
DELAY_TAIL = bytes.fromhex('290600000000')
if EXTENDED:
    ON_TAIL, OFF_TAIL = ON_TAIL + DELAY_TAIL, OFF_TAIL + DELAY_TAIL


def tail(datagram):
    # The attributes of a request, its Acct-Delay-Time taken as 0: a second may tick over
    # between an event and its packet.
    body = datagram[20:]
    if EXTENDED and body[-6:-4] == DELAY_TAIL[:2]:
        body = body[:-4] + DELAY_TAIL[2:]
    return body


def _sh(*argv):
    subprocess.run(argv, check=True)


def read_file(path):
    return pathlib.Path(path).read_bytes().decode('latin-1') if os.path.exists(path) else ''


def _poll(found, timeout, failure):
    # Returns the first true value of found(); raises failure() at the deadline.
    deadline = time.monotonic() + timeout
    while not (value := found()):
        if time.monotonic() > deadline:
            raise AssertionError(failure())
        time.sleep(0.02)
    return value


def _spawn(owner, argv, log, ready, **popen):
    # Starts argv as owner.proc, its stderr into the file `log`; waits for ready(), failing if it ends.
    # Set at once, so that owner.stop() finds it even if it never comes up.
    with open(log, 'wb') as f:
        owner.proc = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=f, **popen)
    failure = lambda: '%s did not come up:\n%s' % (argv[0], read_file(log))
    _poll(lambda: owner.proc.poll() is not None or ready(), 15, failure)
    assert owner.proc.poll() is None, failure()


def _tmpfs(path):
    # Mounts an empty tmpfs on path. A checkout below it (CI may clone into /tmp)
    # would vanish with it, so the build folder is bound back in at its own path.
    _sh('mount', '-t', 'tmpfs', 'tmpfs', path)
    if (BUILD_DIR + '/').startswith(path.rstrip('/') + '/'):
        os.makedirs(BUILD_DIR)
        # Not canonicalized: the link must lead to the folder, not to its hidden path.
        _sh('mount', '--no-canonicalize', '--bind', '/proc/%d/fd/%d' % (os.getpid(), BUILD_FD), BUILD_DIR)


def _bound(path):
    # connect() on a datagram socket sends nothing: it only proves that
    # someone is bound there, which a stale socket file does not.
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        return s.connect_ex(path) == 0


def tool(name, check=True):
    # A built tool (devsim, meterctl) as a function of its arguments: with check it must succeed
    # and its output shows; without, its result comes back with the output captured.
    return lambda *args: subprocess.run([os.path.join(BUILD_DIR, name)] + [str(a) for a in args], check=check,
                                        capture_output=not check, text=True, timeout=30)


def hybrid_mode(text):
    # What the simulated device reports as its mode; 5 is cloud mode.
    os.makedirs('/tmp/devsim', exist_ok=True)
    pathlib.Path('/tmp/devsim/hybridmode').write_text(text)


def fresh_dirs():
    # Mounts empty /tmp and /var/run over whatever is there; returns the undo.
    for path in ('/tmp', '/var/run'):
        _tmpfs(path)
    return lambda: [_sh('umount', '-l', path) for path in ('/var/run', '/tmp')]


class Console:
    # Sets the namespace up (loopback up, /dev/console a FIFO) and collects what the console shows.

    def __init__(self):
        _tmpfs('/tmp')
        _sh('ip', 'link', 'set', 'lo', 'up')
        os.mkfifo('/tmp/.console')
        _sh('mount', '--bind', '/tmp/.console', '/dev/console')
        # Opened read-write, so that a writer's open never blocks and we never see EOF.
        self.text, self._fd = '', os.open('/dev/console', os.O_RDWR)
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            self.text += os.read(self._fd, 65536).decode('latin-1')

    def wait_for(self, text, since=0, count=1):
        # Waits for `count` times `text` in `self.text[since:]`; returns the end of the last.
        ends = lambda: [since + m.end() for m in re.finditer(re.escape(text), self.text[since:])][count - 1:]
        return _poll(ends, 5, lambda: 'console lacks %r; got:\n%s' % (text, self.text[since:]))[0]


console = functools.cache(Console)  # the namespace is set up once


class Meterd:
    # One daemon process, optionally on a clock `speed` times faster.

    def __init__(self, args=(), speed=None, exact=False):
        # METERD_MODE=extended runs every daemon with the extensions (-x), for the suite in both
        # modes, unless its arguments are `exact`.
        self.args, self.speed, self.proc = list(args) + (EXTENDED and not exact) * ['-x'], speed, None

    def start(self):
        env = dict(os.environ, PATH=BUILD_DIR + os.pathsep + os.environ.get('PATH', ''),
                   ASAN_OPTIONS='detect_leaks=0:verify_asan_link_order=0', UBSAN_OPTIONS='print_stacktrace=1')
        # A meterd built with the test clock (METERD_TEST_CLOCK=ON: static, or under ThreadSanitizer,
        # whose runtime and libfaketime hang together) reads FAKETIME itself; any other needs the library.
        own_clock = b'__wrap_time' in pathlib.Path(BUILD_DIR, 'meterd').read_bytes()
        if self.speed:
            env.update(FAKETIME='+0 x%g' % self.speed, FAKETIME_DONT_RESET='1')
            if not own_clock:
                env.update(LD_PRELOAD=FAKETIME_LIB)
        _spawn(self, [os.path.join(BUILD_DIR, 'meterd')] + self.args, STDERR_FILE,
               lambda: os.path.exists(PID_FILE) and _bound(CONTROL_SOCK), env=env)
        if self.speed and not own_clock:
            assert FAKETIME_LIB in read_file('/proc/%d/maps' % self.proc.pid), 'libfaketime was not preloaded'

    def stderr(self):
        return read_file(STDERR_FILE)

    def send(self, data):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            s.settimeout(5)  # a daemon that stopped reading fails the test rather than hanging it
            s.sendto(data, CONTROL_SOCK)

    def dump(self):
        # Asks for a dump and returns its text once the file has settled.
        pathlib.Path(DUMP_FILE).unlink(missing_ok=True)
        self.send(records.event(records.EV_DUMP))
        reads = ['']

        def settled():
            reads.append(read_file(DUMP_FILE))
            return 'fail queue:' in reads[-1] and reads[-1] == reads[-2] and reads[-1]
        return _poll(settled, 5, lambda: 'no complete dump; last read: %r' % reads[-1])

    def stop(self):
        # Kills the daemon (it has no clean exit), failing if it died early or a sanitizer spoke
        # (ThreadSanitizer, of a build with METERD_TSAN, speaks in warnings).
        if self.proc is None:
            return
        died = self.proc.poll()
        self.proc.kill()
        self.proc.wait(10)
        self.proc, err = None, self.stderr()
        assert died is None, 'meterd died during the test (status %s):\n%s' % (died, err[-4000:])
        assert not re.search(r'ERROR: (Address|Leak)Sanitizer|ThreadSanitizer|runtime error:', err), \
            'sanitizer report from meterd:\n' + err[-20000:]


class Peer(threading.Thread):
    # A RADIUS accounting server whose every answer the test decides: `plan` holds one
    # action per datagram received, `default` applies after it: the Code of an answer
    # without attributes, 'drop', 'wrong' (an Accounting-Response signed with a wrong
    # secret), 'twice' (the same answer two times) or 'late' (answered only once the next
    # copy has come). `received` holds (monotonic time, datagram) pairs. Status-Server probes
    # (meterd -k) go to `probes` instead, unanswered.

    def __init__(self, secret, ip='127.0.0.1', port=0, plan=(), default=5):
        super().__init__(daemon=True)
        self.secret, self.plan, self.default, self.received, self.held = secret, list(plan), default, [], None
        self.probes = []
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((ip, port))
        self.ip, self.port = self.sock.getsockname()

    def run(self):
        while True:
            try:
                self.handle(*self.sock.recvfrom(4096))
            except OSError:
                return

    def handle(self, data, source):
        if data[:1] == b'\x0c':
            return self.probes.append((time.monotonic(), data))
        self.received.append((time.monotonic(), data))
        action = self.plan.pop(0) if self.plan else self.default
        if self.held:  # the late answer, to the copy before: it comes after this one
            data, self.held, action = self.held, None, 5
        elif action == 'late':
            self.held, action = data, 'drop'
        for _ in range({'drop': 0, 'twice': 2}.get(action, 1)):
            self.sock.sendto(self.answer(action, data), source)

    def answer(self, action, request):
        # The answer to request: the Code `action` names (an Accounting-Response for a word), signed
        # with our secret, or with a wrong one for 'wrong'; 'short' keeps 10 bytes, 'empty' none.
        head = bytes([action if isinstance(action, int) else 5, request[1]]) + struct.pack('!H', 20)
        secret = self.secret + ('x' if action == 'wrong' else '')
        whole = head + hashlib.md5(head + request[4:20] + secret.encode()).digest()
        return {'short': whole[:10], 'empty': b''}.get(action, whole)

    def wait(self, n, timeout=5.0):
        # Waits for `n` datagrams; returns all, each checked to be signed with our secret.
        _poll(lambda: len(self.received) >= n, timeout,
              lambda: 'peer on port %d got %d datagrams, wanted %d' % (self.port, len(self.received), n))
        for _, d in self.received:
            signed = hashlib.md5(d[:4] + bytes(16) + d[4 + 16:] + self.secret.encode()).digest() == d[4:20]
            assert signed, 'not signed with %r: %s' % (self.secret, d.hex())
        return [d for _, d in self.received]

    def stop(self):
        self.sock.close()


class SystemTest(unittest.TestCase):
    # Gives each test a fresh /tmp and /var/run and tears down whatever it started.

    def setUp(self):
        self.console = console()
        self.addCleanup(fresh_dirs())
        self.mark = len(self.console.text)

    def start(self, thing):
        # Starts a Meterd, Peer or FreeRadius, to be stopped after the test; returns it.
        self.addCleanup(thing.stop)
        thing.start()
        return thing

    def wait_console(self, text, count=1):
        return self.console.wait_for(text, self.mark, count=count)

    def listen(self, address):
        # A datagram socket bound to a path (made first) or, given a (pid, groups) pair, a
        # netlink socket of the driver's family; it reads without blocking.
        if isinstance(address, str):
            os.makedirs(os.path.dirname(address), exist_ok=True)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) if isinstance(address, str) else \
            socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_USERSOCK)
        self.addCleanup(sock.close)
        sock.bind(address)
        sock.setblocking(False)
        return sock


def enter_namespace():
    # Re-executes the calling script under unshare unless already inside.
    if os.environ.get('METERD_NS') != '1':
        os.execvpe('unshare', ['unshare', '--mount', '--net', '--propagation', 'private', '--',
                               '/usr/bin/python3', os.path.abspath(sys.argv[0])] + sys.argv[1:],
                   dict(os.environ, METERD_NS='1'))


def main():
    enter_namespace()
    unittest.main(verbosity=2)
