#!/usr/bin/python3
"""The daemon frame seen from outside: start-up, options, console, control channel, dump."""
import os
import re
import socket
import struct

import harness
from harness import CONTROL_SOCK, Meterd, _sh
from records import EV_DEBUG_OFF, EV_DEBUG_ON, EV_INIT, EV_REMOVE, event, ev_init

EMPTY_DUMP = r'scheduler: \n\nrequest queue: 0x[0-9a-f]+\n\nfail queue: 0x[0-9a-f]+\n'
SECRET = 'testing123'
SYSLOG = re.compile(r'<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (\S+?): (.*)', re.S)  # <PRI>, time, "ident[pid]: ", text


class Frame(harness.SystemTest):

    def test_modes_pid_file_and_empty_dump(self):
        # Each start meets the socket file its predecessor left, the first a
        # stale one of ours; an unknown option is passed over.
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stale:
            stale.bind(CONTROL_SOCK)
        for mode in (None, '1', '0', '7', 'garbage', '5'):  # None: the simulated device has no mode file
            if mode:
                harness.hybrid_mode(mode)
            daemon, mark = self.start(Meterd(['-z'])), len(self.console.text)
            with self.subTest(mode=mode):
                self.assertEqual(harness.read_file(harness.PID_FILE), str(daemon.proc.pid))
                # Only cloud mode lists portal profiles, and only in the file.
                dump = daemon.dump()
                self.assertRegex(dump, '^' + EMPTY_DUMP + (r'\nradius: \n' if mode == '5' else '') + '$')
                self.assertEqual(self.console.text[mark:], dump.replace('\nradius: \n', ''))
                self.assertNotIn('debugging', daemon.stderr())
            daemon.stop()

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
        self.assertEqual([d[20:] for d in peer.wait(3)], [harness.ON_TAIL, harness.OFF_TAIL, harness.ON_TAIL])

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
