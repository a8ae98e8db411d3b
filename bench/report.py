"""Turns the figures of bench.py into bench/results.md, bench/results.png and the printed table."""
import json
import math
import os
import statistics
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
RESULTS, CAPACITY = os.path.join(BENCH, 'results.md'), os.path.join(BENCH, 'capacity.json')
# What follows this line in results.md was written by hand, and each run carries it over.
KEPT = '<!-- written by hand below: carried over by bench/run -->'
CAPACITY_BEGIN, CAPACITY_END = '<!-- capacity -->', '<!-- end of capacity -->'
PIPELINE = 'shell pipeline for the address (`ovat | grep | awk` through popen), by design'
REQUESTS = (  # kind, label, short label, whether the children's CPU (the shell pipeline) counts
    ('Accounting-On', 'Accounting-On (control datagram)', 'On', False),
    ('Accounting-Off', 'Accounting-Off (control datagram)', 'Off', False),
    ('Start', 'Start (login record, address report, answer)', 'Start', False),
    ('Interim-Update', 'Interim-Update, daemon threads (starting and reaping the look-ups\' children included)',
     'Interim\n(threads)', False),
    ('Interim-Update', 'Interim-Update with its look-ups\' children: meterd\'s ' + PIPELINE + '; meterd -x\'s '
     '`ovat` alone (-l)', 'Interim\n+ children', True),
    ('Stop', 'Stop (driver disassociation on netlink)', 'Stop', False),
)


def cpu_rows(rounds):
    """(label, short label, meterd us, radclient us, median of the rounds' ratios) per request."""
    rows = []
    for kind, label, short, children in REQUESTS:
        mine = [(r[kind][0] + (r[kind][1] if children else 0)) / 1000 for r in rounds]
        theirs = [r[kind][2] / 1000 for r in rounds]
        ratio = statistics.median(m / t for m, t in zip(mine, theirs))
        rows.append((label, short, statistics.median(mine), statistics.median(theirs), ratio))
    return rows


def storm_label(s):
    how = 'all at once' if not s['spread'] else 'over %g s' % s['spread']
    if s['delay']:
        how += ', answers held 0-%g s by a relay, so out of order' % s['delay']
    return '%d stations, %s' % (s['stations'], how)


def verdict(ok):
    return 'met' if ok else 'not met'


