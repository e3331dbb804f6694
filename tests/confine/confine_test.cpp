// The server's seccomp program and the Landlock TCP rules, each applied in a child process that tries
// a table of calls and reports what each returned through a pipe.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <linux/filter.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>

#include <functional>
#include <vector>

#include "confine/confine.h"
#include "e2e/server_process.h"

namespace {

struct Row {
    const char *name;
    int expected; // 0 when the call works, or its errno
    std::function<int()> call;
};

/// 0 when a call's `result` is not negative, else its errno.
int outcome(long result)
{
    return result >= 0 ? 0 : errno;
}

/// A listening socket on 127.0.0.1 and its port.
struct Listener {
    Listener()
    {
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        bind(fd, reinterpret_cast<sockaddr *>(&address), length);
        listen(fd, 8);
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
    }
    ~Listener() { close(fd); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
};

/// Opens an IPv4 stream socket and passes it to `use`; 0 or the errno of the first failure.
int with_tcp_socket(const std::function<long(int)> &use)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int result = outcome(use(fd));
    close(fd);
    return result;
}

/// Connects to 127.0.0.1:`port`, or binds to 127.0.0.1:0 when `port` is 0.
int reach_loopback(int port)
{
    return with_tcp_socket([port](int fd) {
        const sockaddr_in address = loopback(port);
        const auto *generic = reinterpret_cast<const sockaddr *>(&address);
        return port != 0 ? connect(fd, generic, sizeof address) : bind(fd, generic, sizeof address);
    });
}

int new_socket(int family, int type, int protocol = 0)
{
    const int fd = socket(family, type, protocol);
    const int result = outcome(fd);
    close(fd);
    return result;
}

/// In a child: `confine`, then each row's call; the confine result followed by the rows' results.
/// `parent_side` runs in the parent meanwhile.
std::vector<int> run_confined(const std::function<int()> &confine, const std::vector<Row> &rows,
                              const std::function<void()> &parent_side = [] {})
{
    int channel[2];
    if (pipe(channel) != 0)
        return {};
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        std::vector<int> results{confine()};
        for (size_t i = 0; i < rows.size() && results[0] == 0; i++)
            results.push_back(rows[i].call());
        (void)!write(channel[1], results.data(), results.size() * sizeof(int));
        _exit(0);
    }
    close(channel[1]);
    parent_side();
    std::vector<int> results(rows.size() + 1);
    size_t got = 0;
    ssize_t count;
    while (got < results.size() * sizeof(int) &&
           (count = read(channel[0], reinterpret_cast<char *>(results.data()) + got, results.size() * sizeof(int) - got)) > 0)
        got += static_cast<size_t>(count);
    close(channel[0]);
    waitpid(child, nullptr, 0);
    results.resize(got / sizeof(int));
    return results;
}

/// Loads the program confine_server_filter wrote, read back from a memfd, as bubblewrap does.
int load_server_filter(int memfd)
{
    std::vector<sock_filter> program(4096);
    const ssize_t size = pread(memfd, program.data(), program.size() * sizeof(sock_filter), 0);
    if (size <= 0 || size % static_cast<ssize_t>(sizeof(sock_filter)) != 0)
        return -1;
    const sock_fprog loaded{static_cast<unsigned short>(size / sizeof(sock_filter)), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &loaded) == 0 ? 0 : -1;
}

/// Whether getifaddrs lists 127.0.0.1.
bool lists_loopback()
{
    ifaddrs *list = nullptr;
    bool found = false;
    if (getifaddrs(&list) != 0)
        return false;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next)
        found |= entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
                 reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr == htonl(INADDR_LOOPBACK);
    freeifaddrs(list);
    return found;
}

/// Sends one byte to `port` with TCP Fast Open, by sendto (`message` false) or sendmsg.
int fast_open(int port, bool message)
{
    return with_tcp_socket([port, message](int fd) {
        sockaddr_in address = loopback(port);
        char byte = 'x';
        iovec piece{&byte, 1};
        msghdr header{&address, sizeof address, &piece, 1, nullptr, 0, 0};
        return message ? sendmsg(fd, &header, MSG_FASTOPEN | MSG_NOSIGNAL)
                       : sendto(fd, &byte, 1, MSG_FASTOPEN | MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&address),
                                sizeof address);
    });
}

