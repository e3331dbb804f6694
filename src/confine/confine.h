// Confinement: the seccomp program bubblewrap loads into the server, and Landlock network rules
// for the launcher and what it runs.
#pragma once

#include <cstdint>

/// Writes to `fd` the seccomp program (BPF, as bwrap --seccomp reads it) that keeps the server from reaching
/// out: no connect, no TCP Fast Open (MSG_FASTOPEN in sendto/sendmsg), sockets only AF_INET SOCK_STREAM
/// (any flags) and AF_NETLINK NETLINK_ROUTE, no io_uring, no ptrace, no new namespaces; the denied calls fail with EPERM.
/// 0, or -1.
int confine_server_filter(int fd);

/// Limits the calling process and all it later runs, through Landlock, to TCP connects to `port` alone and
/// no TCP bind. 0 when applied, 1 when the kernel has no Landlock network rules (ABI < 4), -1 on failure.
int confine_landlock_tcp(uint16_t port);
