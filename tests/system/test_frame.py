#!/usr/bin/python3
"""The daemon frame seen from outside: start-up, options, console, control
channel and the database dump."""
import os
import socket
import struct
import time

import harness
from harness import (EV_DEBUG_OFF, EV_DEBUG_ON, EV_INIT, PID_FILE, PORTAL_SOCK, CONTROL_SOCK,
                     Meterd, event, ev_init, ev_remove, parse_dump)

EMPTY_DUMP = r'scheduler: \n\nrequest queue: 0x[0-9a-f]+\n\nfail queue: 0x[0-9a-f]+\n'
SECRET = 'testing123'


class StartUp(harness.SystemTest):

    def test_non_cloud_modes_and_pid_file(self):
        # Anything but cloud mode, even an unreadable one, gives the same daemon.
        for mode in ('1', '0', '7', 'garbage', None):
            with self.subTest(mode=mode):
                daemon = Meterd(mode=mode).start()
                try:
                    with open(PID_FILE) as f:
                        self.assertEqual(f.read(), str(daemon.proc.pid))
                    self.assertRegex(daemon.dump(), '^' + EMPTY_DUMP + '$')
                    self.assertFalse(os.path.exists(PORTAL_SOCK))
                finally:
                    daemon.stop()

    def test_cloud_mode_dumps_portal_profiles(self):
        daemon = self.start_meterd(mode='5')
        self.assertRegex(daemon.dump(), '^' + EMPTY_DUMP + r'\nradius: \n$')

    def test_stale_control_socket_is_replaced(self):
        stale = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        stale.bind(CONTROL_SOCK)
        stale.close()
        daemon = self.start_meterd()
        self.assertRegex(daemon.dump(), EMPTY_DUMP)


class Diagnostics(harness.SystemTest):

    def assert_silent(self, daemon, data):
        """Sends `data`, then uses a dump (always on the console) as a barrier."""
        mark = self.console.mark()
        daemon.send(data)
        dump = daemon.dump()
        self.assertEqual(self.console.since(mark), dump)
        return dump

    def test_debug_option(self):
        daemon = self.start_meterd('-d', '-d')
        self.assertEqual(daemon.stderr().count('meterd enters debugging mode...\n'), 1)
        daemon.send(event(999))
        self.wait_console('receive ovat event. 999\n')

    def test_unknown_option_is_passed_over(self):
        daemon = self.start_meterd('-x')
        self.assertNotIn('debugging mode', daemon.stderr())
        self.assert_silent(daemon, event(999))

    def test_debug_events(self):
        daemon = self.start_meterd()
        self.assert_silent(daemon, event(999))
        daemon.send(event(EV_DEBUG_ON))
        self.wait_console('debug level: 1\n')
        mark = self.console.mark()
        daemon.send(event(EV_DEBUG_ON))
        self.console.wait_for('receive ovat event. 101\ndebug level: 1\n', mark)
        daemon.send(event(EV_DEBUG_OFF))
        self.console.wait_for('receive ovat event. 100\n', mark)
        self.assert_silent(daemon, event(999))

    def test_dump_of_empty_database(self):
        daemon = self.start_meterd()
        mark = self.console.mark()
        text = daemon.dump()
        self.assertRegex(text, '^' + EMPTY_DUMP + '$')
        # Every dump line goes to the console too, debugging or not.
        self.assertEqual(self.console.since(mark), text)
        self.assertEqual(daemon.dump(), text)


class ControlDatagrams(harness.SystemTest):

    def setUp(self):
        super().setUp()
        self.peer = self.start_peer(SECRET)
        self.daemon = self.start_meterd()
        self.empty = self.daemon.dump()

    def profile(self, interface='wlan-1-1'):
        return ev_init(interface, '127.0.0.1', self.peer.port, SECRET)

    def test_numbers_outside_the_table_change_nothing(self):
        upper = lambda n: struct.pack('<q', (1 << 40) | n)
        for data in (event(0), event(1), event(6), event(999),
                     upper(EV_DEBUG_ON) + bytes(408), upper(EV_INIT) + self.profile()[8:]):
            with self.subTest(event_id=struct.unpack('<q', data[:8])[0]):
                mark = self.console.mark()
                self.daemon.send(data)
                self.assertEqual(self.daemon.dump(), self.empty)
                self.assertEqual(self.console.since(mark), self.empty)
        self.assertEqual(self.peer.received, [])

    def test_short_and_long_datagrams(self):
        # An arm reads only its own bytes; anything past 416 is cut off.
        self.daemon.send(event(EV_DEBUG_ON)[:8])
        self.wait_console('debug level: 1\n')
        self.daemon.send(event(EV_DEBUG_ON) + b'\x01' * 100)
        self.wait_console('debug level: 1\n', count=2)
        self.daemon.send(self.profile()[:338])
        self.assertEqual(harness.status_type(self.peer.wait_count(1, 5)[0].data), 7)
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')
        self.daemon.send(ev_remove('wlan-1-1')[:72])
        self.assertEqual(harness.status_type(self.peer.wait_count(2, 5)[1].data), 8)
        self.wait_console('free RADIUS profile \n')
        self.daemon.send(self.profile('wlan-1-2') + b'\xff' * 200)
        self.assertEqual(harness.status_type(self.peer.wait_count(3, 5)[2].data), 7)
        self.wait_console('Accounting on. Server IP:127.0.0.1\n', count=2)
        dump = parse_dump(self.daemon.dump())
        self.assertEqual(dump['request'] + dump['fail'], [])

if __name__ == '__main__':
    harness.main()
