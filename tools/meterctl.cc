// meterctl: the operator's end of meterd's control socket. The socket is
// one-way but for the delivery counters, so every argument is checked here,
// before a datagram leaves: the daemon would cut a long text without a word
// and act on the stump.
#include <errno.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/control.h"
#include "daemon/db_dump.h"
#include "radius/client_stats.h"

namespace {

enum { EXIT_USAGE = 2, DUMP_WAIT_MS = 2000, STATS_WAIT_MS = 2000 };

const char kUsage[] =
    "usage: meterctl [--help] COMMAND [ARGUMENTS]\n"
    "\n"
    "Sends one command to meterd over " ACCOUNTING_SOCK ".\n"
    "\n"
    "commands:\n"
    "  add         configure a RADIUS profile and send its Accounting-On\n"
    "  remove      send a profile's Accounting-Off and remove it\n"
    "  ac-address  move the profiles of one primary server to a new address\n"
    "  ac-secret   give the profiles of one primary server a new shared secret\n"
    "  exit        send the Accounting-Off of every profile (meterd keeps running)\n"
    "  debug       turn console diagnostics on or off\n"
    "  dump        show the scheduler and the delivery queues\n"
    "  stats       show the delivery counters of each server and the extensions on\n"
    "\n"
    "meterctl COMMAND --help describes a command.\n";

struct command {
    const char *name;
    int min_args, max_args;
    const char *help;
    int (*build)(char **arg, int n, accounting_event_t *ev);
};

int fail(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

int fail(int status, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    fputs("meterctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return status;
}

// Copies text into a field of the record, or says why it cannot go there.
int put_text(char *field, size_t size, const char *what, const char *text)
{
    size_t len = strlen(text);
    if (len == 0)
        return fail(EXIT_USAGE, "%s must not be empty", what);
    if (len >= size)
        return fail(EXIT_USAGE, "%s is %zu characters long, at most %zu fit", what, len, size - 1);
    memcpy(field, text, len + 1);
    return 0;
}

int put_port(int *field, const char *what, const char *text)
{
    char *end = nullptr;
    errno = 0;
    long port = strtol(text, &end, 10);
    if (text[0] < '0' || text[0] > '9' || *end || errno || port < 1 || port > 65535)
        return fail(EXIT_USAGE, "%s '%s' is not a number from 1 to 65535", what, text);
    *field = static_cast<int>(port);
    return 0;
}

int build_add(char **arg, int n, accounting_event_t *ev)
{
    if (n != 4 && n != 7)
        return fail(EXIT_USAGE, "add takes 4 arguments, or 7 with a backup server, not %d", n);
    struct ovat_config_event *p = &ev->u.radius_profile;
    ev->event_id = ACCOUNTING_EVENT_INIT;
    int bad = put_text(p->interface, sizeof p->interface, "interface", arg[0]);
    bad = bad ? bad : put_text(p->hostname, sizeof p->hostname, "host", arg[1]);
    bad = bad ? bad : put_port(&p->port, "port", arg[2]);
    bad = bad ? bad : put_text(p->secret, sizeof p->secret, "secret", arg[3]);
    if (n == 7) {
        bad = bad ? bad : put_text(p->backup_hostname, sizeof p->backup_hostname, "backup host", arg[4]);
        bad = bad ? bad : put_port(&p->backup_port, "backup port", arg[5]);
        bad = bad ? bad : put_text(p->backup_secret, sizeof p->backup_secret, "backup secret", arg[6]);
    }
    return bad;
}

int build_remove(char **arg, int, accounting_event_t *ev)
{
    ev->event_id = ACCOUNTING_EVENT_REMOVE;
    return put_text(ev->u.remove_profile.interface, sizeof ev->u.remove_profile.interface,
                    "interface", arg[0]);
}

int build_ac_change(accounting_event_t *ev, long event, const char *what, char **arg)
{
    struct ovat_ac_ip_change *c = &ev->u.ip_change_event;
    ev->event_id = event;
    int bad = put_text(c->old_ac_ip, sizeof c->old_ac_ip, "address", arg[0]);
    return bad ? bad : put_text(c->new_ac_ip, sizeof c->new_ac_ip, what, arg[1]);
}

int build_ac_address(char **arg, int, accounting_event_t *ev)
{
    return build_ac_change(ev, ACCOUNTING_EVENT_AC_IP_CHANGE, "new address", arg);
}

int build_ac_secret(char **arg, int, accounting_event_t *ev)
{
    return build_ac_change(ev, ACCOUNTING_EVENT_AC_SHARED_SECRET_KEY_CHANGE, "secret", arg);
}

int build_exit(char **, int, accounting_event_t *ev)
{
    ev->event_id = ACCOUNTING_EVENT_EXIT;
    return 0;
}

int build_debug(char **arg, int, accounting_event_t *ev)
{
    if (strcmp(arg[0], "on") == 0)
        ev->event_id = ACCOUNTING_EVENT_DEBUG_ON;
    else if (strcmp(arg[0], "off") == 0)
        ev->event_id = ACCOUNTING_EVENT_DEBUG_OFF;
    else
        return fail(EXIT_USAGE, "debug takes on or off, not '%s'", arg[0]);
    return 0;
}

int build_dump(char **, int, accounting_event_t *ev)
{
    ev->event_id = ACCOUNTING_EVENT_DEBUG_DUMP;
    return 0;
}

int build_stats(char **, int, accounting_event_t *ev)
{
    ev->event_id = ACCOUNTING_EVENT_DELIVERY_STATS;
    return 0;
}

const command kCommands[] = {
    {"add", 4, 7, "usage: meterctl add INTERFACE HOST PORT SECRET [BACKUP_HOST BACKUP_PORT BACKUP_SECRET]\n"
     "\n"
     "Configures the RADIUS profile of a WLAN interface (wlan-R-W) and sends its\n"
     "Accounting-On to HOST, which is a name or an IPv4 address. A second add for\n"
     "the same interface makes a second profile. Interface and hosts take at most\n"
     "63 characters, secrets 64; ports are 1 to 65535.\n",
     build_add},
    {"remove", 1, 1, "usage: meterctl remove INTERFACE\n"
     "\n"
     "Sends the Accounting-Off of the interface's oldest profile and removes it.\n"
     "Its sessions end without an Accounting-Stop.\n",
     build_remove},
    {"ac-address", 2, 2, "usage: meterctl ac-address OLD NEW\n"
     "\n"
     "Every profile whose primary server is named OLD is sent to NEW from now on.\n"
     "Nothing is sent. Both take at most 63 characters.\n",
     build_ac_address},
    {"ac-secret", 2, 2, "usage: meterctl ac-secret ADDRESS SECRET\n"
     "\n"
     "Every profile whose primary server is named ADDRESS signs with SECRET from now\n"
     "on. Nothing is sent. Both take at most 63 characters.\n",
     build_ac_secret},
    {"exit", 0, 0, "usage: meterctl exit\n"
     "\n"
     "Sends one Accounting-Off for every profile configured with add, without\n"
     "retries, as a device does before it goes down. meterd keeps running and the\n"
     "profiles stay configured.\n",
     build_exit},
    {"debug", 1, 1, "usage: meterctl debug on|off\n"
     "\n"
     "Turns meterd's diagnostics on /dev/console on or off.\n",
     build_debug},
    {"dump", 0, 0, "usage: meterctl dump [--raw]\n"
     "\n"
     "Has meterd write " METERD_DB_DUMP " and shows it: the scheduler's entries and\n"
     "each queue's nodes, with times relative to now. --raw prints the file as it is.\n",
     build_dump},
    {"stats", 0, 0, "usage: meterctl stats [--json]\n"
     "\n"
     "Shows meterd's delivery counters of each RADIUS server since it started:\n"
     "requests, retransmissions, datagrams received and what was wrong with them,\n"
     "requests pending, time-outs and the round trip of the last answer; and which\n"
     "extensions are on. --json prints them for scripts.\n",
     build_stats},
};

// Sends the record from fd, or from a socket of its own made for it when fd
// is -1.
int send_event(const accounting_event_t *ev, int fd = -1)
{
    int own = fd < 0 ? socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    if (fd < 0 && own < 0)
        return fail(1, "cannot make a socket: %s", strerror(errno));
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, ACCOUNTING_SOCK, sizeof ACCOUNTING_SOCK);
    // Never wait: a daemon stuck under its lock would hang the operator too.
    ssize_t sent = sendto(fd < 0 ? own : fd, ev, sizeof *ev, MSG_DONTWAIT,
                          reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    int err = errno;
    if (own >= 0)
        close(own);
    if (sent == static_cast<ssize_t>(sizeof *ev))
        return 0;
    if (sent >= 0 || err == EAGAIN)
        return fail(1, "meterd is not reading " ACCOUNTING_SOCK);
    return fail(1, "meterd is not listening on " ACCOUNTING_SOCK ": %s", strerror(err));
}

long elapsed_ms(const struct timespec *since)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - since->tv_sec) * 1000 + (now.tv_nsec - since->tv_nsec) / 1000000;
}

// Waits until meterd closes the dump it writes; the file is complete then.
// The watch is set before the request leaves, so the close cannot be missed.
int request_dump(const accounting_event_t *ev)
{
    int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (fd < 0)
        return fail(1, "cannot watch " METERD_DB_DUMP ": %s", strerror(errno));
    const char *name = strrchr(METERD_DB_DUMP, '/') + 1;
    int status = 1;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    if (inotify_add_watch(fd, "/tmp", IN_CLOSE_WRITE) < 0) {
        fail(1, "cannot watch " METERD_DB_DUMP ": %s", strerror(errno));
        goto out;
    }
    if (send_event(ev) != 0)
        goto out;
    for (long left; (left = DUMP_WAIT_MS - elapsed_ms(&start)) > 0;) {
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
            continue;
        alignas(struct inotify_event) char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        for (ssize_t at = 0; n > 0 && at + static_cast<ssize_t>(sizeof(struct inotify_event)) <= n;) {
            struct inotify_event e;
            memcpy(&e, buf + at, sizeof e);
            at += static_cast<ssize_t>(sizeof e);
            if (e.len > static_cast<size_t>(n - at))
                break;
            if (strnlen(buf + at, e.len) == strlen(name) && memcmp(buf + at, name, strlen(name)) == 0) {
                status = 0;
                goto out;
            }
            at += e.len;
        }
    }
    fail(1, "meterd did not write " METERD_DB_DUMP " within %d s", DUMP_WAIT_MS / 1000);
out:
    close(fd);
    return status;
}

// "in 4s", "now", "1m05s ago": when a time of the dump falls, seen from now.
const char *relative(char *buf, size_t size, unsigned long when, time_t now)
{
    long d = static_cast<long>(when) - static_cast<long>(now);
    unsigned long a = static_cast<unsigned long>(d < 0 ? -d : d);
    char span[32];
    if (a < 60)
        snprintf(span, sizeof span, "%lus", a);
    else if (a < 3600)
        snprintf(span, sizeof span, "%lum%02lus", a / 60, a % 60);
    else
        snprintf(span, sizeof span, "%luh%02lum", a / 3600, a % 3600 / 60);
    if (d == 0)
        snprintf(buf, size, "now");
    else
        snprintf(buf, size, d > 0 ? "in %s" : "%s ago", span);
    return buf;
}

void cut_line_end(char *s)
{
    size_t n = strlen(s);
    while (n && (s[n - 1] == '\n' || s[n - 1] == ' '))
        s[--n] = '\0';
}

// The queue heads of the dump by address, so that scheduler entries,
// which precede them in the file, can be named.
struct queue_names {
    enum { MAX = 64 };
    char address[MAX][32];
    char name[MAX][64];
    int count;

