// libvarnok-held-port.so: loaded into varnok-http-server (LD_PRELOAD) by varnok-serve, so that every
// run of the server serves on the one listening socket the launcher binds before the first run and
// keeps for its whole life. No connection waiting in that socket's queue is lost between two runs,
// and a new run never has to wait for the last one's port to be free again.
//
// The launcher hands three descriptors down, named by environment variables in decimal:
//
//   VARNOK_HELD_FD     its bound, listening IPv4 TCP socket. When the server binds an IPv4 stream
//                      socket to that socket's port (or to port 0), the bind adopts the held socket
//                      instead: dup2(held, fd), and 0 is returned. Every other bind goes to the C
//                      library untouched.
//   VARNOK_READY_FD    one end of an AF_UNIX stream socket pair. Each successful listen on the
//                      adopted descriptor (the C library's; on a socket that already listens it only
//                      sets the backlog) sends the byte 'L' on it: the server is about to accept.
//   VARNOK_CONTROL_FD  a memfd of at least one page, mapped shared and read-only at the adopting
//                      bind. When its first byte is non-zero, the next accept (or accept4) on the
//                      adopted descriptor ends the process at once with status 75 instead: the
//                      launcher asks for a restart between two connections, and wakes a server idle
//                      in accept by connecting to the port itself.
//
// Without VARNOK_HELD_FD nothing changes. A missing or unusable ready or control descriptor only
// drops its part. Nothing is added to the accept path but the read of one byte in memory.
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace {

constexpr int RESTART_STATUS = 75;

/// The descriptor the held socket was adopted into, or -1.
std::atomic<int> adopted{-1};
/// The ready descriptor read at the adopting bind, or -1.
std::atomic<int> ready{-1};
/// The control page mapped at the adopting bind, or null.
std::atomic<const volatile unsigned char *> control{nullptr};

/// The C library's function `name`, looked up once into `slot` (constant-initialised: no guard,
/// no C++ runtime).
template <typename Function> Function next_function(std::atomic<Function> &slot, const char *name)
{
    Function function = slot.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
        slot.store(function, std::memory_order_release);
    }
    return function;
}

/// The descriptor named by environment variable `name` in decimal, or -1.
int descriptor_from_environment(const char *name)
{
    const char *text = getenv(name);
    if (text == nullptr || *text < '0' || *text > '9')
        return -1;
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    return *end == '\0' && value <= 0x7fffffff ? static_cast<int>(value) : -1;
}

/// The port of IPv4 socket `fd` in network order, or -1 when it is no bound IPv4 socket.
int ipv4_port(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0 || address.sin_family != AF_INET)
        return -1;
    return address.sin_port;
}

/// Whether a bind of `fd` to `address` is to adopt the socket `held`.
bool binds_held_port(int fd, const sockaddr *address, socklen_t length, int held)
{
    if (address == nullptr || length < sizeof(sockaddr_in) || address->sa_family != AF_INET || fd == held)
        return false;
    int type = 0;
    socklen_t type_length = sizeof type;
    if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &type_length) != 0 || type != SOCK_STREAM)
        return false;
    const int requested = reinterpret_cast<const sockaddr_in *>(address)->sin_port;
    const int held_port = ipv4_port(held);
    return held_port >= 0 && (requested == 0 || requested == held_port);
}

/// Maps the first page of the control memfd read-only and shared, or null.
const volatile unsigned char *map_control_page()
{
    const int fd = descriptor_from_environment("VARNOK_CONTROL_FD");
    if (fd < 0)
        return nullptr;
    void *page = mmap(nullptr, static_cast<size_t>(sysconf(_SC_PAGESIZE)), PROT_READ, MAP_SHARED, fd, 0);
    return page == MAP_FAILED ? nullptr : static_cast<const volatile unsigned char *>(page);
}

/// Puts the held socket in place of `fd`, keeping `fd`'s close-on-exec flag; 0, or -1.
int adopt(int held, int fd)
{
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0 || dup3(held, fd, (flags & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0) < 0)
        return -1;
    if (control.load() == nullptr)
        control.store(map_control_page());
    ready.store(descriptor_from_environment("VARNOK_READY_FD"));
    adopted.store(fd);
    return 0;
}

/// Ends the process when the launcher asked for a restart and `fd` is the adopted descriptor.
void end_if_restart_asked(int fd)
{
    if (fd != adopted.load(std::memory_order_relaxed))
        return;
    const volatile unsigned char *page = control.load(std::memory_order_relaxed);
    if (page != nullptr && page[0] != 0)
        _exit(RESTART_STATUS);
}

using BindFunction = int (*)(int, const sockaddr *, socklen_t);
using ListenFunction = int (*)(int, int);
using AcceptFunction = int (*)(int, sockaddr *, socklen_t *);
using Accept4Function = int (*)(int, sockaddr *, socklen_t *, int);

std::atomic<BindFunction> next_bind{nullptr};
std::atomic<ListenFunction> next_listen{nullptr};
std::atomic<AcceptFunction> next_accept{nullptr};
std::atomic<Accept4Function> next_accept4{nullptr};

} // namespace

/// The C library's bind, or the adoption of the held socket when `fd` asks for its port.
extern "C" int bind(int fd, const sockaddr *address, socklen_t length)
{
    const BindFunction function = next_function(next_bind, "bind");
    if (function == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    const int held = descriptor_from_environment("VARNOK_HELD_FD");
    if (held >= 0 && binds_held_port(fd, address, length, held) && adopt(held, fd) == 0)
        return 0;
    return function(fd, address, length);
}

/// The C library's listen, which on the adopted descriptor tells the launcher the server is ready.
extern "C" int listen(int fd, int backlog)
{
    const ListenFunction function = next_function(next_listen, "listen");
    if (function == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    const int result = function(fd, backlog);
    const int ready_fd = ready.load();
    if (result == 0 && fd == adopted.load() && ready_fd >= 0) {
        const int saved_errno = errno;
        (void)!send(ready_fd, "L", 1, MSG_NOSIGNAL);
        errno = saved_errno;
    }
    return result;
}

/// The C library's accept, unless a restart is asked on the adopted descriptor.
extern "C" int accept(int fd, sockaddr *address, socklen_t *length)
{
    end_if_restart_asked(fd);
    const AcceptFunction function = next_function(next_accept, "accept");
    if (function == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return function(fd, address, length);
}

/// The C library's accept4, unless a restart is asked on the adopted descriptor.
extern "C" int accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    end_if_restart_asked(fd);
    const Accept4Function function = next_function(next_accept4, "accept4");
    if (function == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return function(fd, address, length, flags);
}
