#!/usr/bin/python3
"""The daemon frame seen from outside: start-up, options, console, control channel, dump."""
import os
import pathlib
import re
import socket
import stat
import struct
import subprocess
import sys

import harness
from harness import CONTROL_SOCK, DUMP_FILE, Meterd, _sh
from records import EV_DEBUG_OFF, EV_DEBUG_ON, EV_DUMP, EV_INIT, EV_REMOVE, event, ev_init

EMPTY_DUMP = r'scheduler: \n\nrequest queue: 0x[0-9a-f]+\n\nfail queue: 0x[0-9a-f]+\n'
SECRET = 'testing123'
SOCKETS = (CONTROL_SOCK, '/tmp/accounting_portal.sock', '/tmp/accounting_recv_radius.sock',
           '/tmp/accounting_recv_wireless_hal.sock')
NOBODY = ['setpriv', '--reuid=65534', '--regid=65534', '--clear-groups']
# Sends argv[1] (hex) to each later argument; prints, for each, "sent" or the errno's name.
SEND = ("import socket, sys\nfor p in sys.argv[2:]:\n    try: socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)"
        ".sendto(bytes.fromhex(sys.argv[1]), p); print('sent')\n    except OSError as e: print(e.strerror)")
SYSLOG = re.compile(r'<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (\S+?): (.*)', re.S)  # <PRI>, time, "ident[pid]: ", text