    void add(const char *addr, const char *text)
    {
        if (count < MAX) {
            snprintf(address[count], sizeof address[0], "%s", addr);
            snprintf(name[count], sizeof name[0], "%s", text);
            count++;
        }
    }
    const char *find(const char *addr) const
    {
        for (int i = 0; i < count; i++)
            if (strcmp(address[i], addr) == 0)
                return name[i];
        return addr;
    }
};

// Reads a queue head line: its address, and its name as the view shows it.
bool queue_head(const char *line, char *addr, char *name, size_t name_size, const char **due)
{
    int interval;
    if (sscanf(line, "request queue: %31s", addr) == 1) {
        snprintf(name, name_size, "request queue");
        *due = "answer due";
    } else if (sscanf(line, "fail queue: %31s", addr) == 1) {
        snprintf(name, name_size, "fail queue");
        *due = "failed; sent again at the next pass";
    } else if (sscanf(line, "look-up queue: %31s", addr) == 1) {
        snprintf(name, name_size, "look-up queue");
        *due = "Interim-Update due, the station being looked up";
    } else if (sscanf(line, "interim queue: %31[^(](interval: %d)", addr, &interval) == 2) {
        // Key 0 holds the sessions whose interval came with their login.
        if (interval == 0)
            snprintf(name, name_size, "interim queue, each session its own interval");
        else
            snprintf(name, name_size, "interim queue, every %ds", interval);
        *due = "next update";
    } else {
        return false;
    }
    return true;
}

// "username: U, report_time: T, interface:I "; U may hold anything, so the
// last ", report_time: " ends it. A blank U marks an Accounting-On/Off.
void print_node(const char *line, time_t now)
{
    const char *key = ", report_time: ";
    const char *end = nullptr;
    for (const char *p = strstr(line, key); p; p = strstr(p + 1, key))
        end = p;
    unsigned long when;
    char iface[128];
    if (!end || sscanf(end + strlen(key), "%lu, interface:%127[^\n]", &when, iface) != 2) {
        printf("  %s\n", line);
        return;
    }
    cut_line_end(iface);
    const char *user = line + strlen("username: ");
    int user_len = static_cast<int>(end - user);
    char rel[48];
    relative(rel, sizeof rel, when, now);
    if (user_len == 1 && user[0] == ' ')
        printf("  %-12s %-12s Accounting-On/Off\n", rel, iface);
    else
        printf("  %-12s %-12s %.*s\n", rel, iface, user_len, user);
}

void print_view(FILE *f, time_t now)
{
    queue_names names;
    names.count = 0;
    char line[512], addr[32], name[64];
    const char *due;
    while (fgets(line, sizeof line, f))
        if (queue_head(line, addr, name, sizeof name, &due))
            names.add(addr, name);
    rewind(f);

    bool blank_before = false, empty_queue = false;
    while (fgets(line, sizeof line, f)) {
        if (strcmp(line, "\n") == 0) {
            blank_before = true;
            continue;
        }
        cut_line_end(line);
        unsigned long when;
        int interim;
        bool node = strncmp(line, "username: ", 10) == 0;
        if (empty_queue && !node && strncmp(line, "time:", 5) != 0)
            printf("  (empty)\n");
        empty_queue = false;
        if (blank_before)
            putchar('\n');
        blank_before = false;
        if (strcmp(line, "scheduler:") == 0) {
            printf("scheduler (due)\n");
            empty_queue = true;
        } else if (sscanf(line, "time:%lu, queue_header: %31s", &when, addr) == 2) {
            char rel[48];
            printf("  %-12s %s\n", relative(rel, sizeof rel, when, now), names.find(addr));
        } else if (queue_head(line, addr, name, sizeof name, &due)) {
            printf("%s (%s)\n", name, due);
            empty_queue = true;
        } else if (node) {
            print_node(line, now);
        } else if (strcmp(line, "radius:") == 0) {
            printf("portal profiles\n");
        } else if (sscanf(line, "interface: %63[^,], interim: %d", name, &interim) == 2) {
            printf("  %-12s interim every %ds\n", name, interim);
        } else {
            printf("%s\n", line);
        }
    }
    if (empty_queue)
        printf("  (empty)\n");
}

int show_dump(bool raw)
{
    FILE *f = fopen(METERD_DB_DUMP, "r");
    if (!f)
        return fail(1, "cannot read " METERD_DB_DUMP ": %s", strerror(errno));
    if (raw) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;)
            fwrite(buf, 1, n, stdout);
    } else {
        print_view(f, time(nullptr));
    }
    fclose(f);
    return 0;
}

