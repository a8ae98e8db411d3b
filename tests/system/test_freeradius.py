#!/usr/bin/python3
"""Interoperation with a real accounting server, FreeRADIUS."""
import harness
from harness import EV_REMOVE, EV_SECRET_CHANGE, FreeRadius, Meterd, event, ev_init

ON = {'Acct-Status-Type': 'Accounting-On', 'Acct-Authentic': 'RADIUS', 'NAS-IP-Address': '127.0.0.1',
      'NAS-Port': '0', 'NAS-Port-Type': 'Ethernet', 'Acct-Terminate-Cause': 'NAS-Reboot'}
OFF = dict(ON, **{'Acct-Status-Type': 'Accounting-Off', 'Acct-Terminate-Cause': 'Admin-Reset'})


class FreeRadiusPeer(harness.SystemTest):

    def test_on_secret_change_and_off(self):
        server = self.start(FreeRadius('testing123'))
        daemon = self.start(Meterd(['-d']))
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, 'testing123'))
        self.assertEqual(server.wait_records(1), [ON])
        self.wait_console('Accounting on. Server IP:127.0.0.1\n')

        daemon.send(event(EV_SECRET_CHANGE, '127.0.0.1', 'n3w-s3cret'))
        end = self.wait_console('ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE\n')
        self.console.wait_for("Replace interface wlan-1-1's radius secret key.\n", end)
        # Only a request signed with the new secret gets past the new server,
        # and only an answer checked with it releases the profile.
        server.stop()
        server = self.start(FreeRadius('n3w-s3cret'))
        daemon.send(event(EV_REMOVE, 'wlan-1-1'))
        self.assertEqual(server.wait_records(2), [ON, OFF])
        self.wait_console('Accounting off. Server IP:127.0.0.1\n')
        self.wait_console('free RADIUS profile \n')
        self.assertEqual(harness.queued(daemon.dump(), 'wlan-1-1'), [])


if __name__ == '__main__':
    harness.main()
