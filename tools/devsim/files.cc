// The simulated device's tables: the stations that the shell and the
// statistics database report, and the OWE transition WLANs. The daemon reads
// them at any time, so a file is replaced whole, never rewritten in place.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "devsim.h"

namespace devsim {

namespace {

Words read_lines(const std::string &path)
{
    Words lines;
    FILE *f = fopen(path.c_str(), "r");
    if (!f) {
        if (errno != ENOENT)
            failed("%s: %s", path.c_str(), strerror(errno));
        return lines;
    }
    char buf[512];
    std::string line;
    while (fgets(buf, sizeof buf, f)) {
        line += buf;
        if (line.back() == '\n') {
            line.pop_back();
            lines.push_back(line);
            line.clear();
        }
    }
    if (!line.empty())
        lines.push_back(line);
    fclose(f);
    return lines;
}

void write_lines(const std::string &path, const Words &lines)
{
    if (mkdir(root().c_str(), 0755) < 0 && errno != EEXIST)
        failed("%s: %s", root().c_str(), strerror(errno));
    std::string next = path + ".new";
    FILE *f = fopen(next.c_str(), "w");
    if (!f)
        failed("%s: %s", next.c_str(), strerror(errno));
    for (const std::string &line : lines)
        fprintf(f, "%s\n", line.c_str());
    if (fclose(f) != 0 || rename(next.c_str(), path.c_str()) < 0)
        failed("%s: %s", path.c_str(), strerror(errno));
}

void print_lines(const Words &lines)
{
    for (const std::string &line : lines)
        printf("%s\n", line.c_str());
}

// The action word ahead of the options, one of `allowed`.
std::string action(const Command &cmd, const Words &words, const Words &allowed)
{
    if (!words.empty() && (words[0] == "--help" || words[0] == "-h"))
        Args(cmd, words);  // prints the help and exits
    std::string list;
    for (const std::string &a : allowed) {
        if (!words.empty() && words[0] == a)
            return a;
        list += (list.empty() ? "" : "|") + a;
    }
    if (words.empty())
        bad("%s: the action is missing (%s)", cmd.name, list.c_str());
    bad("%s: '%s' is none of %s", cmd.name, words[0].c_str(), list.c_str());
}

// ACTION [options] of a command that edits the file root/name.
struct Edit {
    Edit(const Command &cmd, const Words &words, const Words &allowed, const char *name)
        : act(action(cmd, words, allowed)), args(cmd, Words(words.begin() + 1, words.end())),
          path(root() + "/" + name), lines(read_lines(path))
    {
    }
    // Prints the file for list, which is then all there is to do.
    bool listed() const
    {
        if (act == "list")
            print_lines(lines);
        return act == "list";
    }

    std::string act;
    Args args;
    std::string path;
    Words lines;
};

// The fields of a station line: MAC IPV4 RX TX, "-" for unknown.
struct Station {
    std::string field[4] = {"", "-", "-", "-"};
};

bool station_of(const std::string &line, const uint8_t mac[6], Station *out)
{
    char f[4][64] = {"", "-", "-", "-"};
    uint8_t have[6];
    if (sscanf(line.c_str(), "%63s %63s %63s %63s", f[0], f[1], f[2], f[3]) < 1 || !mac_bytes(f[0], have) ||
        memcmp(have, mac, sizeof have) != 0)
        return false;
    for (int i = 0; i < 4; ++i)
        out->field[i] = f[i];
    return true;
}

int run_station(const Command &cmd, const Words &words)
{
    Edit edit(cmd, words, {"add", "set", "del", "list"}, "stations");
    if (edit.listed())
        return 0;
    const Args &a = edit.args;
    const std::string &act = edit.act;
    uint8_t mac[6];
    a.mac("--mac", mac);
    char text[18];
    snprintf(text, sizeof text, "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
    Station given;
    given.field[0] = text;
    if (a.has("--ip") && a.get("--ip") != "-")
        parse_ipv4("--ip", a.get("--ip"));
    for (const char *counter : {"--rx", "--tx"})
        if (a.has(counter) && a.get(counter) != "-")
            parse_u64(counter, a.get(counter));

    Words out;
    bool found = false;
    for (const std::string &line : edit.lines) {
        Station old;
        if (!station_of(line, mac, &old)) {
            out.push_back(line);
            continue;
        }
        if (found || act == "del") {
            found = true;
            continue;
        }
        found = true;
        Station now = act == "set" ? old : given;
        const char *names[4] = {nullptr, "--ip", "--rx", "--tx"};
        for (int i = 1; i < 4; ++i)
            now.field[i] = a.get(names[i], now.field[i]);
        out.push_back(text + (" " + now.field[1] + " " + now.field[2] + " " + now.field[3]));
    }
    if (!found && act != "add")
        failed("station %s is not listed in %s", text, edit.path.c_str());
    if (!found)
        out.push_back(std::string(text) + " " + a.get("--ip", "-") + " " + a.get("--rx", "-") + " " +
                      a.get("--tx", "-"));
    write_lines(edit.path, out);
    return 0;
}

int run_owe(const Command &cmd, const Words &words)
{
    Edit edit(cmd, words, {"add", "del", "list"}, "owe");
    if (edit.listed())
        return 0;
    const Args &a = edit.args;
    const std::string &act = edit.act;
    if (!a.has("--wlan"))
        bad("--wlan: missing, the WLAN to %s", act.c_str());
    long long radio = a.number("--radio", 1, 1, INT_MAX), wlan = a.number("--wlan", 0, 1, INT_MAX);
    int open = a.integer("--open", 1);

    Words out;
    bool found = false;
    for (const std::string &line : edit.lines) {
        int r, w, o;
        if (sscanf(line.c_str(), "%d %d %d", &r, &w, &o) == 3 && r == radio && w == wlan)
            found = true;
        else
            out.push_back(line);
    }
    if (!found && act == "del")
        failed("radio %lld WLAN %lld is not listed in %s", radio, wlan, edit.path.c_str());
    if (act == "add")
        out.push_back(std::to_string(radio) + " " + std::to_string(wlan) + " " + std::to_string(open));
    write_lines(edit.path, out);
    return 0;
}

}  // namespace

const Command station_command = {
    "station", "add|set|del|list [--mac MAC] [--ip A.B.C.D] [--rx N] [--tx N]",
    "edit the stations the simulated device reports ($DEVSIM_ROOT/stations)\n"
    "One station a line, \"MAC IPV4 RX TX\", \"-\" for unknown. add writes the whole line\n"
    "anew, set changes the fields given of a listed station, del removes it.",
    {
        {"--mac", "MAC", "the station (" DEVSIM_MAC ")"},
        {"--ip", "A.B.C.D", "its IPv4 address, or - (add: -)"},
        {"--rx", "N", "bytes received, or - (add: -)"},
        {"--tx", "N", "bytes sent, or - (add: -)"},
    },
    run_station,
};

const Command owe_command = {
    "owe", "add|del|list --radio R --wlan W [--open N]",
    "edit the OWE transition WLANs of the simulated device ($DEVSIM_ROOT/owe)\n"
    "One WLAN a line, \"RADIO WLAN OPENSSID_IDX\", indexes from 1. add replaces the\n"
    "line of the same radio and WLAN.",
    {
        {"--radio", "R", "radio, from 1 (1)"},
        {"--wlan", "W", "WLAN, from 1"},
        {"--open", "N", "WLAN index of its open SSID (1)"},
    },
    run_owe,
};

}  // namespace devsim
