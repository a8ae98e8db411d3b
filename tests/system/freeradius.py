"""FreeRADIUS as the daemon's accounting server, for the system tests, the bench and the soak: a
configuration of its own (one client, 127.0.0.1), started in the foreground, every accounting
request it accepts written by its detail module, the record that the tests read. `sql=True` adds the package's own SQL accounting into SQLite: its rlm_sql stanza,
schema and queries as installed, the radacct table in self.dir/radacct.db. `tls=Certs(...)` adds a
TLS listener on TCP port 2083 beside the UDP one, modelled on the package's sites-available/tls."""
import os
import re
import sqlite3
import subprocess

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
{tls_listen}
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
_THREADS = 'thread pool { start_servers = 5, max_servers = 32, min_spare_servers = 3, max_spare_servers = 10 }'
_SQL_HEAD = '''modconfdir = %s/mods-config
%s
policy {
$INCLUDE %s/policy.d/accounting
}''' % (STOCK, _THREADS, STOCK)
_SQL_PREACCT = '\tpreacct {\n\t\tacct_unique\n\t}'
# The stock TLS site's listener and client, for accounting alone: our certificate, key and CA, the
# client's certificate required. A TLS listener refuses to start without the thread pool. Its 1.2 by default is the most FreeRADIUS 3.2 offers unless
# tls_max_version says 1.3. Any address, so that a test may connect to another one than the
# certificate names; the client is still the one at 127.0.0.1.
_TLS_HEAD = '''clients radsec {
	client meterd-tls { ipaddr = 127.0.0.1, proto = tls, secret = radsec }
}'''
_TLS_LISTEN = '''	listen {
		type = acct
		ipaddr = %s
		port = 2083
		proto = tcp
		clients = radsec
		limit { max_connections = 16, lifetime = 0, idle_timeout = 30 }
		tls {
			certificate_file = %s
			private_key_file = %s
			ca_file = %s
			require_client_cert = yes
			tls_min_version = "1.2"
			tls_max_version = "1.3"
		}
	}'''


class Certs:
    """The certificates of the TLS tests, made with the openssl command in `dir`: a CA; signed by it
    the server's (subjectAltName IP:127.0.0.1 and DNS radius.test), an expired one with the same
    names, and the client's; and from a CA that nobody trusts, a server's and a client's with the same
    names. self.pair(name) is its certificate and key file; the keys are readable by root alone."""
    def __init__(self, dir):
        self.dir, server = dir, 'IP:127.0.0.1,DNS:radius.test'
        os.makedirs(dir, exist_ok=True)
        # (name, its CA or None for a CA, subjectAltName, its days and faketime's shift of the clock)
        for name, ca, names, days, shift in (
                ('ca', None, '', 30, None), ('rogue-ca', None, '', 30, None), ('server', 'ca', server, 30, None),
                ('expired', 'ca', server, 10, '-30d'),  # valid for ten days that ended twenty days ago
                ('client', 'ca', 'DNS:ap.test', 30, None), ('rogue', 'rogue-ca', server, 30, None),
                ('rogue-client', 'rogue-ca', 'DNS:ap.test', 30, None)):
            # P-256: quick to make, and what a device's own key would be.
            self._openssl('genpkey', '-algorithm', 'EC', '-pkeyopt', 'ec_paramgen_curve:P-256', '-out', name + '.key')
            os.chmod(self.pair(name)[1], 0o600)
            if not ca:
                self._openssl('req', '-x509', '-new', '-key', name + '.key', '-out', name + '.pem', '-days', '30',
                              '-subj', '/O=meterd tests/CN=%s' % name)
                continue
            self._openssl('req', '-new', '-key', name + '.key', '-out', name + '.csr', '-subj', '/CN=%s' % name)
            with open(os.path.join(dir, name + '.ext'), 'w') as f:
                f.write('subjectAltName = %s\nextendedKeyUsage = serverAuth, clientAuth\n' % names)
            self._openssl('x509', '-req', '-in', name + '.csr', '-CA', ca + '.pem', '-CAkey', ca + '.key',
                          '-CAcreateserial', '-days', str(days), '-extfile', name + '.ext', '-out', name + '.pem',
                          shift=shift)

    def pair(self, name):
        return '%s/%s.pem' % (self.dir, name), '%s/%s.key' % (self.dir, name)

    def _openssl(self, *args, shift=None):
        # Under faketime it fails now and then on a loaded machine: tried again, its words kept.
        for _ in range(3):
            result = subprocess.run((['faketime', '-f', shift] if shift else []) + ['openssl', *args],
                                    capture_output=True, cwd=self.dir)
            if result.returncode == 0:
                return
        raise AssertionError('openssl %s: %s' % (' '.join(args), result.stderr.decode(errors='replace')))


