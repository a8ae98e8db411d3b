"""Drives the real meterd binary from outside.

Every test file runs in a private mount and network namespace: /tmp and
/var/run are fresh tmpfs mounts for each test, /dev/console is a FIFO that we
drain, and the loopback interface belongs to us alone, so fixed paths and
ports cannot collide with the host or with a test running in parallel.
"""
import hashlib
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
BUILD_DIR = os.path.abspath(os.environ.get('METERD_BUILD_DIR', os.path.join(REPO, 'build')))
PYTHON = '/usr/bin/python3'  # Debian's python, the one that has pyrad
FAKETIME_LIB = '/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1'

CONTROL_SOCK = '/tmp/accounting.sock'
PORTAL_SOCK = '/tmp/accounting_portal.sock'
PID_FILE = '/var/run/meterd.pid'
DUMP_FILE = '/tmp/meterd_db'
DEVSIM = '/tmp/devsim'
WORK = '/tmp/harness'  # our own scratch space, inside the per-test tmpfs

EV_REMOVE, EV_AC_IP_CHANGE, EV_INIT, EV_EXIT, EV_SECRET_CHANGE = 2, 3, 4, 5, 7
EV_DEBUG_OFF, EV_DEBUG_ON, EV_DUMP = 100, 101, 102
EVENT_SIZE = 416


# ---------------------------------------------------------------- namespace

def enter_namespace():
    """Re-executes the calling script under unshare unless already inside."""
    if os.environ.get('METERD_NS') == '1':
        return
    env = dict(os.environ, METERD_NS='1', PYTHONUNBUFFERED='1')
    argv = ['unshare', '--mount', '--net', '--propagation', 'private', '--',
            PYTHON, os.path.abspath(sys.argv[0])] + sys.argv[1:]
    try:
        os.execvpe('unshare', argv, env)
    except OSError as e:
        sys.exit('cannot enter a private namespace (root needed): %s' % e)


def _sh(*argv):
    subprocess.run(argv, check=True)


_console = None


def console():
    """Sets the namespace up once per process (loopback up, /dev/console a
    FIFO) and returns the console reader."""
    global _console
    if _console is None:
        _sh('mount', '-t', 'tmpfs', 'tmpfs', '/tmp')
        _sh('ip', 'link', 'set', 'lo', 'up')
        fifo = '/tmp/.console'
        os.mkfifo(fifo)
        _sh('mount', '--bind', fifo, '/dev/console')
        _console = Console('/dev/console')
    return _console


def fresh_dirs():
    """Mounts empty /tmp and /var/run over whatever is there; returns the undo."""
    for path in ('/tmp', '/var/run'):
        _sh('mount', '-t', 'tmpfs', 'tmpfs', path)
    os.makedirs(WORK)
    return lambda: [_sh('umount', '-l', path) for path in ('/var/run', '/tmp')]


class Console:
    """Collects what the daemon writes on /dev/console.

    Opened read-write so that a writer's open never blocks and we never see
    EOF between messages."""

    def __init__(self, path):
        self._fd = os.open(path, os.O_RDWR)
        self._text = ''
        self._cond = threading.Condition()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            data = os.read(self._fd, 65536)
            with self._cond:
                self._text += data.decode('latin-1')
                self._cond.notify_all()

    def mark(self):
        with self._cond:
            return len(self._text)

    def since(self, mark):
        with self._cond:
            return self._text[mark:]

    def wait_for(self, pattern, since=0, timeout=5.0):
        """Waits for a regex (or exact text) after `since`; returns the match."""
        rx = re.compile(pattern if isinstance(pattern, re.Pattern) else re.escape(pattern))
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                m = rx.search(self._text, since)
                if m:
                    return m
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError('console never showed %r; got:\n%s'
                                         % (rx.pattern, self._text[since:]))
                self._cond.wait(left)


# ---------------------------------------------------------------- control datagrams

def _text(s, n):
    b = s.encode() if isinstance(s, str) else s
    return b[:n]


def event(event_id, payload=b''):
    """A full control datagram: 8-byte little-endian event id, zero-padded payload."""
    return (struct.pack('<q', event_id) + payload).ljust(EVENT_SIZE, b'\0')