def write(results, binary, n_radclient, n_session):
    """results: {mode: (rounds, storms, memory)} for 'default' and 'extended' (meterd -x)."""
    (rounds, storms, mem), (xrounds, xstorms, xmem) = results['default'], results['extended']
    per_session = [per_idle_session(m) for m in (mem, xmem)]
    held = [statistics.median(r['held'] for r in rs) * 1000 for rs in (rounds, xrounds)]
    longest = [statistics.median(r['longest'] for r in rs) * 1000 for rs in (rounds, xrounds)]
    gap = [statistics.median(r['gap'] for r in rs) * 1000 for rs in (rounds, xrounds)]
    lines = ['# meterd benchmark', '',
             'Written by `bench/run` on %s: Release build on the simulated access point, FreeRADIUS and '
             'radclient 3.2 on the loopback of a private network namespace. Every figure in both modes: the '
             "design's (`meterd`, the default) and extended accounting (`meterd -x`)." % time.strftime('%Y-%m-%d'),
             '', '## CPU per answered request', '',
             'On-CPU time of every meterd thread (`/proc/PID/task/*/schedstat`) and of its reaped children '
             '(`/proc/PID/stat`, clock ticks), per request. radclient (freeradius-utils) sends the same request '
             'one at a time with `-c %d`; its own CPU (`wait4`), less that of a `-c 1` run (its start-up), '
             'divided by %d. Medians of %d rounds, each beside its comparison (in extended mode the packets of '
             'extended mode).' % (n_radclient, n_radclient - 1, len(rounds)), '',
             '| Request | meterd µs | meterd -x µs | radclient µs | meterd / radclient | meterd -x / radclient '
             '| goal ≤ 1/3 |', '|---|---:|---:|---:|---:|---:|---|']
    for (label, _, mine, theirs, ratio), (_, _, xmine, _, xratio) in zip(cpu_rows(rounds), cpu_rows(xrounds)):
        by_design = ', by design' if 'by design' in label else ''
        lines.append('| %s | %.0f | %.0f | %.0f | %.2f | %.2f | %s%s |' % (
            label, mine, xmine, theirs, ratio, xratio, verdict(max(ratio, xratio) <= 1 / 3), by_design))
    interim = [next(r for r in cpu_rows(rs) if r[1] == 'Interim\n+ children')[2] / 1000 for rs in (rounds, xrounds)]
    lines += ['', '## The Interim-Update: CPU and the lock', '',
              '| | meterd | meterd -x | goal with -x |', '|---|---:|---:|---|',
              '| CPU per Interim-Update with its look-ups\' children (from the table above) | %.3f ms | %.3f ms '
              '| ≤ 1 ms: %s |' % (interim[0], interim[1], verdict(interim[1] <= 1)),
              '| Lock held per Interim-Update (all holds of all threads while the round\'s updates went out and '
              'were answered, divided by them) | %.3f ms | %.3f ms | ≤ 0.1 ms: %s |' % (
                  held[0], held[1], verdict(held[1] <= 0.1)),
              '| Longest single hold meanwhile (the scheduler\'s pass holds the lock from its first due update '
              'to its last) | %.1f ms | %.1f ms | |' % tuple(longest),
              '| Gap between two answers within a pass (the measure before) | %.3f ms | %.3f ms | |' % tuple(gap),
              '', 'The lock is timed inside the daemon: `bench/lockstat.cc`, preloaded into meterd alone '
              '(`LD_PRELOAD`, taken out of its children\'s environment), stands in for `pthread_mutex_lock`, '
              '`_trylock`, `_unlock` and the condition waits on the one global `mutex` (found by its symbol) '
              'and keeps the time from each acquisition to its release, in a file that bench.py reads before '
              'and after each round\'s %d Interim-Updates. Medians of the rounds. The gap between two answers '
              'within a pass, the measure before, is the same figure while a pass runs the look-ups under the '
              'lock one after the other; once they run outside it, it times the look-ups and no longer the '
              'lock.' % n_session,
              '', '## A storm of logins after a restart', '',
              'A fresh daemon with one profile; each station sends its login record and then its address '
              'report. The time from the last login record to the last Start answered; the Starts sent again '
              'because an older request still held their 8-bit Identifier (by design: past 256 in flight it '
              'repeats, and the linear walk of the request queue matches an answer to the oldest request of '
              'that Identifier; with -x a Start waits for a free Identifier instead), and when those were '
              'answered; CPU of all threads per Start.', '',
              '| Storm | meterd | last Start answered after the last login | Starts sent again | those answered '
              'after (median, max) | CPU per Start µs | goal |',
              '|---|---|---:|---:|---|---:|---|']
    for s, options in [(s, '') for s in storms] + [(s, '-x') for s in xstorms]:
        late = ('%.1f s, %.1f s' % (statistics.median(s['late']), max(s['late']))) if s['late'] else '–'
        lines.append('| %s | %s | %.3f s | %d | %s | %.0f | %s |' % (
            storm_label(s), options or 'default', s['last'], s['sent_again'], late, s['cpu'] / 1000,
            storm_goal(s, options)))
    lines += ['', '## Memory per idle session', '',
              'VmRSS above the empty daemon with its profile, divided by the sessions: started, answered, '
              'waiting for an Interim-Update a day ahead.', '',
              '| Idle sessions | VmRSS kB | per session, bytes | meterd -x: VmRSS kB | per session, bytes '
              '| goal ≤ 1.0 KB at 50,000 |', '|---:|---:|---:|---:|---:|---|',
              '| 0 | %d | | %d | | |' % (mem[0], xmem[0])]
    last = max(n for n, _ in mem[1])
    for (n, rss), (_, b), (_, xrss), (_, xb) in zip(mem[1], per_session[0], xmem[1], per_session[1]):
        goal = verdict(max(b, xb) <= 1024) if n == last else ''
        lines.append('| {:,} | {} | {:.0f} | {} | {:.0f} | {} |'.format(n, rss, b, xrss, xb, goal))
    whole = [dict(m[1]).get(10000) for m in (mem, xmem)]
    if all(whole):
        lines += ['', 'The whole daemon with 10,000 idle sessions: {:,} kB, {:.0f} bytes per session '
                  '(meterd -x: {:,} kB, {:.0f} bytes).'.format(whole[0], whole[0] * 1024 / 10000,
                                                               whole[1], whole[1] * 1024 / 10000)]
    lines += ['', '## Size', '', '| C library | stripped meterd | shared libraries it needs (readelf -d) |',
              '|---|---:|---|']
    lines += ['| {} | {:,} bytes | {} |'.format(libc, size, ', '.join(needed) or 'none')
              for libc, size, needed in binary] + ['']
    lines += capacity_lines()
    kept = read_results().partition(KEPT)[2]
    text = '\n'.join(lines) + ('\n' + KEPT + kept if kept else '')
    with open(RESULTS, 'w') as f:
        f.write(text)
    plot(rounds, xrounds, per_session)
    readme(rounds, storms, xstorms, per_session, binary)
    print(text)