def _sql_module():
    # The package's rlm_sql stanza with the sqlite driver in place of rlm_sql_null, into our file;
    # before it rlm_expr, whose %{md5:} and %{tolower:} the policy and the queries call.
    text = harness.read_file(STOCK + '/mods-available/sql')
    text = text.replace('driver = "rlm_sql_null"', 'driver = "rlm_sql_${dialect}"')
    text = text.replace('filename = "/tmp/freeradius.db"', 'filename = "{dir}/radacct.db"')
    return '$INCLUDE %s/mods-available/expr\n%s' % (STOCK, text)


class FreeRadius:
    """FreeRADIUS on 127.0.0.1:port, its files in self.dir."""

    def __init__(self, secret, port=1813, sql=False, tls=None, tls_cert='server', status_server=True,
                 tls_address='*'):
        # tls: a Certs; the listener, on TCP port 2083 of tls_address with the secret 'radsec', shows
        # its certificate `tls_cert` and trusts the CA 'ca'.
        # status_server=False: Status-Server is ignored, as by a server that knows nothing of it.
        self.secret, self.port, self.dir, self.sql = secret, port, '/tmp/freeradius-%d' % port, sql
        self.status_server, self.tls, self.tls_cert, self.tls_address = status_server, tls, tls_cert, tls_address
        self.log_path, self.proc = self.dir + '/log', None

    def config(self):
        head = [_SQL_HEAD] * self.sql + ['security { status_server = %s }' % 'no yes'.split()[self.status_server]]
        tls_listen = ''
        if self.tls:
            head += [] if self.sql else [_THREADS]
            head.append(_TLS_HEAD)
            tls_listen = _TLS_LISTEN % ((self.tls_address,) + self.tls.pair(self.tls_cert) + (self.tls.pair('ca')[0],))
        # sql ahead of detail: a test that has waited for a record finds its row.
        modules = [_sql_module()] * self.sql + ['detail { filename = {dir}/detail }']
        return _RADIUSD_CONF.format(
            secret=self.secret, port=self.port, head='\n'.join(head), tls_listen=tls_listen,
            preacct=_SQL_PREACCT if self.sql else '',
            modules='\n'.join('\t' + text.replace('{dir}', self.dir) for text in modules),
            accounting='\n'.join('\t\t' + name for name in ['sql'] * self.sql + ['detail']))

    def start(self):
        os.makedirs(self.dir, exist_ok=True)
        with open(os.path.join(self.dir, 'radiusd.conf'), 'w') as f:
            f.write(self.config())
        # A TLS listener needs threads, which -X turns off: its debugging
        # comes with -xx instead, for the log of a failing test.
        harness._spawn(self, ['freeradius', '-f'] + ['-xx'] * bool(self.tls) + ['-d', self.dir, '-l', '/dev/stderr'],
                       self.log_path, lambda: 'Ready to process' in harness.read_file(self.log_path))

    def stop(self):
        # Also once more after a test stopped it.
        if self.proc and self.proc.poll() is None:
            self.proc.terminate()
            self.proc.wait(10)

    def log(self):
        return harness.read_file(self.log_path)

    def records(self):
        # Every finished detail record as {attribute: value}, without Timestamp.
        blocks = harness.read_file(self.dir + '/detail').split('\n\n')[:-1]  # the last one may be unfinished
        return [dict(re.findall(r'^\t(?!Timestamp)(\S+) = "?(.*?)"?$', b, re.M)) for b in blocks]

    def kinds(self):
        # What each detail record was: (Acct-Status-Type, Acct-Session-Id).
        return [(r['Acct-Status-Type'], r.get('Acct-Session-Id', '')) for r in self.records()]

    def wait_records(self, n, timeout=10):
        # Waits for `n` records; returns all.
        return harness._poll(lambda: len(recs := self.records()) >= n and recs, timeout,
                             lambda: 'fewer than %d records; log:\n%s' % (n, harness.read_file(self.log_path)))

    def radacct(self):
        # The rows of the radacct table (sql=True) as {column: value}, oldest first.
        with sqlite3.connect(self.dir + '/radacct.db', timeout=5) as db:
            db.row_factory = sqlite3.Row
            return [dict(r) for r in db.execute('SELECT * FROM radacct ORDER BY radacctid')]

    def rows(self):
        return {r['acctsessionid']: r for r in self.radacct()}
