// The server's seccomp program and the Landlock TCP rules, each applied in a death test's child that tries
// a table of calls. tests/serve/run tries connect, UDP, IPv6 and AF_UNIX sockets in the real sandbox,
// tests/https/run the Landlock rules.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>

#include <functional>
#include <tuple>
#include <vector>

#include "confine/confine.h"
#include "e2e/server_process.h"

namespace {

/// A call's name, 0 when it works or its errno, and the call.
using Row = std::tuple<const char *, int, std::function<long()>>;

/// After a confining call that returned `confined`, makes each row's call; prints the rows that did not
/// turn out as they say and ends the process with their count.
[[noreturn]] void try_rows(int confined, const std::vector<Row> &rows)
{
    int wrong = confined != 0;
    for (const auto &[name, expected, call] : rows) {
        const int got = call() >= 0 ? 0 : errno;
        if (got != expected)
            wrong++, fprintf(stderr, "%s: %s\n", name, got == 0 ? "allowed" : strerrorname_np(got));
    }
    _exit(wrong);
}

/// A new TCP socket connected (`binding`: bound) to 127.0.0.1:`port`.
long tcp(int port, bool binding = false)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(port);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    return binding ? bind(fd, generic, sizeof address) : connect(fd, generic, sizeof address);
}

/// Sends a byte to 127.0.0.1:`port` with TCP Fast Open, by sendmsg (`message`) or sendto.
long fast_open(int port, bool message)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(port);
    char byte = 'x';
    iovec piece{&byte, 1};
    const msghdr header{&address, sizeof address, &piece, 1, nullptr, 0, 0};
    return message ? sendmsg(fd, &header, MSG_FASTOPEN | MSG_NOSIGNAL)
                   : sendto(fd, &byte, 1, MSG_FASTOPEN | MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

/// Loads the program confine_server_filter wrote, read back from `memfd` as bubblewrap reads it; 0, or -1.
int load_server_filter(int memfd)
{
    std::vector<sock_filter> program(4096);
    const ssize_t size = pread(memfd, program.data(), program.size() * sizeof(sock_filter), 0);
    if (size <= 0 || size % static_cast<ssize_t>(sizeof(sock_filter)) != 0)
        return -1;
    const sock_fprog loaded{static_cast<unsigned short>(size / sizeof(sock_filter)), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &loaded) == 0 ? 0 : -1;
}

TEST(Confine, ServerFilterDeniesReachingOutButNotTheRouteSocket)
{
    const int memfd = memfd_create("varnok-filter", MFD_CLOEXEC), closed = bound_port();
    ASSERT_EQ(confine_server_filter(memfd), 0);
    const std::vector<Row> rows = {
        {"sendto with MSG_FASTOPEN", EPERM, [=] { return fast_open(closed, false); }},
        {"sendmsg with MSG_FASTOPEN", EPERM, [=] { return fast_open(closed, true); }},
        {"socket AF_INET SOCK_RAW", EPERM, [] { return socket(AF_INET, SOCK_RAW, IPPROTO_ICMP); }},
        {"socket AF_PACKET", EPERM, [] { return socket(AF_PACKET, SOCK_RAW, 0); }},
        {"socket AF_NETLINK other than route", EPERM, [] { return socket(AF_NETLINK, SOCK_RAW, NETLINK_AUDIT); }},
        {"unshare a user namespace", EPERM, [] { return unshare(CLONE_NEWUSER); }},
        {"clone into a network namespace", EPERM,
         [] { return syscall(SYS_clone, CLONE_NEWNET | SIGCHLD, nullptr, nullptr, nullptr, 0) == 0 ? _exit(0), 0L : -1L; }},
        {"io_uring_setup", EPERM, [] { return syscall(SYS_io_uring_setup, 1, nullptr); }},
        {"ptrace", EPERM, [] { return ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
        {"getifaddrs, through a route socket", 0, [] { ifaddrs *list = nullptr; return getifaddrs(&list); }},
    };
    EXPECT_EXIT(try_rows(load_server_filter(memfd), rows), testing::ExitedWithCode(0), "");
    close(memfd);
}

TEST(Confine, LandlockAllowsConnectsToOnePortAndNoBind)
{
    const int allowed = bound_port(), other = allowed ^ 1;
    if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < 4) {
        EXPECT_EXIT(_exit(confine_landlock_tcp(static_cast<uint16_t>(allowed))), testing::ExitedWithCode(1), "");
        GTEST_SKIP() << "this kernel has no Landlock network rules (Landlock ABI < 4)";
    }
    const std::vector<Row> rows = {
        {"connect to the allowed port, where nothing listens", ECONNREFUSED, [=] { return tcp(allowed); }},
        {"connect to another port", EACCES, [=] { return tcp(other); }},
        {"bind a TCP socket", EACCES, [] { return tcp(0, true); }},
    };
    EXPECT_EXIT(try_rows(confine_landlock_tcp(static_cast<uint16_t>(allowed)), rows), testing::ExitedWithCode(0), "");
}

} // namespace