def ev_init(interface, host='', port=0, secret='', backup_host='', backup_port=0,
            backup_secret='', nas_ip='0.0.0.0', nas_id='', acct_interim=0):
    payload = struct.pack('<64s64si64si65s65s2x4s65s3xi', _text(interface, 64), _text(host, 64), port,
                          _text(backup_host, 64), backup_port, _text(secret, 65),
                          _text(backup_secret, 65), socket.inet_aton(nas_ip), _text(nas_id, 65),
                          acct_interim)
    assert len(payload) == 408
    return event(EV_INIT, payload)


def ev_remove(interface):
    return event(EV_REMOVE, struct.pack('64s', _text(interface, 64)))


def ev_ac_ip_change(old_ip, new_ip):
    return event(EV_AC_IP_CHANGE, struct.pack('64s64s', _text(old_ip, 64), _text(new_ip, 64)))


def ev_secret_change(ac_ip, new_secret):
    return event(EV_SECRET_CHANGE, struct.pack('64s64s', _text(ac_ip, 64), _text(new_secret, 64)))


def ev_exit(status=0):
    return event(EV_EXIT, bytes([status]))


def send_control(data):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(data, CONTROL_SOCK)


NODE_RX = re.compile(r'username: (.*?), report_time: (\d+), interface:(.*) ')


def parse_dump(text):
    """Splits a dump into {'scheduler': [...], 'request': [...], 'fail': [...],
    'interim': [(interval, [...])]}; nodes are (user, report_time, interface)."""
    out = {'scheduler': [], 'request': [], 'fail': [], 'interim': []}
    current = None
    for line in text.split('\n'):
        if line.startswith('scheduler:'):
            current = out['scheduler']
        elif line.startswith('request queue:'):
            current = out['request']
        elif line.startswith('fail queue:'):
            current = out['fail']
        elif line.startswith('interim queue:'):
            current = []
            out['interim'].append((int(re.search(r'interval: (-?\d+)', line).group(1)), current))
        elif line.startswith('radius:'):
            current = None
        elif line.startswith('time:'):
            current.append(int(re.match(r'time:(\d+)', line).group(1)))
        elif NODE_RX.fullmatch(line):
            user, when, iface = NODE_RX.fullmatch(line).groups()
            current.append((user, int(when), iface))
    return out


# ---------------------------------------------------------------- meterd

SANITIZER_RX = re.compile(r'ERROR: AddressSanitizer|runtime error:|ERROR: LeakSanitizer')


class Meterd:
    """One daemon process, optionally on an accelerated clock."""

    def __init__(self, args=(), speed=None, mode='1', mac='02:00:00:00:00:01', stations=''):
        self.args, self.speed = list(args), speed
        os.makedirs(DEVSIM, exist_ok=True)
        for name, value in (('hybridmode', mode), ('mac', mac), ('stations', stations)):
            path = os.path.join(DEVSIM, name)
            if value is None:  # the simulated device then falls back to its default
                if os.path.exists(path):
                    os.unlink(path)
            else:
                with open(path, 'w') as f:
                    f.write(value)
        self.proc = None

    def start(self, timeout=10.0):
        os.makedirs(WORK, exist_ok=True)
        env = dict(os.environ,
                   PATH=BUILD_DIR + os.pathsep + os.environ.get('PATH', ''),
                   ASAN_OPTIONS='detect_leaks=0:verify_asan_link_order=0',
                   UBSAN_OPTIONS='print_stacktrace=1')
        if self.speed:
            env.update(LD_PRELOAD=FAKETIME_LIB, FAKETIME='+0 x%g' % self.speed,
                       FAKETIME_DONT_RESET='1')
        self.stdout_path = os.path.join(WORK, 'meterd.stdout')
        self.stderr_path = os.path.join(WORK, 'meterd.stderr')
        with open(self.stdout_path, 'wb') as out, open(self.stderr_path, 'wb') as err:
            self.proc = subprocess.Popen([os.path.join(BUILD_DIR, 'meterd')] + self.args,
                                         stdout=out, stderr=err, env=env)
        deadline = time.monotonic() + timeout
        while not (os.path.exists(PID_FILE) and self._control_bound()):
            if self.proc.poll() is not None:
                raise AssertionError('meterd exited with %s:\n%s' % (self.proc.returncode, self.stderr()))
            if time.monotonic() > deadline:
                raise AssertionError('meterd did not come up:\n' + self.stderr())
            time.sleep(0.02)
        if self.speed:
            with open('/proc/%d/maps' % self.proc.pid) as f:
                assert FAKETIME_LIB in f.read(), 'libfaketime was not preloaded'
        return self

    @staticmethod
    def _control_bound():
        # connect() on a datagram socket sends nothing: it only proves that
        # someone is bound there, which a stale socket file does not.
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
            try:
                s.connect(CONTROL_SOCK)
                return True
            except OSError:
                return False

    def faked(self, real_seconds):
        return real_seconds * (self.speed or 1)

    def real(self, faked_seconds):
        return faked_seconds / (self.speed or 1)

    def sleep(self, faked_seconds):
        time.sleep(self.real(faked_seconds))

    def stderr(self):
        with open(self.stderr_path, 'rb') as f:
            return f.read().decode('latin-1')

    def send(self, data):
        send_control(data)

    def dump(self, timeout=5.0):
        """Asks for a dump and returns its text once the file has settled."""
        if os.path.exists(DUMP_FILE):
            os.unlink(DUMP_FILE)
        send_control(event(EV_DUMP))
        deadline, last = time.monotonic() + timeout, None
        while time.monotonic() < deadline:
            time.sleep(0.05)
            try:
                with open(DUMP_FILE) as f:
                    text = f.read()
            except FileNotFoundError:
                continue
            if text == last and 'fail queue:' in text and text.endswith('\n'):
                return text
            last = text
        raise AssertionError('no complete dump; last read: %r' % last)

    def stop(self):
        """Kills the daemon (it has no clean exit) and returns its stderr,
        raising if it died early or a sanitizer spoke."""
        if self.proc is None:
            return ''
        died = self.proc.poll()
        if died is None:
            self.proc.send_signal(signal.SIGKILL)
        self.proc.wait(10)
        self.proc = None
        err = self.stderr()
        if died is not None:
            raise AssertionError('meterd died during the test (status %s):\n%s' % (died, err[-4000:]))
        if SANITIZER_RX.search(err):
            raise AssertionError('sanitizer report from meterd:\n' + err[-6000:])
        return err


