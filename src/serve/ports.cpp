// The ports the launcher holds for its whole run, and who holds a port it cannot have.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "serve/serve.h"

namespace {

constexpr int BACKLOG = 100;   // the server's own

/// An IPv4 or IPv6-only TCP socket bound to `port` on every address; -1 with errno when it cannot be.
int bound(int family, uint16_t port, bool reuse)
{
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    sockaddr_in ipv4{AF_INET, htons(port), {htonl(INADDR_ANY)}, {}};
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(port);
    const bool ok = (!reuse || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0) &&
                    (family != AF_INET6 || setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0) &&
                    (family == AF_INET ? bind(fd, reinterpret_cast<sockaddr *>(&ipv4), sizeof ipv4)
                                       : bind(fd, reinterpret_cast<sockaddr *>(&ipv6), sizeof ipv6)) == 0;
    if (!ok) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

/// The inode of the socket listening on TCP `port` in the system's table `file`; 0 when none.
unsigned long listening_inode(const char *file, uint16_t port)
{
    FILE *table = fopen(file, "re");
    if (table == nullptr)
        return 0;
    char line[512];
    unsigned long inode = 0;
    while (inode == 0 && fgets(line, sizeof line, table) != nullptr) {
        char local[128];
        unsigned state = 0;
        unsigned long found = 0;
        if (sscanf(line, " %*d: %127s %*s %x %*s %*s %*s %*d %*d %lu", local, &state, &found) != 3)
            continue;
        const char *colon = strrchr(local, ':');
        if (state == 0x0a && colon != nullptr && strtoul(colon + 1, nullptr, 16) == port)
            inode = found;
    }
    fclose(table);
    return inode;
}

/// "NAME, pid N" of a process with a descriptor on socket `inode`; "" when none can be seen.
std::string owner_of(unsigned long inode)
{
    const std::string wanted = "socket:[" + std::to_string(inode) + "]";
    DIR *processes = opendir("/proc");
    std::string found;
    for (dirent *process; found.empty() && processes != nullptr && (process = readdir(processes)) != nullptr;) {
        if (strspn(process->d_name, "0123456789") != strlen(process->d_name))
            continue;
        const std::string base = std::string("/proc/") + process->d_name;
        DIR *fds = opendir((base + "/fd").c_str());
        for (dirent *fd; found.empty() && fds != nullptr && (fd = readdir(fds)) != nullptr;) {
            char target[64];
            const ssize_t length = readlink((base + "/fd/" + fd->d_name).c_str(), target, sizeof target - 1);
            if (length <= 0 || wanted != std::string(target, length))
                continue;
            char name[64] = "";
            if (FILE *comm = fopen((base + "/comm").c_str(), "re")) {
                if (fgets(name, sizeof name, comm) != nullptr)
                    name[strcspn(name, "\n")] = '\0';
                fclose(comm);
            }
            found = std::string(name) + ", pid " + process->d_name;
        }
        if (fds != nullptr)
            closedir(fds);
    }
    if (processes != nullptr)
        closedir(processes);
    return found;
}

} // namespace

int serve_port_hold(uint16_t port, HeldPort *held, std::string *error)
{
    *held = {-1, -1, port};
    held->fd = bound(AF_INET, port, true);
    if (held->fd < 0 || listen(held->fd, BACKLOG) != 0) {
        const int cause = errno;
        if (held->fd >= 0)
            close(held->fd);
        held->fd = -1;
        if (cause == EACCES)
            *error = "only root may bind port " + std::to_string(port) +
                     " (start varnok-serve with sudo, or set a port of 1024 or more)";
        else if (cause == EADDRINUSE && listening_inode("/proc/net/tcp", port) == 0 &&
                 listening_inode("/proc/net/tcp6", port) == 0)
            return *error = "port " + std::to_string(port) + " still has closed connections of a program that ran "
                            "without address reuse (TIME_WAIT, about 60 s)", -2;
        else if (cause == EADDRINUSE) {
            const std::string holder = serve_port_holder(port);
            *error = "port " + std::to_string(port) + " is held by another listening program (" +
                     (holder.empty() ? "run 'sudo ss -ltnp sport = :" + std::to_string(port) + "' to see which" : holder) +
                     ")";
        } else
            *error = "port " + std::to_string(port) + " cannot be bound: " + strerror(cause);
        return -1;
    }
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(held->fd, reinterpret_cast<sockaddr *>(&address), &length);
    held->port = ntohs(address.sin_port);
    // Bound, never listening and without address reuse, it keeps every IPv6 bind of the port out.
    held->guard_fd = bound(AF_INET6, held->port, false);
    return 0;
}

uint16_t serve_port_free()
{
    for (uint16_t port = 8080; port < 8180; ++port)
        if (const int fd = bound(AF_INET, port, false); fd >= 0) {
            close(fd);
            return port;
        }
    return 8180;
}

std::string serve_port_holder(uint16_t port)
{
    unsigned long inode = listening_inode("/proc/net/tcp", port);
    if (inode == 0)
        inode = listening_inode("/proc/net/tcp6", port);
    return inode == 0 ? "" : owner_of(inode);
}