class Frame(harness.SystemTest):

    def test_modes_pid_file_and_empty_dump(self):
        # Each start meets the socket file its predecessor left, the first a
        # stale one of ours; an unknown option is passed over.
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stale:
            stale.bind(CONTROL_SOCK)
        for mode in (None, '1', '0', '7', 'garbage', '5'):  # None: the simulated device has no mode file
            mode and harness.hybrid_mode(mode)
            daemon, mark = self.start(Meterd(['-z'])), len(self.console.text)
            with self.subTest(mode=mode):
                self.assertEqual(harness.read_file(harness.PID_FILE), str(daemon.proc.pid))
                # Only cloud mode lists portal profiles, and only in the file.
                dump = daemon.dump()
                self.assertRegex(dump, '^' + EMPTY_DUMP + (r'\nradius: \n' if mode == '5' else '') + '$')
                self.assertEqual(self.console.text[mark:], dump.replace('\nradius: \n', ''))
                self.assertNotIn('debugging', daemon.stderr())
            daemon.stop()

    def test_tls_file_refused_before_anything(self):
        # Without TLS in the build -T says so; with it, a file that is not there says that. Either
        # way one line, exit 1, and no daemon.
        result = subprocess.run([os.path.join(harness.BUILD_DIR, 'meterd'), '-T', '/tmp/none.conf'],
                                capture_output=True, text=True, timeout=10)
        self.assertEqual((result.returncode, result.stdout, result.stderr.count('\n')), (1, '', 1))
        self.assertRegex(result.stderr, r'^meterd: .*(without RADIUS over TLS|/tmp/none\.conf)')
        self.assertFalse(os.path.exists(harness.PID_FILE))

    def test_control_channel(self):
        peer = self.start(harness.Peer(SECRET))
        daemon = self.start(Meterd(['-d', '-d']))
        profile = lambda interface: ev_init(interface, '127.0.0.1', peer.port, SECRET)
        self.assertEqual(daemon.stderr().count('meterd enters debugging mode...\n'), 1)
        daemon.send(event(EV_DEBUG_OFF))
        self.wait_console('receive ovat event. 100\n')
        # Without debugging, numbers outside the table (or with an upper byte
        # set) show nothing and change nothing: the console shows the dump alone.
        empty, upper = daemon.dump(), lambda n: struct.pack('<q', (1 << 40) | n)
        mark = len(self.console.text)
        for data in (event(0), event(1), event(6), event(999),
                     upper(EV_DEBUG_ON) + bytes(408), upper(EV_INIT) + profile('wlan-1-1')[8:]):
            daemon.send(data)
        self.assertEqual(daemon.dump(), empty)
        self.assertEqual(self.console.text[mark:], empty)
        self.assertEqual(peer.received, [])
        # An arm reads only its own bytes; anything past 416 is cut off.
        daemon.send(event(EV_DEBUG_ON)[:8])
        self.wait_console('debug level: 1\n')
        daemon.send(profile('wlan-1-1')[:338])
        daemon.send(event(EV_REMOVE, 'wlan-1-1')[:72])
        daemon.send(profile('wlan-1-2') + b'\xff' * 200)
        self.assertEqual([harness.tail(d) for d in peer.wait(3)], [harness.ON_TAIL, harness.OFF_TAIL, harness.ON_TAIL])

    def test_closed_to_other_users(self):
        # Started with umask 000, in cloud mode for all four sockets: each is root's alone, and
        # another user's datagram (one that would turn debugging on) is refused by the kernel.
        harness.hybrid_mode('5')
        umask = os.umask(0)
        daemon = self.start(Meterd())
        os.umask(umask)
        harness._poll(lambda: all(map(harness._bound, SOCKETS)), 5, lambda: 'not all of %s bound' % (SOCKETS,))
        self.assertEqual([stat.S_IMODE(os.stat(p).st_mode) for p in SOCKETS], [0o600] * 4)
        sent = subprocess.run(NOBODY + [sys.executable, '-I', '-c', SEND, event(EV_DEBUG_ON).hex(), *SOCKETS],
                              capture_output=True, text=True, timeout=30)
        self.assertEqual(sent.stdout, 'Permission denied\n' * 4, sent.stderr)
        # Names planted where the dump goes: each refused with one console line and without the
        # console copy, the file behind untouched.
        victim = pathlib.Path('/tmp/victim')
        seen = lambda p: (p.read_bytes(), os.lstat(p).st_mode, os.lstat(p).st_uid)
        for name, plant in (('symbolic link', lambda: os.symlink(victim, DUMP_FILE)),
                            ('hard link', lambda: os.link(victim, DUMP_FILE)),
                            ("another user's file", lambda: (os.chown(victim, 65534, 65534),
                                                             os.rename(victim, DUMP_FILE))),
                            ('FIFO without reader', lambda: os.mkfifo(DUMP_FILE))):
            for path in (victim, pathlib.Path(DUMP_FILE)):  # what the case before left
                path.unlink(missing_ok=True)
            with self.subTest(name):
                victim.write_text('precious\n')
                victim.chmod(0o644)
                plant()
                guarded = victim if victim.exists() else pathlib.Path(DUMP_FILE)
                before, mark = 'FIFO' not in name and seen(guarded), len(self.console.text)
                daemon.send(event(EV_DUMP))
                self.console.wait_for('meterd: refusing to write /tmp/meterd_db: ', mark)
                self.assertEqual(before and seen(guarded), before)
        # Our own file of an earlier dump, readable by all, is reused and closed to others.
        os.unlink(DUMP_FILE)
        pathlib.Path(DUMP_FILE).write_text('stale\n')
        os.chmod(DUMP_FILE, 0o644)
        daemon.send(event(EV_DUMP))
        dump = harness._poll(lambda: (lambda t: t.endswith('radius: \n') and t)(harness.read_file(DUMP_FILE)), 5,
                             lambda: 'no dump: %r' % harness.read_file(DUMP_FILE))
        self.assertRegex(dump, '^' + EMPTY_DUMP + r'\nradius: \n$')
        self.assertEqual(stat.S_IMODE(os.stat(DUMP_FILE).st_mode), 0o600)
        self.wait_console(dump.replace('\nradius: \n', ''))  # the console's reader may lag behind the file
        self.assertRegex(self.console.text[self.mark:], r'^(meterd: refusing to write /tmp/meterd_db: [^\n]+\n){4}' +
                         re.escape(dump.replace('\nradius: \n', '')) + '$')

    def test_console_to_syslog(self):
        # -s: each console message goes to syslog (at /dev/log) as one message of facility daemon,
        # and the console shows nothing; the dump's lines too, with debugging on or off. The host's
        # /dev has no room for the socket (devtmpfs, often without /dev/log), so a tmpfs covers /dev
        # meanwhile, with a link to each entry of the host's, moved below it with its mounts.
        os.mkdir('/tmp/.dev')
        _sh('mount', '--rbind', '/dev', '/tmp/.dev')
        _sh('mount', '-t', 'tmpfs', 'tmpfs', '/dev')
        self.addCleanup(_sh, 'umount', '-l', '/dev')
        os.mkdir('/dev/.host')
        _sh('mount', '--move', '/tmp/.dev', '/dev/.host')
        for name in os.listdir('/dev/.host'):
            os.symlink('.host/' + name, '/dev/' + name)
        log, messages = self.listen('/dev/log'), []
        log.settimeout(5)

        def until(text):  # reads messages, as (priority, ident, text), up to one of this text
            while not messages or messages[-1][2] != text:
                messages.append(SYSLOG.fullmatch(log.recv(65536).decode('latin-1')).groups())
        daemon = self.start(Meterd(['-d', '-s']))
        self.assertEqual(daemon.stderr(), 'meterd enters debugging mode...\n')
        daemon.send(event(EV_DEBUG_OFF))
        until('receive ovat event. 100\n')
        dump = daemon.dump()
        daemon.send(event(EV_DEBUG_ON))
        until('debug level: 1\n')
        self.assertEqual({m[:2] for m in messages}, {('30', 'meterd[%d]' % daemon.proc.pid)})
        texts = [m[2] for m in messages]
        self.assertEqual((texts[0], ''.join(texts[1:-1]), texts[-1]),
                         ('receive ovat event. 100\n', dump, 'debug level: 1\n'))
        self.assertEqual(self.console.text[self.mark:], '')


if __name__ == '__main__':
    harness.main()
