// Netwatch: offers compared and described; in a network namespace of the test's own, a table of changes,
// each with whether the socket wakes within a bounded wait and what the offer becomes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <sstream>
#include <string>

#include "netwatch/netwatch.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int NOTICE_WAIT_MS = 2000;      // a change's messages are queued before `ip` ends; this is slack
constexpr int QUIET_MS = 300;             // no message for this long: the last change has settled
constexpr milliseconds CHILD_LIMIT{90000};

/// An offer of `addresses`, with `beyond` in the first slot past its count.
NetOffer offer_of(std::initializer_list<const char *> addresses, const char *beyond = "")
{
    NetOffer offer{};
    for (const char *address : addresses)
        snprintf(offer.addresses[offer.count++].data(), 16, "%s", address);
    snprintf(offer.addresses[offer.count].data(), 16, "%s", beyond);
    return offer;
}

/// netwatch_describe's text for a buffer of `size` bytes, first filled with '#' (600 of them at most).
std::string described(const NetOffer &offer, int size = 600)
{
    std::string text(600, '#');
    netwatch_describe(offer, text.data(), std::min(size, 600));
    return text.substr(0, text.find('\0'));
}

TEST(NetwatchOffer, SameMeansTheSameAddressesInTheSameOrder) {
    const NetOffer two = offer_of({"192.168.1.20", "10.0.0.5"});
    const struct { const char *what; NetOffer other; int same; } cases[] = {
        {"the same", offer_of({"192.168.1.20", "10.0.0.5"}), 1},
        {"what lies beyond the count", offer_of({"192.168.1.20", "10.0.0.5"}, "10.9.9.9"), 1},
        {"swapped", offer_of({"10.0.0.5", "192.168.1.20"}), 0},
        {"one more", offer_of({"192.168.1.20", "10.0.0.5", "10.0.0.6"}), 0},
        {"one fewer", offer_of({"192.168.1.20"}), 0},
        {"one differs", offer_of({"192.168.1.20", "10.0.0.50"}), 0},
        {"none", offer_of({}), 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(netwatch_same(two, c.other), c.same) << c.what;
        EXPECT_EQ(netwatch_same(c.other, two), c.same) << c.what;
    }
    EXPECT_EQ(netwatch_same(offer_of({}), offer_of({}, "10.0.0.1")), 1);
}

TEST(NetwatchOffer, DescribedAsOneLineCutToItsRoom) {
    NetOffer full{};
    std::string all;
    for (full.count = 0; full.count < NETWATCH_MAX_ADDRESSES; ++full.count) {
        snprintf(full.addresses[full.count].data(), 16, "%s", ("10.0.0." + std::to_string(full.count + 100)).c_str());
        all += (full.count > 0 ? ", " : "") + std::string(full.addresses[full.count].data());
    }
    const struct { NetOffer offer; int size; std::string text; } cases[] = {
        {offer_of({}), 600, "no address"}, {offer_of({}, "10.0.0.1"), 600, "no address"},
        {offer_of({"192.168.1.20"}), 600, "192.168.1.20"},
        {offer_of({"192.168.1.20", "10.0.0.5"}, "10.9.9.9"), 600, "192.168.1.20, 10.0.0.5"},
        {offer_of({"255.255.255.255", "1.2.3.4"}), 600, "255.255.255.255, 1.2.3.4"}, {full, 600, all},
        {offer_of({"192.168.1.20", "10.0.0.5"}), 15, "192.168.1.20, "}, {offer_of({"192.168.1.20"}), 1, ""},
        {offer_of({"192.168.1.20"}), 0, std::string(600, '#')}, {offer_of({"192.168.1.20"}), -1, std::string(600, '#')},
    };
    for (const auto &c : cases)
        EXPECT_EQ(described(c.offer, c.size), c.text) << c.size;
}

TEST(NetwatchOpen, TheSocketNeverBlocksNorOutlivesAnExec) {
    const int fd = netwatch_open();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_GE(netwatch_drain(fd), 0);
    close(fd);
    EXPECT_EQ(netwatch_drain(fd), -1);
}

/// iproute2's ip, or null.
const char *ip_path()
{
    for (const char *path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (access(path, X_OK) == 0)
            return path;
    return nullptr;
}

/// Runs the lines of `batch` as ip commands, killed after 5 s; 0 when every one succeeded.
int run_ip(const std::string &batch)
{
    return system(("printf '%s\\n' '" + batch + "' | timeout -s KILL 5 " + ip_path() + " -batch - >/dev/null 2>&1").c_str());
}

/// netwatch_drain's answer once `fd` is readable within `ms`; 0 when nothing came.
int notice_within(int fd, int ms)
{
    pollfd ready{fd, POLLIN, 0};
    const int count = poll(&ready, 1, ms);
    return count > 0 ? netwatch_drain(fd) : count;
}

/// A line to the parent: "SKIP why", "FAIL what", "NOTE what" or "END".
void tell(int pipe, const std::string &line)
{
    const std::string text = line + "\n";
    (void)!write(pipe, text.data(), text.size());
}

enum Notice { NOTICE_YES, NOTICE_EITHER };

struct Change {
    const char *what;
    const char *commands;   // for ip, a line each
    Notice notice;
    const char *offer;      // described, after the change
};

/// Runs one change once the last has settled, and tells the parent what did not turn out as `change` says.
void check_change(int pipe, int fd, const Change &change)
{
    for (int round = 0; round < 20 && notice_within(fd, QUIET_MS) > 0; ++round) {}
    const auto fail = [&](const std::string &why) { tell(pipe, "FAIL " + std::string(change.what) + ": " + why); };
    NetOffer before{}, after{};
    netwatch_offer(&before);
    if (run_ip(change.commands) != 0)
        fail(std::string("ip failed on ") + change.commands);
    const int notice = notice_within(fd, NOTICE_WAIT_MS);
    if (netwatch_offer(&after) != 0 || (change.notice == NOTICE_YES && notice != 1))
        fail("drain said " + std::to_string(notice) + ", or no offer");
    if (change.notice == NOTICE_EITHER)
        tell(pipe, "NOTE " + std::string(change.what) + ": drain said " + std::to_string(notice));
    if (described(after) != change.offer || netwatch_same(before, after) != (described(before) == change.offer))
        fail("the offer went from " + described(before) + " to " + described(after) + ", not to " + change.offer);
}

/// After messages overflow a small queue (a second socket shows the kernel's ENOBUFS), drain still says 1.
void check_overflow(int pipe, int fd)
{
    const int witness = netwatch_open(), least = 1;
    for (const int socket : {fd, witness})
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    std::string flood;
    for (int i = 1; i <= 20; ++i)
        flood += "addr add 10.99.0." + std::to_string(i) + "/32 dev u0\n";
    run_ip(flood);
    char byte;
    bool lost = false;
    for (ssize_t got = 0; got >= 0 && !lost;) {
        got = recv(witness, &byte, 1, MSG_DONTWAIT | MSG_TRUNC);
        lost = got < 0 && errno == ENOBUFS;
    }
    if (!lost)
        tell(pipe, "FAIL the flood of 20 addresses overflowed no queue");
    if (const int notice = netwatch_drain(fd); notice != 1 || netwatch_drain(fd) != 0)
        tell(pipe, "FAIL after an overflow, drain said " + std::to_string(notice) + " then not 0");
    close(witness);
}

/// In a new network namespace: the interfaces, then every change of the table; tells the parent, then ends.
[[noreturn]] void namespace_child(int pipe)
{
    if (unshare(CLONE_NEWNET) != 0)
        tell(pipe, std::string("SKIP no network namespace can be made here: ") + strerror(errno)), _exit(0);
    if (run_ip("link add v0 type veth peer name v1") != 0)
        tell(pipe, "SKIP ip makes no veth pair here"), _exit(0);
    if (run_ip("link set lo up\nlink add w0 type veth peer name w1\nlink add u0 type veth peer name u1\n"
               "link set v0 up\nlink set v1 up\nlink set w0 up\nlink set w1 up") != 0)
        tell(pipe, "FAIL the interfaces could not be set up");
    const int fd = netwatch_open();
    constexpr Change changes[] = {
        {"a new private address", "addr add 192.168.1.20/24 dev v0", NOTICE_YES, "192.168.1.20"},
        {"a link-local address", "addr add 169.254.7.7/16 dev v0", NOTICE_YES, "192.168.1.20"},
        {"an IPv6 address", "addr add fd00::20/64 dev v0 nodad", NOTICE_EITHER, "192.168.1.20"},
        {"a second loopback address", "addr add 127.0.0.2/8 dev lo", NOTICE_YES, "192.168.1.20"},
        {"an interface up without IPv4", "link set u0 up\nlink set u1 up", NOTICE_YES, "192.168.1.20"},
        {"a default route by the only address", "route add default via 192.168.1.1 dev v0", NOTICE_YES, "192.168.1.20"},
        {"a second address", "addr add 10.20.30.77/24 dev w0", NOTICE_YES, "192.168.1.20, 10.20.30.77"},
        {"the default route moved to it", "route replace default via 10.20.30.1 dev w0", NOTICE_YES,
         "10.20.30.77, 192.168.1.20"},
        {"the two swapped back", "route replace default via 192.168.1.1 dev v0", NOTICE_YES, "192.168.1.20, 10.20.30.77"},
        {"an address removed", "addr del 10.20.30.77/24 dev w0", NOTICE_YES, "192.168.1.20"},
    };
    NetOffer start{};
    if (fd < 0 || netwatch_offer(&start) != 0 || described(start) != "no address")
        tell(pipe, "FAIL a new namespace offers " + described(start));
    for (const Change &change : changes)
        check_change(pipe, fd, change);
    check_overflow(pipe, fd);
    tell(pipe, "END");
    _exit(0);
}

/// Everything the child at `pid` writes to `pipe` until it closes it, within CHILD_LIMIT (then it is killed).
std::string child_lines(pid_t pid, int pipe)
{
    std::string text;
    char chunk[512];
    pollfd ready{pipe, POLLIN, 0};
    for (const auto end = Clock::now() + CHILD_LIMIT; Clock::now() < end;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
        if (poll(&ready, 1, static_cast<int>(left)) <= 0)
            break;
        const ssize_t count = read(pipe, chunk, sizeof chunk);
        if (count <= 0)
            break;
        text.append(chunk, static_cast<size_t>(count));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return text;
}

TEST(NetwatchNamespace, TheOfferFollowsWhatTheServerWouldOffer) {
    if (geteuid() != 0)
        GTEST_SKIP() << "a network namespace of the test's own needs root";
    if (ip_path() == nullptr)
        GTEST_SKIP() << "iproute2's ip is not installed";
    int pipes[2];
    ASSERT_EQ(pipe2(pipes, O_CLOEXEC), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
        close(pipes[0]), namespace_child(pipes[1]);
    close(pipes[1]);
    std::istringstream lines(child_lines(pid, pipes[0]));
    close(pipes[0]);
    bool ended = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("SKIP ", 0) == 0)
            GTEST_SKIP() << line.substr(5);
        if (line.rfind("FAIL ", 0) == 0)
            ADD_FAILURE() << line.substr(5);
        if (line.rfind("NOTE ", 0) == 0)
            printf("%s\n", line.substr(5).c_str());
        ended |= line == "END";
    }
    EXPECT_TRUE(ended) << "the namespace's child ended before its table did";
}

} // namespace