// The delivery counters as meterd reports them: lines of words, "extensions"
// with name and 0 or 1 pairs, then "server ADDRESS PORT" with name and value
// pairs. Any figure the daemon adds shows without a change here.
struct stats_line {
    enum { MAX_WORDS = 32 };
    const char *word[MAX_WORDS];
    int count;
};

struct stats_report {
    enum { MAX_SERVERS = CLIENT_STATS_SERVERS + 1, MAX_STATES = 64 };
    stats_line extensions;
    stats_line server[MAX_SERVERS];
    int servers;
    // meterd -k: "state PROFILE ROLE HOST PORT" with pairs, and "backlog" with pairs.
    stats_line state[MAX_STATES];
    int states;
    stats_line backlog;
    // meterd -l: "lookups" with pairs.
    stats_line lookups;
    // meterd -T: "transport ADDRESS PORT KIND" with pairs, some of text (version, cipher).
    stats_line transport[MAX_SERVERS];
    int transports;
};

int larger(int a, int b)
{
    return a > b ? a : b;
}

bool all_of(const char *s, const char *set)
{
    return *s && strspn(s, set) == strlen(s);
}

// Splits text in place; false if it is not a report.
bool parse_stats(char *text, stats_report *r)
{
    r->extensions.count = 0;
    r->servers = 0;
    r->states = 0;
    r->backlog.count = 0;
    r->lookups.count = 0;
    r->transports = 0;
    for (char *save = nullptr, *line = strtok_r(text, "\n", &save); line; line = strtok_r(nullptr, "\n", &save)) {
        stats_line l;
        l.count = 0;
        for (char *s2 = nullptr, *w = strtok_r(line, " ", &s2); w; w = strtok_r(nullptr, " ", &s2)) {
            if (l.count == stats_line::MAX_WORDS)
                return false;
            l.word[l.count++] = w;
        }
        if (l.count == 0)
            return false;
        bool server = strcmp(l.word[0], "server") == 0, state = strcmp(l.word[0], "state") == 0;
        bool transport = strcmp(l.word[0], "transport") == 0;
        int first = server ? 3 : state ? 5 : transport ? 4 : 1;
        int port = transport ? 2 : first - 1;
        if ((!server && !state && !transport && strcmp(l.word[0], "extensions") != 0 &&
             strcmp(l.word[0], "backlog") != 0 && strcmp(l.word[0], "lookups") != 0) ||
            l.count < first || (l.count - first) % 2 || (first > 1 && !all_of(l.word[port], "0123456789")))
            return false;
        // A transport's values may be names: its protocol version and cipher.
        const char *values = transport ? "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_.-"
                                       : "0123456789";
        for (int i = first; i < l.count; i += 2)
            if (!all_of(l.word[i], "abcdefghijklmnopqrstuvwxyz_") || !all_of(l.word[i + 1], values))
                return false;
        if (transport) {
            if (r->transports < stats_report::MAX_SERVERS)
                r->transport[r->transports++] = l;
        } else if (server) {
            if (r->servers < stats_report::MAX_SERVERS)
                r->server[r->servers++] = l;
        } else if (state) {
            if (r->states < stats_report::MAX_STATES)
                r->state[r->states++] = l;
        } else if (strcmp(l.word[0], "backlog") == 0) {
            r->backlog = l;
        } else if (strcmp(l.word[0], "lookups") == 0) {
            r->lookups = l;
        } else {
            r->extensions = l;
        }
    }
    return true;
}