/// A clone into a new network namespace; a child it made ends at once.
int clone_new_namespace()
{
    const long made = syscall(SYS_clone, CLONE_NEWNET | SIGCHLD, nullptr, nullptr, nullptr, 0);
    if (made == 0)
        _exit(0);
    if (made > 0)
        waitpid(static_cast<pid_t>(made), nullptr, 0);
    return outcome(made);
}

TEST(Confine, ServerFilterDeniesReachingOutAndKeepsServing)
{
    const int memfd = memfd_create("varnok-filter", MFD_CLOEXEC);
    ASSERT_EQ(confine_server_filter(memfd), 0);
    Listener outside, served;
    const std::vector<Row> rows = {
        {"connect to 127.0.0.1", EPERM, [&] { return reach_loopback(outside.port); }},
        {"sendto with MSG_FASTOPEN", EPERM, [&] { return fast_open(outside.port, false); }},
        {"sendmsg with MSG_FASTOPEN", EPERM, [&] { return fast_open(outside.port, true); }},
        {"socket AF_INET SOCK_DGRAM", EPERM, [] { return new_socket(AF_INET, SOCK_DGRAM); }},
        {"socket AF_INET SOCK_RAW", EPERM, [] { return new_socket(AF_INET, SOCK_RAW, IPPROTO_ICMP); }},
        {"socket AF_INET6 SOCK_STREAM", EPERM, [] { return new_socket(AF_INET6, SOCK_STREAM); }},
        {"socket AF_UNIX SOCK_STREAM", EPERM, [] { return new_socket(AF_UNIX, SOCK_STREAM); }},
        {"socket AF_PACKET", EPERM, [] { return new_socket(AF_PACKET, SOCK_RAW); }},
        {"socket AF_NETLINK other than route", EPERM, [] { return new_socket(AF_NETLINK, SOCK_RAW, NETLINK_AUDIT); }},
        {"unshare a user namespace", EPERM, [] { return outcome(unshare(CLONE_NEWUSER)); }},
        {"clone into a network namespace", EPERM, clone_new_namespace},
        {"io_uring_setup", EPERM, [] { return outcome(syscall(SYS_io_uring_setup, 1, nullptr)); }},
        {"ptrace", EPERM, [] { return outcome(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)); }},
        {"socket, bind and listen on 127.0.0.1", 0,
         [] {
             return with_tcp_socket([](int fd) {
                 const sockaddr_in address = loopback(0);
                 return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? listen(fd, 8) : -1;
             });
         }},
        {"accept a connection", 0,
         [&] {
             const int connection = accept(served.fd, nullptr, nullptr);
             close(connection);
             return outcome(connection);
         }},
        {"getifaddrs lists 127.0.0.1", 0, [] { return lists_loopback() ? 0 : -1; }},
    };
    int client = -1;
    const std::vector<int> results =
        run_confined([memfd] { return load_server_filter(memfd); }, rows, [&] { client = connect_to(served.port); });
    close(client);
    close(memfd);
    ASSERT_EQ(results.size(), rows.size() + 1) << "the child could not load the program or ended early";
    for (size_t i = 0; i < rows.size(); i++)
        EXPECT_EQ(results[i + 1], rows[i].expected) << rows[i].name;
}

TEST(Confine, LandlockAllowsConnectsToOnePortAndNoBind)
{
    Listener allowed, other;
    const std::vector<Row> rows = {
        {"connect to the allowed port", 0, [&] { return reach_loopback(allowed.port); }},
        {"connect to another port", EACCES, [&] { return reach_loopback(other.port); }},
        {"bind a TCP socket", EACCES, [] { return reach_loopback(0); }},
    };
    const std::vector<int> results = run_confined([&] { return confine_landlock_tcp(static_cast<uint16_t>(allowed.port)); }, rows);
    ASSERT_FALSE(results.empty());
    if (results[0] == 1)
        GTEST_SKIP() << "this kernel has no Landlock network rules (Landlock ABI < 4)";
    ASSERT_EQ(results.size(), rows.size() + 1) << "confine_landlock_tcp returned " << results[0];
    for (size_t i = 0; i < rows.size(); i++)
        EXPECT_EQ(results[i + 1], rows[i].expected) << rows[i].name;
}

} // namespace