def per_idle_session(mem):
    empty, points = mem
    return [(n, (rss - empty) * 1024 / n) for n, rss in points]


def storm_goal(s, options):
    # 200 logins: the last Start answered within 3 s, in both modes. 500 logins with answers out of
    # order, meterd -x: every Start answered within 1 s and none sent again.
    if s['stations'] == 200:
        return 'within 3 s: ' + verdict(s['last'] <= 3)
    if options and s['delay']:
        return 'within 1 s, none again: ' + verdict(s['last'] <= 1 and s['sent_again'] == 0)
    return ''


def readme(rounds, storms, xstorms, per_session, binary):
    """The short table of the README, between its two markers."""
    rows = {r[1]: r for r in cpu_rows(rounds)}
    storm = next(s for s in storms if s['stations'] == 200)
    out_of_order = [next(s for s in ss if s['delay']) for ss in (storms, xstorms)]
    (n, b), (_, xb) = per_session[0][-1], per_session[1][-1]
    table = ['| Figure | meterd | radclient | goal |', '|---|---:|---:|---|']
    for short, label in (('On', 'CPU per Accounting-On'), ('Start', 'CPU per Start'), ('Stop', 'CPU per Stop'),
                         ('Interim\n+ children', 'CPU per Interim-Update, with its shell pipeline (by design)')):
        _, _, mine, theirs, ratio = rows[short]
        table.append('| %s | %.0f µs | %.0f µs | ≤ 1/3 of radclient: %s (%.2f) |' % (
            label, mine, theirs, verdict(ratio <= 1 / 3), ratio))
    table += ['| Storm of 200 logins: last Start answered after the last login | %.3f s | | ≤ 3 s: %s |'
              % (storm['last'], verdict(storm['last'] <= 3)),
              '| Storm of 500 logins, answers out of order: last Start answered, Starts sent again | %.3f s, %d | | |'
              % (out_of_order[0]['last'], out_of_order[0]['sent_again']),
              '| The same with `meterd -x` | %.3f s, %d | | ≤ 1 s, none: %s |'
              % (out_of_order[1]['last'], out_of_order[1]['sent_again'],
                 verdict(out_of_order[1]['last'] <= 1 and out_of_order[1]['sent_again'] == 0)),
              '| Memory per idle session at {:,} sessions | {:.0f} bytes | | ≤ 1.0 KB: {} |'.format(
                  n, b, verdict(b <= 1024)),
              '| The same with `meterd -x` | {:.0f} bytes | | ≤ 1.0 KB: {} |'.format(xb, verdict(xb <= 1024)),
              '| Stripped size, shared libraries | {:,} bytes, {} | | |'.format(binary[0][1], ', '.join(binary[0][2])),
              '| Stripped size, static against musl | {:,} bytes | | |'.format(binary[1][1])]
    path = os.path.join(os.path.dirname(BENCH), 'README.md')
    with open(path) as f:
        text = f.read()
    begin, end = '<!-- bench results -->\n', '<!-- end of bench results -->'
    if begin in text and end in text:
        head, rest = text.split(begin, 1)
        with open(path, 'w') as f:
            f.write(head + begin + '\n'.join(table) + '\n' + end + rest.split(end, 1)[1])