// A line of a word and name-value pairs ("backlog", "lookups") as a JSON
// member named by its word.
void print_pairs_json(const stats_line &l)
{
    printf(", \"%s\": {", l.word[0]);
    for (int i = 1; i < l.count; i += 2)
        printf("%s\"%s\": %s", i > 1 ? ", " : "", l.word[i], l.word[i + 1]);
    printf("}");
}

void print_stats_json(const stats_report *r)
{
    printf("{\"extensions\": {");
    for (int i = 1; i < r->extensions.count; i += 2)
        printf("%s\"%s\": %s", i > 1 ? ", " : "", r->extensions.word[i],
               strcmp(r->extensions.word[i + 1], "0") ? "true" : "false");
    printf("}, \"servers\": [");
    for (int s = 0; s < r->servers; s++) {
        const stats_line &l = r->server[s];
        printf("%s{\"address\": \"%s\", \"port\": %s", s ? ", " : "", l.word[1], l.word[2]);
        for (int i = 3; i < l.count; i += 2)
            printf(", \"%s\": %s", l.word[i], l.word[i + 1]);
        printf("}");
    }
    printf("]");
    if (r->backlog.count) {
        printf(", \"states\": [");
        for (int s = 0; s < r->states; s++) {
            const stats_line &l = r->state[s];
            printf("%s{\"profile\": \"%s\", \"role\": \"%s\", \"host\": \"%s\", \"port\": %s", s ? ", " : "",
                   l.word[1], l.word[2], l.word[3], l.word[4]);
            for (int i = 5; i < l.count; i += 2)
                printf(", \"%s\": %s", l.word[i], l.word[i + 1]);
            printf("}");
        }
        printf("]");
        print_pairs_json(r->backlog);
    }
    if (r->lookups.count)
        print_pairs_json(r->lookups);
    if (r->transports) {
        printf(", \"transports\": [");
        for (int t = 0; t < r->transports; t++) {
            const stats_line &l = r->transport[t];
            printf("%s{\"address\": \"%s\", \"port\": %s, \"transport\": \"%s\"", t ? ", " : "", l.word[1],
                   l.word[2], l.word[3]);
            for (int i = 4; i < l.count; i += 2) {
                const char *q = all_of(l.word[i + 1], "0123456789") ? "" : "\"";
                printf(", \"%s\": %s%s%s", l.word[i], q, l.word[i + 1], q);
            }
            printf("}");
        }
        printf("]");
    }
    printf("}\n");
}

