"""FreeRADIUS as the daemon's accounting server, for the system tests, the bench and the soak: a
configuration of its own (one client, 127.0.0.1), started in the foreground, every accounting
request it accepts written by its accounting modules. The detail module is always there, as the
record that the tests read. Further modules come in as stanzas of `modules` and names in
`accounting`. `sql=True` adds the package's own SQL accounting into SQLite: its rlm_sql stanza,
schema and queries as installed, the radacct table in self.dir/radacct.db."""
import os
import re
import sqlite3

import harness

# Items of a section may share a line, separated by commas; a module named
# in a processing section needs a line of its own.
_RADIUSD_CONF = '''
{head}
client meterd {{ ipaddr = 127.0.0.1, secret = {secret} }}
modules {{
{modules}
}}
server default {{
	listen {{ type = acct, ipaddr = 127.0.0.1, port = {port} }}
{preacct}
	accounting {{
{accounting}
	}}
}}
'''
STOCK = '/etc/freeradius/3.0'
# What the stock sql module needs of the stock radiusd.conf: where its queries and schema are, the
# thread pool that sizes its connection pool (FreeRADIUS's own defaults), and the policy that gives
# each session the Acct-Unique-Session-Id that its radacct row is keyed on.
_SQL_HEAD = '''modconfdir = %s/mods-config
thread pool { start_servers = 5, max_servers = 32, min_spare_servers = 3, max_spare_servers = 10 }
policy {
$INCLUDE %s/policy.d/accounting
}''' % (STOCK, STOCK)
_SQL_PREACCT = '\tpreacct {\n\t\tacct_unique\n\t}'


def _sql_module():
    # The package's rlm_sql stanza with the sqlite driver in place of rlm_sql_null, into our file;
    # before it rlm_expr, whose %{md5:} and %{tolower:} the policy and the queries call.
    text = harness.read_file(STOCK + '/mods-available/sql')
    text = text.replace('driver = "rlm_sql_null"', 'driver = "rlm_sql_${dialect}"')
    text = text.replace('filename = "/tmp/freeradius.db"', 'filename = "{dir}/radacct.db"')
    return '$INCLUDE %s/mods-available/expr\n%s' % (STOCK, text)


class FreeRadius:
    """FreeRADIUS on 127.0.0.1:port, its files in self.dir. `modules` maps the name of each further
    module to its configuration, in which {dir} stands for self.dir; `accounting` names the modules
    that record each request, in order."""

    def __init__(self, secret, port=1813, modules=None, accounting=('detail',), sql=False):
        self.secret, self.port, self.dir, self.sql = secret, port, '/tmp/freeradius-%d' % port, sql
        self.modules = dict(detail='detail { filename = {dir}/detail }', **(modules or {}))
        self.accounting = tuple(accounting)
        if sql:  # ahead of detail: a test that has waited for a record finds its row
            self.modules = dict(sql=_sql_module(), **self.modules)
            self.accounting = ('sql',) + self.accounting
        self.log_path, self.proc = self.dir + '/log', None

    def config(self):
        return _RADIUSD_CONF.format(
            secret=self.secret, port=self.port, head=_SQL_HEAD if self.sql else '',
            preacct=_SQL_PREACCT if self.sql else '',
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

    def radacct(self):
        # The rows of the radacct table (sql=True) as {column: value}, oldest first.
        db = sqlite3.connect(self.dir + '/radacct.db', timeout=5)
        db.row_factory = sqlite3.Row
        try:
            return [dict(r) for r in db.execute('SELECT * FROM radacct ORDER BY radacctid')]
        finally:
            db.close()