def plot(rounds, xrounds, per_session):
    import matplotlib
    matplotlib.use('Agg')
    import matplotlib.pyplot as plt
    fig, (mem, cpu) = plt.subplots(1, 2, figsize=(12, 4.6), gridspec_kw={'width_ratios': [1, 1.5]})
    for points, name, color, above in ((per_session[0], 'meterd', 'tab:blue', 8),
                                       (per_session[1], 'meterd -x', 'tab:green', -14)):
        xs, ys = zip(*points)
        mem.plot(xs, ys, 'o-', color=color, label=name)
        for x, y in points:
            mem.annotate('%.0f B' % y, (x, y), textcoords='offset points', xytext=(0, above), ha='center',
                         color=color)
    mem.axhline(1024, color='tab:red', ls='--', label='goal: 1.0 KB')
    mem.set_xscale('log')
    mem.margins(x=0.12)
    mem.set_xticks(xs, ['{:,}'.format(x) for x in xs])
    mem.set_ylim(0, 1300)
    mem.set_xlabel('idle sessions')
    mem.set_ylabel('VmRSS per session, bytes')
    mem.set_title('Memory per idle session')
    mem.legend(loc='lower left')
    rows, xrows = cpu_rows(rounds), cpu_rows(xrounds)
    at = range(len(rows))
    for offset, values, name, color in ((-0.27, [r[2] for r in rows], 'meterd', 'tab:blue'),
                                        (0, [r[2] for r in xrows], 'meterd -x', 'tab:green'),
                                        (0.27, [r[3] for r in rows], 'radclient', 'tab:gray')):
        bars = cpu.bar([i + offset for i in at], values, 0.27, label=name, color=color)
        cpu.bar_label(bars, fmt='%.0f', fontsize=7)
    cpu.scatter(at, [r[3] / 3 for r in rows], marker='_', s=400, color='tab:red', zorder=3,
                label='goal: 1/3 of radclient')
    cpu.set_yscale('log')
    cpu.set_ylim(top=max(r[2] for r in rows + xrows) * 3)
    cpu.set_xticks(list(at), [r[1] for r in rows])
    cpu.set_ylabel('CPU µs per answered request (log)')
    cpu.set_title('CPU per request against radclient (the pipeline is by design)')
    cpu.legend(loc='upper left')
    fig.tight_layout()
    fig.savefig(os.path.join(BENCH, 'results.png'), dpi=100)


def read_results():
    if not os.path.exists(RESULTS):
        return ''
    with open(RESULTS) as f:
        return f.read()


LABELS = {'default': 'meterd', 'x': 'meterd -x', 'l': 'meterd -l', 'x-lean': 'meterd -x, lean device',
          'l-lean': 'meterd -l, lean device'}


def seconds(x, fmt='%.2f s'):
    return '–' if x is None else 'none' if x == math.inf else fmt % x


