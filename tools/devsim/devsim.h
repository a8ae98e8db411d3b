// devsim: the peers of the simulated access point, sending the daemon the
// same bytes the device would. Records come from the daemon's own headers so
// that the two can never drift apart.
//
// Exit status: 0 done, 1 the datagram or file could not be written, 2 a bad
// argument (then nothing is sent and no file changes).
#ifndef DEVSIM_DEVSIM_H
#define DEVSIM_DEVSIM_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace devsim {

using Words = std::vector<std::string>;

struct Option {
    const char *name;   // "--user"
    const char *value;  // what it takes, as the help shows it; nullptr for a flag
    const char *help;
    bool repeat = false;
};

struct Command;
using Runner = int (*)(const Command &cmd, const Words &words);

struct Command {
    const char *name;
    const char *usage;  // what follows "devsim NAME" in the help
    const char *summary;
    std::vector<Option> options;
    Runner run;
};

// The station every command talks about unless told otherwise.
#define DEVSIM_MAC "02-00-00-00-00-02"
#define DEVSIM_IFACE "wlan-1-1"
#define DEVSIM_IP "10.0.0.2"

[[noreturn]] void bad(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void failed(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void print_help(const Command &cmd);

// Value checks shared by options and the settings inside them; `label`
// names the thing in the error line.
long long parse_number(const std::string &label, const std::string &text, long long lo, long long hi);
uint64_t parse_u64(const std::string &label, const std::string &text);
bool mac_bytes(const std::string &text, uint8_t out[6]);  // false when text is no MAC
void parse_mac(const std::string &label, const std::string &text, uint8_t out[6]);
struct in_addr parse_ipv4(const std::string &label, const std::string &text);
// Refuses text that a field of `size` bytes does not hold; with `terminated`
// it must leave room for the terminator.
void check_text(const std::string &label, const std::string &text, size_t size, bool terminated = true);

class Args {
public:
    // Exits with the help on --help, and with status 2 on anything unknown.
    Args(const Command &cmd, const Words &words);

    bool has(const char *name) const;
    // The value of a one-value option, or fallback when absent.
    std::string get(const char *name, const std::string &fallback = "") const;
    // Every occurrence's values, in order.
    std::vector<Words> all(const char *name) const;

    long long number(const char *name, long long fallback, long long lo, long long hi) const;
    int integer(const char *name, int fallback) const;  // any int
    // The text of an option, or fallback, checked against a field of a record.
    template <class Record, size_t N>
    std::string text(const char *name, const char *fallback, char (Record::*)[N], bool terminated = true) const
    {
        std::string t = get(name, fallback);
        check_text(name, t, N, terminated);
        return t;
    }
    void mac(const char *name, uint8_t out[6]) const { parse_mac(name, get(name, DEVSIM_MAC), out); }
    struct in_addr ipv4(const char *name, const char *fallback) const
    {
        return parse_ipv4(name, get(name, fallback));
    }

private:
    std::vector<std::pair<std::string, Words>> given_;
};

// Where the simulated device keeps its files: $DEVSIM_ROOT or /tmp/devsim.
std::string root();
void send_unix(const std::string &path, const void *data, size_t len);

// The commands, by module.
extern const Command login_command, report_command, portal_command, uam_command;
extern const Command assoc_command, disassoc_command, counters_command, ip_command, other_command;
extern const Command station_command, owe_command;

}  // namespace devsim

#endif