# ---------------------------------------------------------------- RADIUS

def request_authentic(raw, secret):
    """True if an Accounting-Request carries the Request Authenticator of `secret`."""
    from pyrad import dictionary, packet
    pkt = packet.AcctPacket(dict=dictionary.Dictionary(), secret=secret.encode(), packet=raw)
    return pkt.VerifyAcctRequest()


def attributes(raw):
    """[(type, value bytes)] of a packet, checking that the lengths add up."""
    length = struct.unpack('!H', raw[2:4])[0]
    assert length == len(raw), 'length field %d, datagram %d' % (length, len(raw))
    out, pos = [], 20
    while pos < length:
        t, n = raw[pos], raw[pos + 1]
        assert n >= 2 and pos + n <= length, 'bad attribute at %d' % pos
        out.append((t, raw[pos + 2:pos + n]))
        pos += n
    return out


def status_type(raw):
    return next(struct.unpack('!I', v)[0] for t, v in attributes(raw) if t == 40)


def response(request, secret, code=5):
    """An attribute-less answer with its Response Authenticator."""
    head = bytes([code, request[1]]) + struct.pack('!H', 20)
    return head + hashlib.md5(head + request[4:20] + secret.encode()).digest()


class Datagram:
    def __init__(self, data, source, when):
        self.data, self.source, self.when = data, source, when

    @property
    def id(self):
        return self.data[1]


class Peer:
    """A RADIUS accounting server whose every answer the test decides.

    `plan` holds one action per datagram received, in order; `default` applies
    after it runs out. Actions: 'answer', 'drop', 'wrong' (signed with a wrong
    secret), 'twice', ('code', N), and 'defer' (the answer leaves only when the
    next datagram arrives)."""

    def __init__(self, secret, ip='127.0.0.1', port=0, plan=(), default='answer'):
        self.secret, self.plan, self.default = secret, list(plan), default
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((ip, port))
        self.ip, self.port = self.sock.getsockname()
        self.received = []
        self._deferred = None
        self._cond = threading.Condition()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                data, source = self.sock.recvfrom(4096)
            except OSError:
                return
            with self._cond:
                self.received.append(Datagram(data, source, time.monotonic()))
                index = len(self.received) - 1
                self._cond.notify_all()
            if self._deferred:
                self.sock.sendto(*self._deferred)
                self._deferred = None
            action = self.plan[index] if index < len(self.plan) else self.default
            if action == 'drop':
                continue
            if action == 'wrong':
                self.sock.sendto(response(data, self.secret + 'x'), source)
            elif action == 'defer':
                self._deferred = (response(data, self.secret), source)
            elif isinstance(action, tuple) and action[0] == 'code':
                self.sock.sendto(response(data, self.secret, action[1]), source)
            else:
                for _ in range(2 if action == 'twice' else 1):
                    self.sock.sendto(response(data, self.secret), source)

    def wait_count(self, n, timeout):
        deadline = time.monotonic() + timeout
        with self._cond:
            while len(self.received) < n:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError('peer %s:%d got %d datagrams, wanted %d'
                                         % (self.ip, self.port, len(self.received), n))
                self._cond.wait(left)
            return list(self.received)

    def close(self):
        self.sock.close()


