// libvarnok-reuse-address.so: loaded into varnok-http-server (LD_PRELOAD) by varnok-serve and the
// systemd unit, so that the server's TCP listening socket is bound with SO_REUSEADDR.
//
// The server sets no address reuse and closes every connection itself, so after it ends its port
// stays taken for about a minute while those closes settle (TIME_WAIT): a server started again at
// once cannot bind. With the option set it binds at once, while a port that another program
// listens on is still refused. Nothing else of the server changes: only the bind of an IPv4 or
// IPv6 stream socket is touched, and only by that one option.
#include <dlfcn.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>

namespace {

using BindFunction = int (*)(int, const sockaddr *, socklen_t);

/// Whether `fd` is a TCP socket: an IPv4 or IPv6 address bound to a stream socket.
bool is_tcp_socket(int fd, const sockaddr *address)
{
    if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6))
        return false;
    int type = 0;
    socklen_t length = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

} // namespace

/// The C library's bind, with SO_REUSEADDR set first on a TCP socket.
extern "C" int bind(int fd, const sockaddr *address, socklen_t length)
{
    // Constant-initialised, so no guard (and no C++ runtime) is needed to look it up once.
    static std::atomic<BindFunction> next{nullptr};
    BindFunction next_bind = next.load();
    if (next_bind == nullptr)
        next.store(next_bind = reinterpret_cast<BindFunction>(dlsym(RTLD_NEXT, "bind")));
    if (next_bind == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    if (is_tcp_socket(fd, address)) {
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    return next_bind(fd, address, length);
}
