// Station look-ups without a shell and without shared state.
#include "platform/station_probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"
#include "platform/station_lookups.h"

extern char **environ;

namespace {

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// awk's default splitting as the device's (busybox) and Debian's (mawk)
// awk do it: any isspace character of the C locale separates fields.
bool field_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The pipeline's decision, fed ovat's output in pieces as it comes: grep's
// first line containing "IPv4:", awk's second field of it, fgets' first 31
// bytes of that field.
struct ipv4_line_reader {
    static constexpr char kKey[] = "IPv4:";
    int matched = 0;      // bytes of kKey matched so far on this line
    bool has_key = false;
    bool in_field = false;
    int field = 0;        // fields begun on this line
    char text[32] = {};
    int text_len = 0;
    bool decided = false;

    void end_line()
    {
        if (has_key) {
            decided = true;
            return;
        }
        matched = 0;
        in_field = false;
        field = 0;
        text_len = 0;
        memset(text, 0, sizeof text);
    }

    // true once the line that decides has ended.
    bool feed(const char *p, size_t n)
    {
        for (size_t i = 0; i < n && !decided; i++) {
            char c = p[i];
            if (c == '\n') {
                end_line();
                continue;
            }
            // No character of "IPv4:" repeats its first, so a mismatch
            // restarts the match at this character.
            if (c == kKey[matched])
                matched++;
            else
                matched = c == kKey[0] ? 1 : 0;
            if (matched == static_cast<int>(sizeof kKey - 1)) {
                has_key = true;
                matched = 0;
            }
            if (field_space(c)) {
                in_field = false;
            } else {
                if (!in_field)
                    field++;
                in_field = true;
                if (field == 2 && text_len < static_cast<int>(sizeof text - 1))
                    text[text_len++] = c;
            }
        }
        return decided;
    }

    // grep takes a last line without its line feed as a line.
    void end_of_output()
    {
        if (!decided)
            end_line();
    }
};
constexpr char ipv4_line_reader::kKey[];

// The write end must land on the child's stdout through dup2, which a
// descriptor already at 0..2 (a daemon started with its stdio closed)
// would defeat.
int above_stdio(int fd)
{
    if (fd > STDERR_FILENO)
        return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

// Ends the child's whole group (ovat's helpers hold the pipe too) and reaps
// the child. The child is not reaped yet, so its pid is still its group's.
void kill_and_reap(pid_t pid)
{
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// Waits on a pidfd (Linux 5.3) where there is one: a single wake-up.
// 1 ended, 0 still running at the deadline, -1 no pidfd here.
int wait_pidfd(pid_t pid, long long deadline)
{
#ifdef SYS_pidfd_open
    int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0)
        return -1;
    int ended = 0;
    for (;;) {
        long long left = deadline - now_ms();
        if (left <= 0)
            break;
        struct pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR)
            continue;
        ended = r != 0;
        break;
    }
    close(fd);
    return ended;
#else
    (void)pid;
    (void)deadline;
    return -1;
#endif
}

// Reaps the child once it has ended by the deadline; false when it is
// still running then. *status is its wait status, 0 when unknown. Without
// a pidfd, polls backing off from 0.1 ms: the child usually ends right
// after closing its output.
bool reap_by(pid_t pid, long long deadline, int *status)
{
    *status = 0;
    int ended = wait_pidfd(pid, deadline);
    if (ended == 0)
        return false;
    if (ended > 0)
        deadline = now_ms() + 1000;  // ended: reaped at once
    long wait_ns = 100000;
    for (;;) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD))  // ECHILD: SIGCHLD ignored, reaped already
            return true;
        if (r < 0 && errno != EINTR)
            return true;
        long long left = deadline - now_ms();
        if (left <= 0)
            return false;
        if (wait_ns / 1000000 > left)
            wait_ns = static_cast<long>(left) * 1000000;
        struct timespec ts = {0, wait_ns};
        nanosleep(&ts, nullptr);
        if (wait_ns < 16000000)
            wait_ns *= 2;
    }
}

