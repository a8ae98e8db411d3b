"""Turns the figures of bench.py into bench/results.md, bench/results.png and the printed table."""
import os
import statistics
import time

BENCH = os.path.dirname(os.path.abspath(__file__))
PIPELINE = 'shell pipeline for the address (`ovat | grep | awk` through popen), by design'
REQUESTS = (  # kind, label, short label, whether the children's CPU (the shell pipeline) counts
    ('Accounting-On', 'Accounting-On (control datagram)', 'On', False),
    ('Accounting-Off', 'Accounting-Off (control datagram)', 'Off', False),
    ('Start', 'Start (login record, address report, answer)', 'Start', False),
    ('Interim-Update', 'Interim-Update, daemon threads (popen and pclose included)', 'Interim\n(threads)', False),
    ('Interim-Update', 'Interim-Update with its ' + PIPELINE, 'Interim\n+ pipeline', True),
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


def write(results, binary, n_radclient):
    """results: {mode: (rounds, storms, memory)} for 'default' and 'extended' (meterd -x)."""
    (rounds, storms, mem), (xrounds, xstorms, xmem) = results['default'], results['extended']
    per_session = [per_idle_session(m) for m in (mem, xmem)]
    held = [statistics.median(r['held'] for r in rs) * 1000 for rs in (rounds, xrounds)]
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
    lines += ['', 'Each Interim-Update holds the lock for its look-ups (by design): %.1f ms (meterd -x: %.1f ms), '
              'the median gap between two answers within a scheduler pass, during which every other thread '
              'waits.' % tuple(held),
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
    text = '\n'.join(lines)
    with open(os.path.join(BENCH, 'results.md'), 'w') as f:
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
                         ('Interim\n+ pipeline', 'CPU per Interim-Update, with its shell pipeline (by design)')):
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
