#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <tuple>
#include <vector>

#include "platform/station_lookups.h"
#include "platform/station_probe.h"
#include "sim_env.h"

namespace {

std::string address(int found, in_addr ip) { return (found ? "" : "none ") + std::string(inet_ntoa(ip)); }

// Every child of this process reaped: nothing left as a zombie.
bool no_children() { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }

// The process is gone (or a zombie of someone else), within a second.
bool ended(pid_t pid)
{
    for (int i = 0; i < 100; i++, usleep(10000)) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string all((std::istreambuf_iterator<char>(stat)), {});
        if (all.empty() || all.find(") Z") != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace

// The shell-less look-ups beside the design's (whal_getip and
// get_connection_status_by_ip): the design's pipeline, run through sh, is
// the reference for every output of ovat.
TEST(StationProbe, DecidesAsTheShellPipelineForEveryOutput)
{
    SimDevice sim;
    sim.write("stations", "aa:bb:cc:00:00:01 192.0.2.1 1 1\n");
    const std::string longest = "1.2.3." + std::string(24, '0') + "4";  // 31 bytes, octal 4
    for (auto [script, want] : std::initializer_list<std::pair<std::string, const char *>>{
             {"", "192.0.2.1"},  // the sim's own ovat
             {"echo '  IPv4:  192.0.2.8'; echo '  IPv4:  198.51.100.1'", "192.0.2.8"},
             {"printf '  IPv4:\\t192.0.2.9'", "192.0.2.9"},  // no line feed at the end
             {"printf 'State\\n IP'; sleep 0.1; printf 'v4: 192.0.2.10\\r\\n'", "192.0.2.10"},
             {"echo 'x 192.0.2.11 IPv4:'", "192.0.2.11"},  // the key anywhere, the second field
             {"echo 'IPv4:'; echo 'IPv4: 192.0.2.12'", "none 0.0.0.0"},  // the first such line only
             {"echo 'IPv4: 10.1'", "10.0.0.1"},
             {"echo 'IPv4: " + longest + "x'", "1.2.3.4"},  // fgets keeps 31 bytes
             {"echo '  IPv4:  0.0.0.0'", "0.0.0.0"},
             {"echo '  IPv4:  garbage'", "none 0.0.0.0"},
             {"true", "none 0.0.0.0"},
             {"echo 'IPv4: 192.0.2.13'; exit 3", "192.0.2.13"}}) {
        if (!script.empty())
            sim.fake_ovat(script);
        in_addr design = {htonl(0x0a000001)}, ours = {htonl(0x0a000001)};
        lookup_outcome how;
        const std::string expected = address(whal_getip("aa:bb:cc:00:00:01", &design), design);
        const int found = station_address_lookup("aa:bb:cc:00:00:01", &ours, 0, &how);
        EXPECT_EQ(address(found, ours), expected) << script;
        EXPECT_EQ(expected, want) << script;
        EXPECT_EQ(how.result, found ? LOOKUP_OK : LOOKUP_NO_ADDRESS) << script;
        EXPECT_EQ(how.line, script != "true") << script;  // the design traces a line
    }
    // ovat reads its -e text as a command: no MAC text, no ovat.
    sim.fake_ovat("touch " + sim.dir() + "/ran");
    in_addr ip = {htonl(0x0a000001)};
    lookup_outcome how;
    EXPECT_EQ(address(station_address_lookup("AA'; x; '", &ip, 0, &how), ip), "none 0.0.0.0");
    EXPECT_EQ(how.result, LOOKUP_NOT_STARTED);
    EXPECT_EQ(address(whal_getip("AA'; x; '", &ip), ip), "none 0.0.0.0");  // nor the design's shell
    EXPECT_NE(access((sim.dir() + "/ran").c_str(), F_OK), 0);
    EXPECT_TRUE(no_children());
}

TEST(StationProbe, AnOvatThatHangsFloodsOrIsMissingCostsATimeOutAtMost)
{
    SimDevice sim;
    const std::string sleeper = sim.dir() + "/sleeper";
    for (auto [script, result, found] : std::initializer_list<std::tuple<std::string, lookup_result, int>>{
             {"sleep 1000 & echo $! > " + sleeper + "; wait", LOOKUP_TIMED_OUT, 0},
             {"echo 'IPv4: 192.0.2.1'; exec sleep 1000", LOOKUP_TIMED_OUT, 0},  // answered, never ended
             {"head -c 10000000 /dev/zero | tr '\\0' x", LOOKUP_TOO_LARGE, 0},
             {"echo 'IPv4: 192.0.2.2'; head -c 10000000 /dev/zero", LOOKUP_OK, 1},
             {"exec 1>&-; exec sleep 1000", LOOKUP_TIMED_OUT, 0},  // output closed, still running
             {"", LOOKUP_NOT_STARTED, 0}}) {                       // no ovat at all
        if (script.empty())
            setenv("PATH", (sim.dir() + "/nothing").c_str(), 1);  // restored by SimDevice
        else
            sim.fake_ovat(script);
        in_addr ip = {htonl(0x0a000001)};
        lookup_outcome how;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(station_address_lookup("aa:bb:cc:00:00:01", &ip, 300, &how), found) << script;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1300)) << script;
        EXPECT_EQ(how.result, result) << script;
        EXPECT_EQ(ip.s_addr, found ? htonl(0xc0000202) : 0u) << script;
        EXPECT_TRUE(no_children()) << script;
    }
    // The group is killed: ovat's own children hold the pipe too.
    pid_t helper = 0;
    std::ifstream(sleeper) >> helper;
    ASSERT_GT(helper, 0);
    EXPECT_TRUE(ended(helper));
}

// The design reads each counter as an int up to its first non-digit, and a
// counter 0, missing or beyond an int zeroes both; ours take whole 64-bit
// numbers or nothing.
TEST(StationProbe, CountersAreWhole64BitNumbersAndWaitForTheDatabase)
{
    SimDevice sim;
    sim.write("mac", "02:00:00:00:00:aa\n");  // the device's MAC names the statistics table
    sim.write("stations", "aa:bb:cc:00:00:01 - 12abc 7\naa:bb:cc:00:00:02 - 100 0\naa:bb:cc:00:00:03 - - 5\n"
                          "aa:bb:cc:00:00:04 - 5 -\naa:bb:cc:00:00:05 - 99999999999 7\n");
    using Row = std::tuple<const char *, conn_t, conn_t>;  // the MAC, the design's and our {rx, tx}
    for (auto [mac, design, ours] : std::initializer_list<Row>{
             {"aa:bb:cc:00:00:01", {12, 7}, {0, 0}}, {"aa:bb:cc:00:00:02", {0, 0}, {0, 0}},
             {"aa:bb:cc:00:00:03", {0, 0}, {0, 0}}, {"aa:bb:cc:00:00:04", {0, 0}, {0, 0}},
             {"aa:bb:cc:00:00:05", {0, 0}, {99999999999, 7}}, {"aa:bb:cc:00:00:06", {0, 0}, {0, 0}}}) {
        conn_t c = {7, 7}, d = {7, 7};
        EXPECT_EQ(get_connection_status_by_ip(mac, &d), 0);
        EXPECT_EQ(station_counters_lookup(mac, &c), ours.rx ? 1 : 0) << mac;
        EXPECT_EQ((std::vector<uint64_t>{d.rx, d.tx, c.rx, c.tx}),
                  (std::vector<uint64_t>{design.rx, design.tx, ours.rx, ours.tx})) << mac;
    }

    sim.write("dbcmd_hang", "");
    auto rx = std::async(std::launch::async, [] {
        conn_t c = {0, 0};
        station_counters_lookup("aa:bb:cc:00:00:05", &c);
        return c.rx;
    });
    EXPECT_EQ(rx.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    unlink((sim.dir() + "/dbcmd_hang").c_str());
    EXPECT_EQ(rx.get(), 99999999999u);
}
