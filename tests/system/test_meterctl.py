#!/usr/bin/python3
"""meterctl, the control tool, end to end: each command's datagram has its effect on the daemon,
and every bad input is refused with its own message before anything reaches the socket."""
import os

import harness
from harness import CONTROL_SOCK, OFF_TAIL, ON_TAIL, Meterd, Peer, tail
from records import EV_DEBUG_OFF, EV_DEBUG_ON, EV_EXIT, event

SECRET, NEW_SECRET = 'testing123', 'n3w-s3cret'
meterctl = harness.tool('meterctl', check=False)


class Meterctl(harness.SystemTest):

    def ctl(self, *args):
        result = meterctl(*args)
        self.assertEqual((result.returncode, result.stderr), (0, ''), args)
        return result.stdout

    def test_every_command_reaches_the_daemon(self):
        self.start(Meterd(['-d']))  # the records of debug on and off: at the listener below
        # wlan-1-1's server never answers, so its Accounting-On waits on the request queue.
        silent = self.start(Peer(SECRET, default='drop'))
        self.ctl('add', 'wlan-1-1', '127.0.0.1', silent.port, SECRET)
        self.assertEqual(tail(silent.wait(1)[0]), ON_TAIL)
        view = self.ctl('dump')
        self.assertRegex(view, r'^scheduler \(due\)\n  in [345]s +request queue\n\n'
                               r'request queue \(answer due\)\n  in [345]s +wlan-1-1 +Accounting-On/Off\n\n'
                               r'fail queue \(.*\)\n  \(empty\)\n$')
        self.assertEqual(self.ctl('dump', '--raw'), harness.read_file(harness.DUMP_FILE))
        # wlan-1-2's controller moves to 127.0.0.2 and takes a new secret there: the
        # Accounting-Off of remove goes there, signed with it (as wait checks).
        first = self.start(Peer(SECRET, '127.0.0.3'))
        moved = self.start(Peer(NEW_SECRET, '127.0.0.2', first.port))
        self.ctl('add', 'wlan-1-2', '127.0.0.3', first.port, SECRET, 'localhost', 1, 'backup')
        self.assertEqual(tail(first.wait(1)[0]), ON_TAIL)
        self.ctl('ac-address', '127.0.0.3', '127.0.0.2')
        self.ctl('ac-secret', '127.0.0.2', NEW_SECRET)
        self.ctl('remove', 'wlan-1-2')
        self.assertEqual(tail(moved.wait(1)[0]), OFF_TAIL)
        self.wait_console('Accounting off. Server IP:127.0.0.2\n')
        self.ctl('remove', 'wlan-9-9')
        self.wait_console('search_radius fail.\n')

    def test_bad_input_sends_nothing(self):
        long_text = 'x' * 64
        cases = [
            (('frobnicate',), "unknown command 'frobnicate'"),
            (('--verbose', 'dump'), "unknown option '--verbose'"),
            (('dump', '--verbose'), "unknown option '--verbose' for dump"),
            ((), 'no command given'),
            (('remove',), 'too few arguments for remove'),
            (('remove', 'wlan-1-1', 'wlan-1-2'), 'too many arguments for remove'),
            (('add', 'wlan-1-1', 'h', 1813, 's', 'b'), 'add takes 4 arguments, or 7 with a backup server, not 5'),
            (('add', long_text, 'h', 1813, 's'), 'interface is 64 characters long, at most 63 fit'),
            (('add', 'wlan-1-1', 'h', 1813, long_text + 'x'), 'secret is 65 characters long, at most 64 fit'),
            (('add', 'wlan-1-1', 'h', 1813, 's', 'b', 1813, ''), 'backup secret must not be empty'),
            (('add', 'wlan-1-1', 'h', 0, 's'), "port '0' is not a number from 1 to 65535"),
            (('add', 'wlan-1-1', 'h', '18x', 's'), "port '18x' is not a number from 1 to 65535"),
            (('ac-secret', '10.0.0.1', long_text), 'secret is 64 characters long, at most 63 fit'),
            (('debug', 'loud'), "debug takes on or off, not 'loud'"),
        ]
        listener = self.listen(CONTROL_SOCK)
        for args, message in cases:
            with self.subTest(args=args):
                result = meterctl(*args)
                self.assertRegex('%d %s' % (result.returncode, result.stderr), '^2 meterctl: %s[^\n]*\n$' % message)
                self.assertRaises(BlockingIOError, listener.recv, 1024)
        # The listener does hear good commands: whole, zeroed records (the daemon's exit is test_delivery's).
        for args, record in ((('debug', 'on'), event(EV_DEBUG_ON)), (('debug', 'off'), event(EV_DEBUG_OFF)),
                             (('exit',), event(EV_EXIT))):
            self.assertEqual((meterctl(*args).returncode, listener.recv(1024)), (0, record))
        # Now the socket file is gone (one without a reader is test_stats's).
        os.unlink(CONTROL_SOCK)
        result = meterctl('exit')
        self.assertEqual((result.returncode, result.stderr),
                         (1, 'meterctl: meterd is not listening on %s: No such file or directory\n' % CONTROL_SOCK))

if __name__ == '__main__':
    harness.main()
