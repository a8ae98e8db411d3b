// The wireless driver's station events: netlink messages multicast to group 1,
// several to a datagram if asked, each on a 4-byte boundary. Options that
// break the format on purpose are there for tests of the daemon's reader.
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "devsim.h"
#include "peer_records.h"

namespace devsim {

namespace {

using Bytes = std::vector<uint8_t>;

// The default offset of the address in an address event: behind the
// station's counters, where nothing else the daemon reads stands.
const int kIpOffset = 176;

int default_cmd(const Command &c)
{
    if (&c == &assoc_command)
        return SARNET_CMD_STA_ASSOC;
    if (&c == &disassoc_command)
        return SARNET_CMD_STA_DISASSOC;
    if (&c == &counters_command)
        return SARNET_CMD_STA_COUNTERS;
    return SARNET_CMD_STA_IP;
}

Bytes wireless_message(const Command &c, const Args &a)
{
    DriverFields f;
    f.cmd = static_cast<uint16_t>(a.number("--cmd", default_cmd(c), 0, 0xFFFF));
    a.mac("--mac", f.mac);
    if (&c == &counters_command) {
        f.tx = parse_u64("--tx", a.get("--tx", "0"));
        f.rx = parse_u64("--rx", a.get("--rx", "0"));
    }
    if (&c == &ip_command) {
        f.has_ip = true;
        f.ip_offset = static_cast<uint16_t>(a.number("--ip-offset", kIpOffset, 0, 0xFFFF));
        f.ip = a.ipv4("--ip", DEVSIM_IP);
    }
    f.iface = a.text("--iface", DEVSIM_IFACE, &sarnet_ifinfomsg::ifi_name, false);
    f.payload = static_cast<size_t>(a.number("--payload", sizeof(sarnet_event), 0, sizeof(sarnet_event)));
    f.nla_len = a.number("--nla-len", -1, 0, 0xFFFF);
    f.attr_type = static_cast<uint16_t>(a.number("--attr-type", SARNET_ATTR_EVENT, 0, 0xFFFF));
    f.nlmsg_len = a.number("--nlmsg-len", -1, 0, UINT32_MAX);
    f.type = static_cast<uint16_t>(a.number("--type", SARNETM_WIRELESS_EVENT, 0, 0xFFFF));
    return driver_message(f);
}

Bytes other_message(const Args &a)
{
    long long len = a.number("--len", sizeof(struct nlmsghdr), sizeof(struct nlmsghdr), 4096);
    auto nlmsg_len = static_cast<uint32_t>(a.number("--nlmsg-len", len, 0, UINT32_MAX));
    auto type = static_cast<uint16_t>(a.number("--type", __SARNETM_MAX, 0, 0xFFFF));
    return netlink_message(type, static_cast<size_t>(len), nlmsg_len);
}

const Command *driver_event(const std::string &name)
{
    for (const Command *c :
         {&assoc_command, &disassoc_command, &counters_command, &ip_command, &other_command})
        if (name == c->name)
            return c;
    bad("--then: '%s' is no driver event (assoc, disassoc, counters, ip, other)", name.c_str());
}

void send_netlink(const Bytes &data, size_t len)
{
    // The simulated access point's driver protocol.
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK);
    if (fd < 0)
        failed("netlink socket: %s", strerror(errno));
    struct sockaddr_nl to;
    memset(&to, 0, sizeof to);
    to.nl_family = AF_NETLINK;
    to.nl_groups = NETLINK_GROUP_STA;
    ssize_t n = sendto(fd, data.data(), len, 0, reinterpret_cast<struct sockaddr *>(&to), sizeof to);
    int err = errno;
    close(fd);
    // The kernel multicasts first and then also delivers to port 0, which no
    // kernel socket holds for this protocol: that half fails with
    // ECONNREFUSED whether or not anyone was listening on the group.
    if (n < 0 && err != ECONNREFUSED)
        failed("netlink send: %s", strerror(err));
}

// EVENT [options] [--then EVENT [options] ...]: all in one datagram.
int run_driver(const Command &first, const Words &words)
{
    Bytes datagram;
    long long truncate = -1;
    const Command *c = &first;
    for (size_t i = 0;;) {
        size_t j = i;
        while (j < words.size() && words[j] != "--then")
            ++j;
        Args a(*c, Words(words.begin() + i, words.begin() + j));
        if (a.has("--truncate")) {
            if (truncate >= 0)
                bad("--truncate: given twice");
            truncate = a.number("--truncate", 0, 0, INT_MAX);
        }
        datagram.resize(NLMSG_ALIGN(datagram.size()));
        Bytes m = c == &other_command ? other_message(a) : wireless_message(*c, a);
        datagram.insert(datagram.end(), m.begin(), m.end());
        if (j == words.size())
            break;
        if (j + 1 == words.size())
            bad("--then: missing event");
        c = driver_event(words[j + 1]);
        i = j + 2;
    }
    if (truncate > static_cast<long long>(datagram.size()))
        bad("--truncate: %lld bytes, the datagram has %zu", truncate, datagram.size());
    send_netlink(datagram, truncate >= 0 ? static_cast<size_t>(truncate) : datagram.size());
    return 0;
}

#define DEVSIM_THEN                                                                         \
    "Several events go in one datagram joined by --then, e.g.\n"                            \
    "  devsim other --then disassoc --mac 02-00-00-00-00-03 --payload 24\n"                  \
    "The daemon reads 256 bytes of a datagram: one whole event takes 244."

const std::vector<Option> kMessage = {
    {"--nlmsg-len", "N", "nlmsg_len as given (the message's length)"},
    {"--type", "N", "nlmsg_type (1 for an event, 2 for other)"},
    {"--truncate", "N", "send only the first N bytes of the datagram"},
};

std::vector<Option> wireless_options(std::vector<Option> own)
{
    std::vector<Option> all = {
        {"--mac", "MAC", "macaddr of the station (" DEVSIM_MAC ")"},
        {"--iface", "NAME", "ifi_name, up to 16 characters, no terminator needed (" DEVSIM_IFACE ")"},
        {"--cmd", "N", "hdr.cmd of the event (the command's own)"},
        {"--payload", "N", "bytes of the sarnet_event sent, 0 to 200 (200)"},
        {"--nla-len", "N", "nla_len as given (4 + payload)"},
        {"--attr-type", "N", "nla_type (0x8000, SARNET_ATTR_EVENT)"},
    };
    all.insert(all.end(), own.begin(), own.end());
    all.insert(all.end(), kMessage.begin(), kMessage.end());
    return all;
}

}  // namespace

