// Binds sockets of several kinds and prints, one line each, what the bind did to them: run with
// libvarnok-held-port.so preloaded to see which binds it adopts and that it sets no option on any.
// Usage: held_port_probe HELD_PORT OTHER_PORT
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/// The value of socket option `option` on `fd`, or -1.
static int option_of(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

/// Binds a new socket of `family` and `type` to loopback port `port` and prints the outcome.
static void probe(const char *name, int family, int type, int port)
{
    const int fd = socket(family, type, 0);
    sockaddr_in6 address6{};
    address6.sin6_family = AF_INET6;
    address6.sin6_port = htons(static_cast<uint16_t>(port));
    address6.sin6_addr = in6addr_loopback;
    sockaddr_in address4{};
    address4.sin_family = AF_INET;
    address4.sin_port = htons(static_cast<uint16_t>(port));
    address4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool six = family == AF_INET6;
    const int result = six ? bind(fd, reinterpret_cast<sockaddr *>(&address6), sizeof address6)
                           : bind(fd, reinterpret_cast<sockaddr *>(&address4), sizeof address4);
    printf("%s bind=%s reuseaddr=%d reuseport=%d listening=%d\n", name, result == 0 ? "ok" : strerrorname_np(errno),
           option_of(fd, SO_REUSEADDR), option_of(fd, SO_REUSEPORT), option_of(fd, SO_ACCEPTCONN));
    close(fd);
}

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    const int held = atoi(argv[1]), other = atoi(argv[2]);
    probe("udp", AF_INET, SOCK_DGRAM, held);
    probe("tcp6", AF_INET6, SOCK_STREAM, held);
    probe("tcp4-other", AF_INET, SOCK_STREAM, other);
    probe("tcp4-held", AF_INET, SOCK_STREAM, held);
    probe("tcp4-any", AF_INET, SOCK_STREAM, 0);
    return 0;
}
