// The server's seccomp program is built with libseccomp for the native architecture only (calls
// of any other architecture, such as 32-bit calls on x86-64, end the process) and allows every call
// but those named below. Landlock is reached through its raw calls, with its network interface
// declared here where the system's headers predate it.
#include "confine/confine.h"

#include <linux/landlock.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>

namespace {

// Landlock's network interface (ABI 4, Linux 6.7), for headers older than it.
constexpr uint64_t LANDLOCK_NET_BIND_TCP = 1ULL << 0;
constexpr uint64_t LANDLOCK_NET_CONNECT_TCP = 1ULL << 1;
constexpr int LANDLOCK_RULE_NET = 2;
constexpr int LANDLOCK_NET_ABI = 4;

struct LandlockRuleset {
    uint64_t handled_access_fs;
    uint64_t handled_access_net;
};

struct LandlockNetPort {
    uint64_t allowed_access;
    uint64_t port;
};

constexpr int DENIED = SCMP_ACT_ERRNO(EPERM);

/// Calls denied whatever their arguments.
constexpr std::array DENIED_CALLS = {
    SCMP_SYS(connect),       SCMP_SYS(socketpair),       SCMP_SYS(io_uring_setup),
    SCMP_SYS(io_uring_enter), SCMP_SYS(io_uring_register), SCMP_SYS(ptrace),
    SCMP_SYS(process_vm_readv), SCMP_SYS(process_vm_writev), SCMP_SYS(unshare),
    SCMP_SYS(setns),
};

/// The clone flags that make a new namespace.
constexpr std::array<scmp_datum_t, 7> NAMESPACE_FLAGS = {
    CLONE_NEWNS, CLONE_NEWCGROUP, CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET};

/// The socket types (type & 0xf) other than SOCK_STREAM an AF_INET socket may not have.
constexpr std::array OTHER_SOCKET_TYPES = {0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

struct FilterRelease {
    void operator()(void *context) const { seccomp_release(context); }
};
using Filter = std::unique_ptr<void, FilterRelease>;

/// Denies `call` when its argument comparisons hold; 0, or a negative error.
template <typename... Comparisons> int deny(const Filter &filter, int call, Comparisons... comparisons)
{
    return seccomp_rule_add(filter.get(), DENIED, call, sizeof...(comparisons), comparisons...);
}

/// Denies calls of the socket family that open or use sockets beyond the server's; 0, or negative.
int deny_sockets(const Filter &filter)
{
    // Every family but AF_INET (2) and AF_NETLINK (16): one rule cannot compare an argument twice.
    int failed = deny(filter, SCMP_SYS(socket), SCMP_A0_32(SCMP_CMP_LT, AF_INET));
    for (uint32_t family = AF_INET + 1; family < AF_NETLINK; family++)
        failed |= deny(filter, SCMP_SYS(socket), SCMP_A0_32(SCMP_CMP_EQ, family));
    failed |= deny(filter, SCMP_SYS(socket), SCMP_A0_32(SCMP_CMP_GT, AF_NETLINK));
    failed |= deny(filter, SCMP_SYS(socket), SCMP_A0_32(SCMP_CMP_EQ, AF_NETLINK), SCMP_A2_32(SCMP_CMP_NE, NETLINK_ROUTE));
    for (int type : OTHER_SOCKET_TYPES)
        failed |= deny(filter, SCMP_SYS(socket), SCMP_A0_32(SCMP_CMP_EQ, AF_INET),
                       SCMP_A1_32(SCMP_CMP_MASKED_EQ, 0xf, static_cast<uint32_t>(type)));
    failed |= deny(filter, SCMP_SYS(sendto), SCMP_A3_32(SCMP_CMP_MASKED_EQ, MSG_FASTOPEN, MSG_FASTOPEN));
    failed |= deny(filter, SCMP_SYS(sendmsg), SCMP_A2_32(SCMP_CMP_MASKED_EQ, MSG_FASTOPEN, MSG_FASTOPEN));
    failed |= deny(filter, SCMP_SYS(sendmmsg), SCMP_A3_32(SCMP_CMP_MASKED_EQ, MSG_FASTOPEN, MSG_FASTOPEN));
    return failed;
}

/// Denies the calls that trace, share rings with the kernel or make namespaces; 0, or negative.
int deny_escapes(const Filter &filter)
{
    int failed = 0;
    for (int call : DENIED_CALLS)
        failed |= deny(filter, call);
    for (scmp_datum_t flag : NAMESPACE_FLAGS)
        failed |= deny(filter, SCMP_SYS(clone), SCMP_A0_64(SCMP_CMP_MASKED_EQ, flag, flag));
    // clone3 keeps its flags in memory a filter cannot read: "not implemented" makes the C library
    // fall back to clone, whose flags are checked above.
    failed |= seccomp_rule_add(filter.get(), SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0);
    return failed;
}

/// Landlock's ABI version, or -1 when the kernel has no Landlock.
int landlock_abi()
{
    return static_cast<int>(syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION));
}

} // namespace

int confine_server_filter(int fd)
{
    const Filter filter(seccomp_init(SCMP_ACT_ALLOW));
    if (filter == nullptr || deny_sockets(filter) != 0 || deny_escapes(filter) != 0)
        return -1;
    return seccomp_export_bpf(filter.get(), fd) == 0 ? 0 : -1;
}

int confine_landlock_tcp(uint16_t port)
{
    if (landlock_abi() < LANDLOCK_NET_ABI)
        return 1;
    const LandlockRuleset ruleset{0, LANDLOCK_NET_BIND_TCP | LANDLOCK_NET_CONNECT_TCP};
    const int ruleset_fd = static_cast<int>(syscall(SYS_landlock_create_ruleset, &ruleset, sizeof ruleset, 0));
    if (ruleset_fd < 0)
        return -1;
    const LandlockNetPort allowed{LANDLOCK_NET_CONNECT_TCP, port};
    const bool applied = syscall(SYS_landlock_add_rule, ruleset_fd, LANDLOCK_RULE_NET, &allowed, 0) == 0 &&
                         prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                         syscall(SYS_landlock_restrict_self, ruleset_fd, 0) == 0;
    close(ruleset_fd);
    return applied ? 0 : -1;
}
