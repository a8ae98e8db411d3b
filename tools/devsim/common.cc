// Argument checks, help, and the Unix datagram send shared by the commands.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "devsim.h"

namespace devsim {

namespace {

[[noreturn]] void leave(int status, const char *fmt, va_list ap)
{
    fputs("devsim: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    exit(status);
}

const Option *find_option(const Command &cmd, const std::string &name)
{
    for (const Option &o : cmd.options)
        if (name == o.name)
            return &o;
    return nullptr;
}

size_t value_count(const Option &o)
{
    if (!o.value)
        return 0;
    size_t n = 1;
    for (const char *p = o.value; *p; ++p)
        n += *p == ' ';
    return n;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

void bad(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    leave(2, fmt, ap);
}

void failed(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    leave(1, fmt, ap);
}

void print_help(const Command &cmd)
{
    printf("usage: devsim %s %s\n%s\n", cmd.name, cmd.usage, cmd.summary);
    if (!cmd.options.empty())
        printf("\noptions:\n");
    for (const Option &o : cmd.options) {
        std::string left = std::string(o.name) + (o.value ? std::string(" ") + o.value : "");
        printf("  %-24s %s\n", left.c_str(), o.help);
    }
}

long long parse_number(const std::string &label, const std::string &text, long long lo, long long hi)
{
    const char *s = text.c_str();
    bool negative = *s == '-';
    const char *digits = negative ? s + 1 : s;
    bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(s, &end, hex ? 16 : 10);
    // strtoll would take leading blanks and a plus sign; a number is digits only.
    bool digits_only = *digits >= '0' && *digits <= '9';
    if (!digits_only || *end || errno == ERANGE || v < lo || v > hi)
        bad("%s: '%s' is not a number from %lld to %lld", label.c_str(), s, lo, hi);
    return v;
}

uint64_t parse_u64(const std::string &label, const std::string &text)
{
    const char *s = text.c_str();
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s, &end, 10);
    if (!(*s >= '0' && *s <= '9') || *end || errno == ERANGE)
        bad("%s: '%s' is not a byte count", label.c_str(), s);
    return v;
}

bool mac_bytes(const std::string &text, uint8_t out[6])
{
    // aa:bb:cc:dd:ee:ff, AA-BB-CC-DD-EE-FF or aabbccddeeff: the forms the
    // daemon itself takes.
    size_t step = text.size() == 17 ? 3 : text.size() == 12 ? 2 : 0;
    char separator = step == 3 ? text[2] : 0;
    bool ok = step && (step == 2 || separator == ':' || separator == '-');
    for (size_t i = 0; ok && i < 6; ++i) {
        int high = hex_digit(text[i * step]), low = hex_digit(text[i * step + 1]);
        ok = high >= 0 && low >= 0 && (step == 2 || i == 5 || text[i * step + 2] == separator);
        out[i] = static_cast<uint8_t>(high * 16 + low);
    }
    return ok;
}

void parse_mac(const std::string &label, const std::string &text, uint8_t out[6])
{
    if (!mac_bytes(text, out))
        bad("%s: '%s' is not a MAC address", label.c_str(), text.c_str());
}

struct in_addr parse_ipv4(const std::string &label, const std::string &text)
{
    struct in_addr a;
    if (inet_pton(AF_INET, text.c_str(), &a) != 1)
        bad("%s: '%s' is not an IPv4 address", label.c_str(), text.c_str());
    return a;
}

void check_text(const std::string &label, const std::string &text, size_t size, bool terminated)
{
    size_t room = terminated ? size - 1 : size;
    if (text.size() > room)
        bad("%s: %zu characters, the field holds %zu", label.c_str(), text.size(), room);
}

Args::Args(const Command &cmd, const Words &words)
{
    for (size_t i = 0; i < words.size();) {
        const std::string &word = words[i++];
        if (word == "--help" || word == "-h") {
            print_help(cmd);
            exit(0);
        }
        const Option *o = find_option(cmd, word);
        if (!o)
            bad("%s: unknown option of %s (devsim %s --help lists them)", word.c_str(), cmd.name, cmd.name);
        if (!o->repeat && has(o->name))
            bad("%s: given twice", o->name);
        size_t n = value_count(*o);
        if (words.size() - i < n)
            bad("%s: missing value (%s)", o->name, o->value);
        given_.emplace_back(o->name, Words(words.begin() + i, words.begin() + i + n));
        i += n;
    }
}

bool Args::has(const char *name) const
{
    for (const auto &g : given_)
        if (g.first == name)
            return true;
    return false;
}

std::string Args::get(const char *name, const std::string &fallback) const
{
    for (const auto &g : given_)
        if (g.first == name)
            return g.second.empty() ? fallback : g.second[0];
    return fallback;
}

std::vector<Words> Args::all(const char *name) const
{
    std::vector<Words> values;
    for (const auto &g : given_)
        if (g.first == name)
            values.push_back(g.second);
    return values;
}

long long Args::number(const char *name, long long fallback, long long lo, long long hi) const
{
    return has(name) ? parse_number(name, get(name), lo, hi) : fallback;
}

int Args::integer(const char *name, int fallback) const
{
    return static_cast<int>(number(name, fallback, INT_MIN, INT_MAX));
}

std::string root()
{
    const char *r = getenv("DEVSIM_ROOT");
    return r && *r ? r : "/tmp/devsim";
}

void send_unix(const std::string &path, const void *data, size_t len)
{
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        failed("%s: path too long for a socket", path.c_str());
    memcpy(addr.sun_path, path.data(), path.size());
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0)
        failed("socket: %s", strerror(errno));
    ssize_t n = sendto(fd, data, len, 0, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
    int err = errno;
    close(fd);
    if (n < 0)
        failed("%s: %s", path.c_str(), strerror(err));
}

}  // namespace devsim
