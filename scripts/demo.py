#!/usr/bin/python3
"""Runs meterd on the simulated access point against a local FreeRADIUS, inside a private
namespace of its own, and plays a short day of an access point with devsim: a profile, stations
that log in, get addresses, send traffic and leave; then a session past 4 GiB, by default and with
meterd -x, and the radacct rows that FreeRADIUS's stock SQL accounting wrote of it into SQLite. Every
record FreeRADIUS writes is shown as it arrives. --cloud plays the same day in cloud mode: portal
profiles and UAM logins.
The daemon runs on a clock ten times faster, so that Interim-Updates come within seconds."""
import os
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'tests', 'system'))
import harness  # noqa: E402
import records  # noqa: E402
from freeradius import FreeRadius  # noqa: E402

SECRET, SPEED = 'testing123', 10
STATIONS = [('alice', 'aa:bb:cc:00:00:01', '10.0.0.11'), ('bob', 'aa:bb:cc:00:00:02', '10.0.0.12'),
            ('carol', 'aa:bb:cc:00:00:03', '10.0.0.13')]
SHOWN = ('Acct-Status-Type', 'User-Name', 'Acct-Session-Id', 'Calling-Station-Id', 'Framed-IP-Address',
         'Acct-Input-Octets', 'Acct-Output-Octets', 'Acct-Input-Gigawords', 'Acct-Output-Gigawords',
         'Acct-Session-Time', 'Acct-Terminate-Cause')
GIB = 2 ** 30
RADACCT = ("SELECT username, acctsessionid, acctsessiontime, acctinputoctets, acctoutputoctets, printf('%.2f', acctinputoctets / 1073741824.0) AS in_gib, "
           "printf('%.2f', acctoutputoctets / 1073741824.0) AS out_gib, acctterminatecause FROM radacct")


def step(text):
    print('\n--- %s' % text, flush=True)


def devsim(*args):
    print('$ devsim ' + ' '.join(str(a) for a in args), flush=True)
    subprocess.run([os.path.join(harness.BUILD_DIR, 'devsim')] + [str(a) for a in args], check=True)


def follow(server, stop):
    """Prints each record of FreeRADIUS's detail file once it is complete."""
    seen = 0
    while not stop.is_set():
        recs = server.records()
        for fields in recs[seen:]:
            print('  FreeRADIUS <- ' + ', '.join('%s=%s' % (k, fields[k]) for k in SHOWN if k in fields),
                  flush=True)
        seen = len(recs)
        time.sleep(0.1)


def wait(server, status, count):
    """Waits until FreeRADIUS holds `count` records of that Acct-Status-Type."""
    deadline = time.monotonic() + 15
    while sum(r.get('Acct-Status-Type') == status for r in server.wait_records(1)) < count:
        assert time.monotonic() < deadline, 'FreeRADIUS did not get %d %s' % (count, status)
        time.sleep(0.1)
    time.sleep(0.3)  # lets the follower print what just arrived before the next step