// The value of a pair of line l, or "".
const char *pair_value(const stats_line &l, const char *name)
{
    for (int i = 1; i + 1 < l.count; i++)
        if (strcmp(l.word[i], name) == 0)
            return l.word[i + 1];
    return "";
}

// meterd -k: each server's state, since when and its probes, and the backlog.
void print_states(const stats_report *r)
{
    if (!r->backlog.count)
        return;
    printf("\n");
    time_t now = time(nullptr);
    for (int s = 0; s < r->states; s++) {
        const stats_line &l = r->state[s];
        long since = atol(pair_value(l, "since"));
        char when[32] = "since start";
        if (since > 0)
            snprintf(when, sizeof when, "for %ld s", static_cast<long>(now) - since);
        printf("%s %s %s:%s %s %s, probes %s, answered %s\n", l.word[1], l.word[2], l.word[3], l.word[4],
               strcmp(pair_value(l, "dead"), "0") ? "dead" : "live", when, pair_value(l, "probes"),
               pair_value(l, "probe_answers"));
    }
    printf("backlog: %s requests, the oldest %s s old\n", pair_value(r->backlog, "length"),
           pair_value(r->backlog, "oldest_age"));
}

// meterd -l: the look-ups of Interim-Updates.
void print_lookups(const stats_report *r)
{
    if (!r->lookups.count)
        return;
    printf("\nlook-ups: %s started, %s timed out, %s ovat killed, %s for sessions gone, %s pending\n",
           pair_value(r->lookups, "started"), pair_value(r->lookups, "timed_out"), pair_value(r->lookups, "killed"),
           pair_value(r->lookups, "gone"), pair_value(r->lookups, "pending"));
}

