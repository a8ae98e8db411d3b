#!/usr/bin/python3
"""A user's whole session on the simulated access point, driven only by devsim and the control
socket, as FreeRADIUS records it. The daemon runs on a clock ten times faster."""
import harness
from freeradius import FreeRadius
from harness import Meterd
from records import ev_init

SECRET, SPEED, MAC = 'testing123', 10, 'aa:bb:cc:dd:ee:01'
devsim = harness.tool('devsim')


class Sessions(harness.SystemTest):

    def test_login_report_interim_counters_disassociation(self):
        server = self.start(FreeRadius(SECRET))
        daemon = self.start(Meterd(['-d'], speed=SPEED))
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        server.wait_records(1)
        devsim('station', 'add', '--mac', MAC, '--ip', '10.0.0.8', '--rx', 1000, '--tx', 2000)
        devsim('login', '--user', 'alice', '--mac', MAC, '--iface', 'wlan-1-1', '--interim', 30,
               '--class', '0x0102ff', '--session-id', 'S-1')
        self.wait_console("node's session-id is: S-1\n")
        # The address of the report, not the device's, goes into the Start.
        devsim('report', '--mac', MAC, '--ip', '10.0.0.7')
        start, interim = server.wait_records(3)[1:]
        devsim('counters', '--mac', MAC, '--iface', 'wlan-1-1', '--tx', 5000, '--rx', 7000)
        devsim('disassoc', '--mac', MAC, '--iface', 'wlan-1-1')
        stop = server.wait_records(4)[3]
        same = {'User-Name': 'alice', 'Acct-Session-Id': 'S-1', 'Calling-Station-Id': 'AA-BB-CC-DD-EE-01',
                'Class': '0x0102ff'}
        for record, status, ip in ((start, 'Start', '10.0.0.7'), (interim, 'Interim-Update', '10.0.0.8'),
                                   (stop, 'Stop', '10.0.0.8')):
            self.assertEqual({k: record.get(k) for k in same}, same)
            self.assertEqual((record['Acct-Status-Type'], record['Framed-IP-Address']), (status, ip))
        self.assertEqual((interim['Acct-Input-Octets'], interim['Acct-Output-Octets']), ('1000', '2000'))
        self.assertEqual((stop['Acct-Input-Octets'], stop['Acct-Output-Octets']), ('7000', '5000'))
        self.assertEqual(stop['Acct-Terminate-Cause'], 'NAS-Request')
        self.wait_console('Accounting Stop. Username: alice')
        self.assertNotIn('username: alice', daemon.dump())


if __name__ == '__main__':
    harness.main()