def normal_day(daemon, server):
    step('a profile for wlan-1-1 over the control socket: Accounting-On')
    daemon.send(records.ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
    wait(server, 'Accounting-On', 1)
    step('three stations log in and the HAL reports their addresses: a Start each')
    for user, mac, ip in STATIONS:
        devsim('station', 'add', '--mac', mac, '--ip', ip, '--rx', 0, '--tx', 0)
        devsim('login', '--user', user, '--mac', mac, '--iface', 'wlan-1-1', '--interim', 60)
        devsim('report', '--mac', mac, '--ip', ip)
    wait(server, 'Start', 3)
    step('the queues now (%s)' % harness.DUMP_FILE)
    print(daemon.dump().rstrip())
    step('traffic: the device counts bytes; Interim-Updates report them')
    for n, (_, mac, ip) in enumerate(STATIONS, 1):
        devsim('station', 'set', '--mac', mac, '--rx', 150000 * n, '--tx', 900000 * n)
    wait(server, 'Interim-Update', 3)
    step('bob leaves first: the driver reports his last counters, then the disassociation')
    devsim('counters', '--mac', STATIONS[1][1], '--iface', 'wlan-1-1', '--tx', 2500000, '--rx', 400000)
    devsim('disassoc', '--mac', STATIONS[1][1], '--iface', 'wlan-1-1')
    wait(server, 'Stop', 1)
    step('alice and carol leave: their Stops carry what the last Interim-Update counted')
    for _, mac, _ in (STATIONS[0], STATIONS[2]):
        devsim('disassoc', '--mac', mac, '--iface', 'wlan-1-1')
    wait(server, 'Stop', 3)
    step('the profile is removed: Accounting-Off')
    daemon.send(records.event(records.EV_REMOVE, 'wlan-1-1'))
    wait(server, 'Accounting-Off', 1)


def large_session(server, user, mac, ip):
    """A session that moves 6.4 GiB up and 9.7 GiB down: the device counts past 4 GiB before its
    Interim-Update, and the driver's counters event before the disassociation gives the Stop's."""
    def count(status):
        return sum(r.get('Acct-Status-Type') == status for r in server.records())
    done = {status: count(status) for status in ('Start', 'Interim-Update', 'Stop')}
    devsim('station', 'add', '--mac', mac, '--ip', ip, '--rx', 0, '--tx', 0)
    devsim('login', '--user', user, '--mac', mac, '--iface', 'wlan-1-1', '--interim', 30)
    devsim('report', '--mac', mac, '--ip', ip)
    wait(server, 'Start', done['Start'] + 1)
    devsim('station', 'set', '--mac', mac, '--rx', int(4.6 * GIB), '--tx', int(6.2 * GIB))
    wait(server, 'Interim-Update', done['Interim-Update'] + 1)
    devsim('counters', '--mac', mac, '--iface', 'wlan-1-1', '--rx', int(6.4 * GIB), '--tx', int(9.7 * GIB))
    devsim('disassoc', '--mac', mac, '--iface', 'wlan-1-1')
    wait(server, 'Stop', done['Stop'] + 1)


def large_sessions(daemon, server):
    """The same large session by default and with meterd -x; returns the daemon that runs last."""
    step('dave moves 6.4 GiB up and 9.7 GiB down. By design a counter past 2 GiB reads as 0 at the '
         'Interim-Update, and the Stop carries the low 32 bits of the driver\'s counters')
    daemon.send(records.ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
    wait(server, 'Accounting-On', 2)
    large_session(server, 'dave', 'aa:bb:cc:00:00:04', '10.0.0.14')
    step('meterd -x (extended accounting): erin moves as much; Gigawords carry the high 32 bits')
    daemon.stop()
    os.unlink(harness.PID_FILE)
    daemon = harness.Meterd(['-d', '-x'], speed=SPEED)
    daemon.start()
    daemon.send(records.ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
    wait(server, 'Accounting-On', 3)
    large_session(server, 'erin', 'aa:bb:cc:00:00:05', '10.0.0.15')
    step('radacct, the table that FreeRADIUS\'s stock SQL accounting keeps in %s/radacct.db: one row a '
         'session, its octets Gigawords << 32 | Octets' % server.dir)
    print('$ sqlite3 -header -column radacct.db "%s"' % RADACCT, flush=True)
    subprocess.run(['sqlite3', '-header', '-column', server.dir + '/radacct.db', RADACCT], check=True)
    return daemon


def cloud_day(daemon, server):
    step('cloud mode: one portal datagram configures wlan-1-1 and wlan-1-2: Accounting-On each')
    devsim('portal', '--entry', 'wlan-1-1', 'host=127.0.0.1,port=1813,secret=' + SECRET + ',interim=5',
           '--entry', 'wlan-1-2', 'host=127.0.0.1,port=1813,secret=' + SECRET)
    wait(server, 'Accounting-On', 2)
    (user, mac, ip), (guest, gmac, gip) = STATIONS[:2]
    step('%s logs in at the portal here: Start at once, with the address the device reports' % user)
    devsim('station', 'add', '--mac', mac, '--ip', ip, '--rx', 1200, '--tx', 3400)
    devsim('uam', '--event', 'login', '--user', user, '--mac', mac, '--iface', 'wlan-1-1', '--ssid', 'Guest')
    wait(server, 'Start', 1)
    step('%s logged in elsewhere (foreign), then associates here and gets an address' % guest)
    devsim('uam', '--event', 'login', '--foreign', '--user', guest, '--mac', gmac, '--iface', 'wlan-1-2',
           '--ssid', 'Guest2')
    devsim('assoc', '--mac', gmac, '--iface', 'wlan-1-2')
    devsim('report', '--mac', gmac, '--ip', gip)
    wait(server, 'Start', 2)
    step('the queues now (%s)' % harness.DUMP_FILE)
    print(daemon.dump().rstrip())
    step('both leave: the driver reports their counters, then the disassociations: a Stop each')
    devsim('counters', '--mac', mac, '--iface', 'wlan-1-1', '--tx', 880000, '--rx', 120000)
    devsim('counters', '--mac', gmac, '--iface', 'wlan-1-2', '--tx', 45000, '--rx', 9000)
    devsim('disassoc', '--mac', mac, '--iface', 'wlan-1-1')
    devsim('disassoc', '--mac', gmac, '--iface', 'wlan-1-2')
    wait(server, 'Stop', 2)


def main():
    cloud = '--cloud' in sys.argv[1:]
    harness.enter_namespace()
    harness.console()
    undo = harness.fresh_dirs()
    if cloud:
        os.makedirs('/tmp/devsim', exist_ok=True)
        with open('/tmp/devsim/hybridmode', 'w') as f:
            f.write('5\n')
    server, daemon = FreeRadius(SECRET, sql=True), harness.Meterd(['-d'], speed=SPEED)
    server.start()
    daemon.start()
    stop = threading.Event()
    threading.Thread(target=follow, args=(server, stop), daemon=True).start()
    try:
        print('FreeRADIUS on 127.0.0.1:1813 (secret "%s"); meterd on the simulated access point, %s mode'
              % (SECRET, 'cloud' if cloud else 'standalone'))
        (cloud_day if cloud else normal_day)(daemon, server)
        if not cloud:
            daemon = large_sessions(daemon, server)
        time.sleep(0.3)
        step('done: every record above is in %s/detail' % server.dir)
    finally:
        stop.set()
        daemon.stop()
        server.stop()
        undo()


if __name__ == '__main__':
    main()