// meterd -T: each server's connection.
void print_transports(const stats_report *r)
{
    if (r->transports)
        printf("\n");
    for (int t = 0; t < r->transports; t++) {
        const stats_line &l = r->transport[t];
        printf("%s:%s over %s to port %s: %s, %s %s, opened %s, handshake failures %s, certificate refusals %s, "
               "lost %s\n",
               l.word[1], l.word[2], l.word[3], pair_value(l, "tls_port"), strcmp(pair_value(l, "up"), "0") ? "up" : "down",
               pair_value(l, "version"), pair_value(l, "cipher"), pair_value(l, "opened"),
               pair_value(l, "handshake_failures"), pair_value(l, "certificate_refusals"), pair_value(l, "lost"));
    }
}

// A column a server, a line a figure; names with blanks for underscores.
void print_stats_table(const stats_report *r)
{
    printf("extensions:");
    int on = 0;
    for (int i = 1; i < r->extensions.count; i += 2)
        if (strcmp(r->extensions.word[i + 1], "0") != 0)
            printf("%s %s", on++ ? "," : "", r->extensions.word[i]);
    printf("%s\n\n", on ? "" : " none");
    if (r->servers == 0) {
        printf("no request sent yet\n");
        print_states(r);
        print_lookups(r);
        print_transports(r);
        return;
    }
    char head[stats_report::MAX_SERVERS][32];
    int width[stats_report::MAX_SERVERS], label = 0;
    const stats_line &first = r->server[0];
    for (int i = 3; i < first.count; i += 2)
        label = larger(label, static_cast<int>(strlen(first.word[i])));
    for (int s = 0; s < r->servers; s++) {
        const stats_line &l = r->server[s];
        if (strcmp(l.word[1], "other") == 0)
            snprintf(head[s], sizeof head[s], "other");
        else
            snprintf(head[s], sizeof head[s], "%s:%s", l.word[1], l.word[2]);
        width[s] = static_cast<int>(strlen(head[s]));
        for (int i = 4; i < l.count; i += 2)
            width[s] = larger(width[s], static_cast<int>(strlen(l.word[i])));
    }
    printf("%-*s", label, "");
    for (int s = 0; s < r->servers; s++)
        printf("  %*s", width[s], head[s]);
    printf("\n");
    for (int i = 3; i < first.count; i += 2) {
        char name[64];
        snprintf(name, sizeof name, "%s", first.word[i]);
        for (char *p = name; *p; p++)
            *p = *p == '_' ? ' ' : *p;
        printf("%-*s", label, name);
        for (int s = 0; s < r->servers; s++) {
            const stats_line &l = r->server[s];
            printf("  %*s", width[s], i + 1 < l.count ? l.word[i + 1] : "");
        }
        printf("\n");
    }
    print_states(r);
    print_lookups(r);
    print_transports(r);
}

