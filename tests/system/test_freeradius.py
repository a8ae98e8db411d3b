#!/usr/bin/python3
"""Interoperation with a real accounting server, FreeRADIUS."""
import harness
from harness import ev_init, ev_remove, ev_secret_change, parse_dump

SECRET = 'testing123'
ON = {'Acct-Status-Type': 'Accounting-On', 'Acct-Authentic': 'RADIUS', 'NAS-IP-Address': '127.0.0.1',
      'NAS-Port': '0', 'NAS-Port-Type': 'Ethernet', 'Acct-Terminate-Cause': 'NAS-Reboot'}
OFF = dict(ON, **{'Acct-Status-Type': 'Accounting-Off', 'Acct-Terminate-Cause': 'Admin-Reset'})


def sent(record):
    """A detail record without what the server adds of its own."""
    return {k: v for k, v in record.items() if k != 'Timestamp'}


class FreeRadiusPeer(harness.SystemTest):

    def remove_and_expect_release(self, daemon, server, records):
        daemon.send(ev_remove('wlan-1-1'))
        self.assertEqual(sent(server.wait_records(records)[-1]), OFF)
        self.wait_console('Accounting off. Server IP:127.0.0.1\n')
        self.wait_console('free RADIUS profile \n')
        dump = parse_dump(daemon.dump())
        self.assertEqual([n for n in dump['request'] + dump['fail'] if n[2] == 'wlan-1-1'], [])

    def test_on_and_off_are_accepted_and_logged(self):
        server = self.start_freeradius(SECRET)
        daemon = self.start_meterd('-d')
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        self.assertEqual([sent(r) for r in server.wait_records(1)], [ON])
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')
        self.assertEqual(parse_dump(daemon.dump())['request'], [])
        self.remove_and_expect_release(daemon, server, 2)

    def test_shared_secret_change(self):
        server = self.start_freeradius(SECRET)
        daemon = self.start_meterd('-d')
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')
        daemon.send(ev_secret_change('127.0.0.1', 'n3w-s3cret'))
        m = self.wait_console('ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE\n')
        self.console.wait_for("Replace interface wlan-1-1's radius secret key.\n", m.end())
        server.stop()
        # Only a request signed with the new secret gets past the new server,
        # and only an answer checked with it releases the profile.
        server = self.start_freeradius('n3w-s3cret')
        self.remove_and_expect_release(daemon, server, 2)


if __name__ == '__main__':
    harness.main()
