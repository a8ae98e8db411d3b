#!/usr/bin/python3
"""Runs meterd against a local FreeRADIUS on the simulated access point and
shows what happens, inside a private namespace of its own."""
import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', 'tests', 'system'))
import harness  # noqa: E402

SECRET = 'testing123'


def show(title, text):
    print('\n=== %s ===' % title)
    print(text.rstrip('\n') or '(nothing)')


def last_record(server):
    with open(os.path.join(server.dir, 'detail')) as f:
        return f.read().strip().split('\n\n')[-1]


def main():
    harness.enter_namespace()
    console = harness.console()
    undo = harness.fresh_dirs()
    server, daemon = harness.FreeRadius(SECRET), harness.Meterd(['-d'])
    server.start()
    daemon.start()
    try:
        show('FreeRADIUS', 'listening on 127.0.0.1:1813, client 127.0.0.1, secret "%s"' % SECRET)
        show('meterd -d (stderr)', daemon.stderr())

        mark = len(console.text)
        daemon.send(harness.ev_init('wlan-1-1', '127.0.0.1', 1813, SECRET))
        console.wait_for('Accounting on. Server IP:127.0.0.1\n', mark)
        time.sleep(0.2)
        show('console after event 4 (profile wlan-1-1)', console.text[mark:])
        show('FreeRADIUS detail record of the Accounting-On', last_record(server))

        show('dump (%s)' % harness.DUMP_FILE, daemon.dump())

        mark = len(console.text)
        daemon.send(harness.event(harness.EV_REMOVE, 'wlan-1-1'))
        console.wait_for('free RADIUS profile \n', mark)
        show('console after event 2 (remove wlan-1-1)', console.text[mark:])
        server.wait_records(2)
        show('FreeRADIUS detail record of the Accounting-Off', last_record(server))
        show('dump (%s)' % harness.DUMP_FILE, daemon.dump())
    finally:
        daemon.stop()
        server.stop()
        undo()


if __name__ == '__main__':
    main()