// Asks from a socket of its own, which the system names, and takes the
// answer that comes from the daemon's socket to it.
int request_stats(const accounting_event_t *ev, bool json)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return fail(1, "cannot make a socket: %s", strerror(errno));
    struct sockaddr_un self;
    memset(&self, 0, sizeof self);
    self.sun_family = AF_UNIX;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&self), sizeof self.sun_family) < 0) {
        int err = errno;
        close(fd);
        return fail(1, "cannot bind a socket for the answer: %s", strerror(err));
    }
    int status = send_event(ev, fd);
    static char text[CLIENT_STATS_TEXT + 1];
    ssize_t n = -1;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (long left; status == 0 && n < 0 && (left = STATS_WAIT_MS - elapsed_ms(&start)) > 0;) {
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
            continue;
        struct sockaddr_un from;
        socklen_t from_len = sizeof from;
        n = recvfrom(fd, text, sizeof text - 1, 0, reinterpret_cast<struct sockaddr *>(&from), &from_len);
        if (n >= 0 && (from_len <= offsetof(struct sockaddr_un, sun_path) ||
                       strncmp(from.sun_path, ACCOUNTING_SOCK, sizeof from.sun_path) != 0))
            n = -1;  // not from the daemon
    }
    close(fd);
    if (status != 0)
        return status;
    if (n < 0)
        return fail(1, "meterd did not answer within %d s", STATS_WAIT_MS / 1000);
    text[n] = '\0';
    static stats_report report;
    if (!parse_stats(text, &report))
        return fail(1, "meterd's answer is not a report of delivery counters");
    if (json)
        print_stats_json(&report);
    else
        print_stats_table(&report);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return fail(EXIT_USAGE, "no command given (see meterctl --help)");
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        fputs(kUsage, stdout);
        return 0;
    }
    const command *cmd = nullptr;
    for (const command &c : kCommands)
        if (strcmp(c.name, argv[1]) == 0)
            cmd = &c;
    if (!cmd)
        return fail(EXIT_USAGE, argv[1][0] == '-' ? "unknown option '%s' (see meterctl --help)"
                                                  : "unknown command '%s' (see meterctl --help)",
                    argv[1]);

    // Options first; "--" lets a secret begin with a dash.
    char *arg[8];
    int n = 0;
    bool raw = false, json = false, options = true;
    for (int i = 2; i < argc; i++) {
        if (options && strcmp(argv[i], "--") == 0) {
            options = false;
        } else if (options && (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)) {
            fputs(cmd->help, stdout);
            return 0;
        } else if (options && cmd->build == build_dump && strcmp(argv[i], "--raw") == 0) {
            raw = true;
        } else if (options && cmd->build == build_stats && strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (options && argv[i][0] == '-' && argv[i][1] && (argv[i][1] < '0' || argv[i][1] > '9')) {
            return fail(EXIT_USAGE, "unknown option '%s' for %s (see meterctl %s --help)", argv[i],
                        cmd->name, cmd->name);
        } else if (n < cmd->max_args) {
            arg[n++] = argv[i];
        } else {
            return fail(EXIT_USAGE, "too many arguments for %s (see meterctl %s --help)", cmd->name,
                        cmd->name);
        }
    }
    if (n < cmd->min_args)
        return fail(EXIT_USAGE, "too few arguments for %s (see meterctl %s --help)", cmd->name,
                    cmd->name);

    // The whole record goes out zeroed: the daemon keeps the bytes of earlier
    // datagrams where a shorter one ends, and reads fields an event leaves unset.
    accounting_event_t ev;
    memset(&ev, 0, sizeof ev);
    int status = cmd->build(arg, n, &ev);
    if (status != 0)
        return status;
    if (cmd->build == build_stats)
        return request_stats(&ev, json);
    if (cmd->build != build_dump)
        return send_event(&ev);
    status = request_dump(&ev);
    return status ? status : show_dump(raw);
}
