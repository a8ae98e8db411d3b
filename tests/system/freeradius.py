"""FreeRADIUS as the daemon's accounting server, for the system tests, the bench and the soak: a
configuration of its own (one client, 127.0.0.1), started in the foreground, every accounting
request it accepts written by its accounting modules. The detail module is always there, as the
record that the tests read. Further modules come in as stanzas of `modules` and names in
`accounting`: the stock SQL module into SQLite, for one, is a `sql` stanza (driver rlm_sql_sqlite,
its sqlite filename and the packaged schema as bootstrap, the table names, and an $INCLUDE of the
packaged sqlite queries.conf) beside `expr {}`, which those queries call, with 'sql' in accounting."""
import os
import re

import harness

# Items of a section may share a line, separated by commas; a module named
# in a processing section needs a line of its own.
_RADIUSD_CONF = '''
client meterd {{ ipaddr = 127.0.0.1, secret = {secret} }}
modules {{
{modules}
}}
server default {{
	listen {{ type = acct, ipaddr = 127.0.0.1, port = {port} }}
	accounting {{
{accounting}
	}}
}}
'''


class FreeRadius:
    """FreeRADIUS on 127.0.0.1:port, its files in self.dir. `modules` maps the name of each further
    module to its configuration, in which {dir} stands for self.dir; `accounting` names the modules
    that record each request, in order."""

    def __init__(self, secret, port=1813, modules=None, accounting=('detail',)):
        self.secret, self.port, self.dir = secret, port, '/tmp/freeradius-%d' % port
        self.modules = dict(detail='detail { filename = {dir}/detail }', **(modules or {}))
        self.accounting = accounting
        self.log_path, self.proc = self.dir + '/log', None

    def config(self):
        return _RADIUSD_CONF.format(
            secret=self.secret, port=self.port,
            modules='\n'.join('\t' + text.replace('{dir}', self.dir) for text in self.modules.values()),
            accounting='\n'.join('\t\t' + name for name in self.accounting))

    def start(self):
        os.makedirs(self.dir, exist_ok=True)
        with open(os.path.join(self.dir, 'radiusd.conf'), 'w') as f:
            f.write(self.config())
        harness._spawn(self, ['freeradius', '-f', '-d', self.dir, '-l', '/dev/stderr'], self.log_path,
                       lambda: 'Ready to process' in harness.read_file(self.log_path))

    def stop(self):
        # Also once more after a test stopped it.
        if self.proc and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(10)

    def records(self):
        # Every finished detail record as {attribute: value}, without Timestamp.
        blocks = harness.read_file(self.dir + '/detail').split('\n\n')[:-1]  # the last one may be unfinished
        return [dict(re.findall(r'^\t(?!Timestamp)(\S+) = "?(.*?)"?$', b, re.M)) for b in blocks]

    def wait_records(self, n, timeout=10):
        # Waits for `n` records; returns all.
        def enough():
            recs = self.records()
            return len(recs) >= n and recs
        return harness._poll(enough, timeout,
                             lambda: 'fewer than %d records; log:\n%s' % (n, harness.read_file(self.log_path)))