// Starts `ovat` with stdout on a new pipe, stdin on /dev/null and stderr the
// daemon's. The read end, or -1.
int start_ovat(const char *mac, pid_t *pid)
{
    char command[96];
    int n = snprintf(command, sizeof command, "show wireless-hal station non-real-time %s", mac);
    if (n < 0 || static_cast<size_t>(n) >= sizeof command)
        return -1;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    fds[1] = above_stdio(fds[1]);
    if (fds[1] < 0) {
        close(fds[0]);
        return -1;
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    if (posix_spawnattr_init(&attr) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        close(fds[0]);
        close(fds[1]);
        return -1;
    }
    // A worker may run with signals blocked, and the daemon may ignore
    // SIGPIPE: ovat gets a clean mask and dies of a write once we stop
    // reading. Its own group lets a kill reach the helpers it starts.
    sigset_t none, pipe_default;
    sigemptyset(&none);
    sigemptyset(&pipe_default);
    sigaddset(&pipe_default, SIGPIPE);
    bool ready = posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO) == 0 &&
                 posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
                 posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                     POSIX_SPAWN_SETPGROUP) == 0 &&
                 posix_spawnattr_setsigmask(&attr, &none) == 0 &&
                 posix_spawnattr_setsigdefault(&attr, &pipe_default) == 0 &&
                 posix_spawnattr_setpgroup(&attr, 0) == 0;

    char arg0[] = "ovat", arg1[] = "-p", arg2[] = "100", arg3[] = "-e";
    char *argv[] = {arg0, arg1, arg2, arg3, command, nullptr};
    int err = ready ? posix_spawnp(pid, "ovat", &actions, &attr, argv, environ) : -1;

    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (err != 0) {
        close(fds[0]);
        return -1;
    }
    return fds[0];
}

}  // namespace

uint64_t read_counter64(const char *text)
{
    const char *p = text;
    while (*p == ' ' || *p == '\t')
        p++;
    if (*p < '0' || *p > '9')
        return 0;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(p, &end, 10);
    if (errno == ERANGE)
        return 0;
    while (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r')
        end++;
    return *end ? 0 : static_cast<uint64_t>(v);
}

int station_address_lookup(const char *mac, struct in_addr *ip, int timeout_ms,
                           struct lookup_outcome *how)
{
    struct lookup_outcome local;
    if (!how)
        how = &local;
    memset(how, 0, sizeof *how);
    how->result = LOOKUP_NOT_STARTED;
    ip->s_addr = 0;
    if (timeout_ms <= 0)
        timeout_ms = STATION_LOOKUP_TIMEOUT_MS;
    const long long deadline = now_ms() + timeout_ms;

    // ovat parses its -e text as a command line of its own.
    if (!shell_safe_mac(mac))
        return 0;
    pid_t pid = -1;
    int fd = start_ovat(mac, &pid);
    if (fd < 0)
        return 0;

    ipv4_line_reader reader;
    size_t total = 0;
    enum lookup_result fail = LOOKUP_OK;
    while (!reader.decided && fail == LOOKUP_OK) {
        long long left = deadline - now_ms();
        if (left <= 0) {
            fail = LOOKUP_TIMED_OUT;
            break;
        }
        struct pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR)
            continue;
        if (r == 0) {
            fail = LOOKUP_TIMED_OUT;
            break;
        }
        if (r < 0)
            break;  // as end of output
        // One byte past the limit tells an output of exactly the limit
        // from a longer one.
        char buf[4096];
        size_t want = STATION_LOOKUP_OUTPUT_LIMIT + 1 - total;
        ssize_t got = read(fd, buf, want < sizeof buf ? want : sizeof buf);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            break;
        size_t usable = static_cast<size_t>(got);
        if (total + usable > STATION_LOOKUP_OUTPUT_LIMIT)
            usable = STATION_LOOKUP_OUTPUT_LIMIT - total;
        total += static_cast<size_t>(got);
        reader.feed(buf, usable);
        if (!reader.decided && total > STATION_LOOKUP_OUTPUT_LIMIT)
            fail = LOOKUP_TOO_LARGE;
    }
    // Closed before the wait: ovat still writing dies of SIGPIPE.
    close(fd);
    int status = 0;
    if (fail == LOOKUP_OK && !reap_by(pid, deadline, &status))
        fail = LOOKUP_TIMED_OUT;
    // Where the spawn cannot report a failed exec (an emulator's fork for
    // vfork), the child ends as a shell's "command not found" does.
    if (fail == LOOKUP_OK && total == 0 && WIFEXITED(status) && WEXITSTATUS(status) == 127)
        fail = LOOKUP_NOT_STARTED;
    if (fail != LOOKUP_OK) {
        kill_and_reap(pid);
        how->result = fail;
        return 0;
    }

    reader.end_of_output();
    how->line = reader.decided;
    memcpy(how->text, reader.text, sizeof how->text);
    if (!reader.decided || !inet_aton(reader.text, ip)) {
        ip->s_addr = 0;
        how->result = LOOKUP_NO_ADDRESS;
        return 0;
    }
    how->result = LOOKUP_OK;
    return 1;
}

int station_counters_lookup(const char *user_mac, conn_t *status)
{
    station_counters(user_mac, status, read_counter64);
    return status->rx > 0 && status->tx > 0;
}
