// Put in the server's place by tests/serve/run: prints what the sandbox lets it have and do, a line each,
// then ends. The port of a listener outside comes from "probe-port" in package.json.
// Put in the HTTPS front's place by tests/https/run (where /front/haproxy.cfg names the server's port), it
// ends with 100 plus what it could do: 1 connect to the server's port + 10, 2 not connect to the server's
// port, 4 hold more than descriptors 0 to 4, 8 bind a TCP port.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

const char *outcome(int result)
{
    return result == 0 ? "allowed" : strerrorname_np(errno);
}

int connect_to(int family, int type, uint16_t port)
{
    const int fd = socket(family, type, 0);
    if (fd < 0)
        return -1;
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

int bind_to(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_ANY)}, {}};
    return fd < 0 ? -1 : bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

int highest_descriptor()
{
    int highest = -1;
    for (int fd = 0; fd < 1024; ++fd)
        if (fcntl(fd, F_GETFD) != -1)
            highest = fd;
    return highest;
}

/// The front's outcome, from the server's port in its configuration.
int as_front(FILE *config)
{
    char line[256];
    unsigned port = 0;
    while (fgets(line, sizeof line, config) != nullptr)
        if (const char *found = strstr(line, "server plain 127.0.0.1:"))
            sscanf(found + 23, "%u", &port);
    fclose(config);
    const int fds = highest_descriptor() > 4;
    return 100 + (connect_to(AF_INET, SOCK_STREAM, port + 10) == 0) + 2 * (connect_to(AF_INET, SOCK_STREAM, port) != 0) +
           4 * fds + 8 * (bind_to(0) == 0);
}

} // namespace

int main()
{
    if (FILE *config = fopen("/front/haproxy.cfg", "r"))
        return as_front(config);
    unsigned port = 0;
    char text[4096] = "";
    if (FILE *settings = fopen("package.json", "r")) {
        text[fread(text, 1, sizeof text - 1, settings)] = '\0';
        fclose(settings);
    }
    if (const char *found = strstr(text, "\"probe-port\":"))
        sscanf(found + 13, "%u", &port);
    printf("probe fds:");
    for (int fd = 0; fd < 1024; ++fd)
        if (fcntl(fd, F_GETFD) != -1)
            printf(" %d", fd);
    printf("\nprobe connect tcp: %s\n", outcome(connect_to(AF_INET, SOCK_STREAM, port)));
    printf("probe send udp: %s\n", outcome(socket(AF_INET, SOCK_DGRAM, 0) < 0 ? -1 : 0));
    printf("probe unix socket: %s\n", outcome(socket(AF_UNIX, SOCK_STREAM, 0) < 0 ? -1 : 0));
    printf("probe ipv6 socket: %s\n", outcome(socket(AF_INET6, SOCK_STREAM, 0) < 0 ? -1 : 0));
    printf("probe bind 80: %s\n", outcome(bind_to(80)));
    printf("probe home: %s\n", outcome(access("/home", F_OK)));
    return 0;
}