const Command assoc_command = {
    "assoc", "[options] [--then EVENT ...]",
    "a station associated (SARNET_CMD_STA_ASSOC), as the driver says on netlink\n" DEVSIM_THEN,
    wireless_options({}), run_driver,
};

const Command disassoc_command = {
    "disassoc", "[options] [--then EVENT ...]",
    "a station left (SARNET_CMD_STA_DISASSOC), as the driver says on netlink\n" DEVSIM_THEN,
    wireless_options({}), run_driver,
};

const Command counters_command = {
    "counters", "[--tx N] [--rx N] [options] [--then EVENT ...]",
    "byte counters of a station (SARNET_CMD_STA_COUNTERS), as the driver says\n" DEVSIM_THEN,
    wireless_options({{"--tx", "N", "tx_bytes (0)"}, {"--rx", "N", "rx_bytes (0)"}}), run_driver,
};

const Command ip_command = {
    "ip", "[--ip A.B.C.D] [options] [--then EVENT ...]",
    "a station's address (SARNET_CMD_STA_IP), as the driver says on netlink\n" DEVSIM_THEN,
    wireless_options({{"--ip", "A.B.C.D", "the address (" DEVSIM_IP ")"},
                      {"--ip-offset", "N",
                       "hdr.len of sarnet_req_data, where the address stands (176); "
                       "past the record's end the address is left out"}}),
    run_driver,
};

const Command other_command = {
    "other", "[--len N] [--type N] [--then EVENT ...]",
    "a bare netlink message of another type (2), to stand ahead of an event\n" DEVSIM_THEN,
    [] {
        std::vector<Option> o = {{"--len", "N", "bytes of the message, header included (16)"}};
        o.insert(o.end(), kMessage.begin(), kMessage.end());
        return o;
    }(),
    run_driver,
};

}  // namespace devsim
