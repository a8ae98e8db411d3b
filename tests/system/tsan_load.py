#!/usr/bin/python3
"""Every thread of the daemon busy at once, in cloud mode and under ThreadSanitizer: sessions
start, send Interim-Updates (their look-ups by the workers of -l) and stop while profiles come and go on both channels, dumps and
debug switches interleave, portal users log in and out, and the primary of one profile drops
everything, so that retries and failover run too. TSan must report nothing (Meterd.stop checks).

Needs a build with -DMETERD_TSAN=ON: METERD_BUILD_DIR, default build-tsan. Root, like every
system test. METERD_LOAD_SECONDS sets how long the load lasts (default 60)."""
import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor

HERE = os.path.dirname(os.path.abspath(__file__))
os.environ.setdefault('METERD_BUILD_DIR', os.path.join(HERE, '..', '..', 'build-tsan'))
os.environ.setdefault('TSAN_OPTIONS', 'second_deadlock_stack=1')
import harness  # noqa: E402
from freeradius import FreeRadius  # noqa: E402
from harness import Meterd  # noqa: E402
from records import EV_AC_IP_CHANGE, EV_DEBUG_OFF, EV_DEBUG_ON, EV_DUMP, EV_REMOVE, EV_SECRET_CHANGE, event, ev_init  # noqa: E402

SECRET, USERS = 'testing123', 16
SECONDS = float(os.environ.get('METERD_LOAD_SECONDS', 60))
devsim = harness.tool('devsim')


mac = '02:00:00:00:01:%02x'.__mod__


class TsanLoad(harness.SystemTest):

    def test_all_threads_at_once(self):
        harness.hybrid_mode('5\n')
        for i in range(USERS):
            devsim('station', 'add', '--mac', mac(i), '--ip', '10.0.1.%d' % (i + 1), '--rx', 1000 + i, '--tx', 2000)
        server = self.start(FreeRadius(SECRET))
        silent = self.start(harness.Peer(SECRET, default='drop'))
        daemon = self.start(Meterd(['-d', '-l']))  # -l: the look-up workers too
        daemon.send(ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        daemon.send(ev_init('wlan-1-2', '127.0.0.1', silent.port, SECRET, '127.0.0.1', 1813, SECRET))
        stop_at = time.monotonic() + SECONDS

        def stations(n):  # login, report, counters, disassociation: thread 4, then 2 and 1
            i = n % USERS
            devsim('login', '--user', 'u%d' % i, '--mac', mac(i), '--iface', 'wlan-1-%d' % (1 + i % 2), '--interim', 3)
            devsim('report', '--mac', mac(i), '--ip', '10.0.1.%d' % (i + 1))
            if n >= USERS:  # the oldest session of the next station goes
                j = (n + 1) % USERS
                devsim('counters', '--mac', mac(j), '--iface', 'wlan-1-%d' % (1 + j % 2), '--tx', n, '--rx', n,
                       '--then', 'disassoc', '--mac', mac(j), '--iface', 'wlan-1-%d' % (1 + j % 2))

        def control(n):  # thread 3: dumps, debug switches, a profile that comes and goes
            daemon.send(event(EV_DUMP))
            daemon.send(event((EV_DEBUG_OFF, EV_DEBUG_ON)[n % 2]))
            if n % 2 == 0:
                daemon.send(event(EV_REMOVE, 'wlan-1-5') if n % 4 else ev_init('wlan-1-5', '127.0.0.1', 1813, SECRET))
            daemon.send(event((EV_AC_IP_CHANGE, EV_SECRET_CHANGE)[n % 2], '127.0.0.9', SECRET))
            time.sleep(0.05)

        def cloud(n):  # threads 6 and 5: portal profiles, portal logins, associations
            if n % 20 == 0:
                devsim('portal', '--entry', 'wlan-1-3', 'host=127.0.0.1,secret=%s,interim=1' % SECRET,
                       '--entry', 'wlan-1-4', 'host=127.0.0.1,port=%d,secret=%s,backup=127.0.0.1,backup-secret=%s'
                       % (silent.port, SECRET, SECRET))
            i = n % USERS
            iface = 'wlan-1-%d' % (3 + i % 2)
            devsim('uam', '--event', ('login', 'logout')[n // USERS % 2], '--user', 'p%d' % i, '--mac', mac(i),
                   '--iface', iface, *['--foreign'] * (i % 3 == 0))
            devsim('assoc', '--mac', mac(i), '--iface', iface)

        def loop(work):  # until the load ends; what it raises comes out of result()
            n = 0
            while time.monotonic() < stop_at:
                work(n)
                n += 1

        with ThreadPoolExecutor() as pool:
            for worker in [pool.submit(loop, work) for work in (stations, control, cloud)]:
                worker.result()
        time.sleep(6)  # the last answers and time-outs
        records = server.wait_records(1)
        kinds = {r.get('Acct-Status-Type') for r in records}
        self.assertTrue({'Start', 'Interim-Update', 'Stop', 'Accounting-On', 'Accounting-Off'} <= kinds, kinds)
        print('\n%d records at the server, %d datagrams at the silent primary' % (len(records), len(silent.received)),
              file=sys.stderr)


if __name__ == '__main__':
    harness.main()