# ---------------------------------------------------------------- FreeRADIUS

_RADIUSD_CONF = '''
libdir = /usr/lib/freeradius
confdir = {dir}
pidfile = {dir}/radiusd.pid
client meterd {{
	ipaddr = 127.0.0.1
	secret = {secret}
}}
modules {{
	detail {{
		filename = {dir}/detail
		header = "%t"
	}}
}}
server default {{
	listen {{
		type = acct
		ipaddr = 127.0.0.1
		port = {port}
	}}
	accounting {{
		detail
	}}
}}
'''


class FreeRadius:
    """FreeRADIUS with a configuration of our own: one client, one accounting
    listener, and every accepted request written to a detail file."""

    def __init__(self, secret, port=1813):
        self.secret, self.port = secret, port
        self.dir = os.path.join(WORK, 'freeradius-%d' % port)
        self.detail_path = os.path.join(self.dir, 'detail')
        self.proc = None

    def start(self, timeout=15.0):
        os.makedirs(self.dir, exist_ok=True)
        with open(os.path.join(self.dir, 'radiusd.conf'), 'w') as f:
            f.write(_RADIUSD_CONF.format(dir=self.dir, secret=self.secret, port=self.port))
        self.log_path = os.path.join(self.dir, 'stdout.log')
        with open(self.log_path, 'wb') as log:
            self.proc = subprocess.Popen(['freeradius', '-f', '-d', self.dir, '-n', 'radiusd',
                                          '-l', 'stdout'], stdout=log, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + timeout
        while 'Ready to process requests' not in self.log():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                raise AssertionError('FreeRADIUS did not start:\n' + self.log())
            time.sleep(0.05)
        return self

    def log(self):
        with open(self.log_path, 'rb') as f:
            return f.read().decode('latin-1')

    def stop(self):
        if self.proc is not None:
            self.proc.terminate()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
            self.proc = None

    def records(self):
        """The detail file as a list of {attribute: value text}."""
        try:
            with open(self.detail_path) as f:
                text = f.read()
        except FileNotFoundError:
            return []
        out = []
        for block in text.strip().split('\n\n'):
            rec = {}
            for line in block.split('\n')[1:]:
                name, _, value = line.strip().partition(' = ')
                rec[name] = value.strip('"')
            if rec:
                out.append(rec)
        return out

    def wait_records(self, n, timeout=10.0):
        deadline = time.monotonic() + timeout
        while len(self.records()) < n:
            if time.monotonic() > deadline:
                raise AssertionError('FreeRADIUS logged %d records, wanted %d:\n%s'
                                     % (len(self.records()), n, self.log()))
            time.sleep(0.05)
        return self.records()


# ---------------------------------------------------------------- test case

class SystemTest(unittest.TestCase):
    """Gives each test a fresh /tmp and /var/run and tears down whatever it started."""

    def setUp(self):
        self.console = console()
        self.addCleanup(fresh_dirs())
        self.mark = self.console.mark()

    def start_meterd(self, *args, **kw):
        daemon = Meterd(args, **kw).start()
        self.addCleanup(daemon.stop)
        return daemon

    def start_freeradius(self, secret, port=1813):
        server = FreeRadius(secret, port).start()
        self.addCleanup(server.stop)
        return server

    def start_peer(self, secret, **kw):
        peer = Peer(secret, **kw)
        self.addCleanup(peer.close)
        return peer

    def wait_console(self, pattern, timeout=5.0, count=1):
        """Waits until the test's console output holds `pattern` `count` times."""
        pos = self.mark
        for _ in range(count):
            m = self.console.wait_for(pattern, pos, timeout)
            pos = m.end()
        return m


def main():
    enter_namespace()
    if not os.path.exists(os.path.join(BUILD_DIR, 'meterd')):
        sys.exit('no meterd in %s (set METERD_BUILD_DIR)' % BUILD_DIR)
    unittest.main(verbosity=2)