def capacity_lines():
    """The capacity section of results.md, from bench/capacity.json (bench/capacity.py), between its
    markers; nothing before its first run."""
    if not os.path.exists(CAPACITY):
        return []
    with open(CAPACITY) as f:
        modes = json.load(f)['modes']
    lines = [CAPACITY_BEGIN, '## Capacity of one core', '',
             'Written by `bench/run --capacity`: N stations log in within one second (paced over 0.8 s, each a '
             'login record and its address report) with a 60-second interim interval, so that their '
             'Interim-Updates fall due together. The daemon runs pinned to core 0 (`sched_setaffinity` on every '
             'thread, which its look-ups\' children inherit), FreeRADIUS (detail file only, no SQL, a 4 MiB socket '
             'buffer) and the load generator on core 1. The due second of each session is the daemon\'s own '
             '(`report_time` of its interim queue, from a dump); its arrival is the kernel\'s time of the '
             'datagram on the loopback on its way into FreeRADIUS (a packet socket). The scheduler runs a pass '
             'every 3 s, by design: the daemon is started so that its passes come late in their second (0.7 to '
             '0.97) and the logins are timed so that their updates fall due just after a pass, the worst case, '
             'in which every update first waits 2.7 to 3 s for the next pass. N passes when every update arrives '
             'within 5 s of its due second. Search: doubling from the first N, halving while it fails, then '
             'bisection to within an eighth, at most 5 runs a mode (6 for a lean one, which begins at 10,000). During the pass a new station logs in every '
             '50 ms until the last update has arrived: the time from its login record to its Start\'s answer '
             'at the daemon.', '',
             '| meterd | largest N within 5 s | smallest N that failed | at N: Interim-Update delay max, p99 '
             '| at N: Start during the pass, max (median, Starts) | goal | measured |',
             '|---|---:|---:|---|---|---|---|']
    for mode, m in modes.items():
        best = next((r for r in m['runs'] if r['n'] == m['capacity'] and r['ok']), None)
        delays = '%s, %s' % (seconds(best['max']), seconds(best['p99'])) if best else '–'
        start = '%s (%s, %d)' % (seconds(best['start_max'], '%.3f s'), seconds(best['start_median'], '%.3f s'),
                                 best['probes']) if best else '–'
        goal = ''
        if mode != 'default':
            # The Start's goal holds at every N tried, the largest above all.
            starts = [r['start_max'] for r in m['runs'] if r['start_max'] is not None]
            goal = 'N ≥ 10,000: %s; Start ≤ 100 ms at every N tried (up to {:,}): %s'.format(
                max(r['n'] for r in m['runs'])) % (verdict(bool(best) and best['n'] >= 10000),
                                                    verdict(bool(starts) and max(starts) <= 0.1))
        lines.append('| %s | %s | %s | %s | %s | %s | %s, load %.2f |' % (
            LABELS.get(mode, mode), '{:,}'.format(m['capacity']) if m['capacity'] else 'none tried',
            '{:,}'.format(m['failed_at']) if m['failed_at'] else '–', delays, start, goal, m['date'],
            statistics.median(r['load'][0] for r in m['runs'])))
    lines += ['', 'Every run: the delays from due second to arrival; the wait for the pass that serves the '
              'earliest due second; the pass, from the first update\'s arrival to the last; how long the logins '
              'took to send and over how long their Starts reached FreeRADIUS; CPU in the pass (from 1 s before '
              'the due second to 1 s after the last arrival) of the daemon with its children, and of FreeRADIUS; '
              'datagrams that FreeRADIUS\'s full socket buffer dropped (the packet socket saw them, FreeRADIUS did not: '
              'the run fails); the load average before the run.', '',
              '| meterd | N | within 5 s | max | p99 | wait for the pass | pass | Start during the pass, max '
              '| logins sent in | Starts over | CPU daemon, FreeRADIUS | drops | load |',
              '|---|---:|---|---:|---:|---:|---:|---:|---:|---:|---|---:|---:|']
    for mode, m in modes.items():
        for r in m['runs']:
            lines.append('| %s | {:,} | %s | %s | %s | %.2f s | %.2f s | %s | %.2f s | %.2f s | %.1f s, %.1f s | %d '
                         '| %.2f |'.format(r['n']) % (
                             LABELS.get(mode, mode),
                             'yes' if r['ok'] else 'no' + (' (%d missing)' % r['missing'] if r['missing'] else ''),
                             seconds(r['max']), seconds(r['p99']),
                             r['wait_for_pass'], r['pass'], seconds(r['start_max'], '%.3f s'), r['logins_took'],
                             r['starts_spread'], r['daemon_cpu'], r['server_cpu'], r['drops'], r['load'][0]))
    return lines + ['', CAPACITY_END]


def update_capacity():
    """Puts the capacity section into results.md in place of the one there, or before the part written
    by hand, or at its end."""
    text, section = read_results(), '\n'.join(capacity_lines())
    if CAPACITY_BEGIN in text and CAPACITY_END in text:
        head, rest = text.split(CAPACITY_BEGIN, 1)
        text = head + section + rest.split(CAPACITY_END, 1)[1]
    elif KEPT in text:
        head, kept = text.split(KEPT, 1)
        text = head + section + '\n\n' + KEPT + kept
    else:
        text = text.rstrip('\n') + '\n\n' + section + '\n'
    with open(RESULTS, 'w') as f:
        f.write(text)
    print(section)
