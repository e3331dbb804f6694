// libvarnok-held-port.so: which binds it adopts, its bind called as the C library's; in the real server,
// a restart asked while an answer is in hand. tests/serve/run restarts the confined server under clients.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>

#include <optional>
#include <vector>

#include "e2e/server_process.h"

namespace {

/// A socket listening on 127.0.0.1, as the launcher holds it, and its port in `port`.
int held_socket(int *port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), length);
    listen(fd, 100);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}

/// Starts the server in `site` with the library preloaded and `variables` set; the environment is then put back.
void start_preloaded(Site &site, const std::vector<std::pair<const char *, std::string>> &variables)
{
    std::vector<std::pair<const char *, std::optional<std::string>>> kept;
    for (const auto &[name, value] : variables) {
        const char *was = getenv(name);
        kept.emplace_back(name, was != nullptr ? std::optional<std::string>(was) : std::nullopt);
        setenv(name, value.c_str(), 1);
    }
    site.server.emplace(site.folder.path() / "www", site.folder.path());
    for (const auto &[name, was] : kept)
        was ? setenv(name, was->c_str(), 1) : unsetenv(name);
}

TEST(HeldPort, RestartAskedEndsTheServerAfterTheAnswerInHand)
{
    int port = 0, ready[2];
    const int held = held_socket(&port), control_fd = memfd_create("varnok-control", 0);
    ASSERT_TRUE(socketpair(AF_UNIX, SOCK_STREAM, 0, ready) == 0 && ftruncate(control_fd, 4096) == 0);
    auto *control = static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, control_fd, 0));
    Site site;
    const std::string big(16 << 20, 'b');
    site.folder.write("www/big.bin", big);
    site.folder.write("package.json", "{\"varnok\":{\"port\":" + std::to_string(port) + "}}");
    const char *asan = getenv("ASAN_OPTIONS");   // the sanitizer build's runtime would rather load first
    start_preloaded(site, {{"VARNOK_HELD_FD", std::to_string(held)}, {"VARNOK_READY_FD", std::to_string(ready[1])},
                           {"VARNOK_CONTROL_FD", std::to_string(control_fd)}, {"LD_PRELOAD", VARNOK_HELD_PORT_LIBRARY},
                           {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}});
    pollfd waiting{ready[0], POLLIN, 0};
    char byte = 0;
    ASSERT_TRUE(poll(&waiting, 1, 10000) == 1 && recv(ready[0], &byte, 1, 0) == 1 && byte == 'L') << "no ready byte";

    // The answer has begun (the server is in its send) when the restart is asked; a connection wakes it.
    const int in_hand = connect_to(port);
    send(in_hand, "GET /big.bin HTTP/1.1\r\n\r\n", 25, MSG_NOSIGNAL);
    ASSERT_EQ(recv(in_hand, &byte, 1, 0), 1);
    control[0] = 1;
    const int wake = connect_to(port);
    std::string answer(1, byte);
    char chunk[65536];
    for (ssize_t got; (got = recv(in_hand, chunk, sizeof chunk, 0)) > 0;)
        answer.append(chunk, static_cast<size_t>(got));
    EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, big.size());
    const int status = site.server->wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 75) << "status " << status;
    munmap(const_cast<char *>(control), 4096);
    for (const int fd : {held, ready[0], ready[1], control_fd, in_hand, wake})
        close(fd);
}

/// The value of socket option `option` on `fd`, or -1.
int option_of(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

TEST(HeldPort, OnlyTheHeldPortIsAdoptedAndNoOptionIsSet)
{
    void *library = dlopen(VARNOK_HELD_PORT_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto held_bind = reinterpret_cast<int (*)(int, const sockaddr *, socklen_t)>(dlsym(library, "bind"));
    int port = 0;
    const int held = held_socket(&port), other = bound_port();
    const struct { const char *what; bool named; int family, type, port, error, listening; } cases[] = {
        {"UDP", true, AF_INET, SOCK_DGRAM, port, 0, 0}, {"IPv6", true, AF_INET6, SOCK_STREAM, port, 0, 0},
        {"another port", true, AF_INET, SOCK_STREAM, other, 0, 0}, {"the held port", true, AF_INET, SOCK_STREAM, port, 0, 1},
        {"any port", true, AF_INET, SOCK_STREAM, 0, 0, 1},
        {"the held port, no socket named", false, AF_INET, SOCK_STREAM, port, EADDRINUSE, 0},
        {"any port, no socket named", false, AF_INET, SOCK_STREAM, 0, 0, 0},
    };
    for (const auto &c : cases) {
        c.named ? setenv("VARNOK_HELD_FD", std::to_string(held).c_str(), 1) : unsetenv("VARNOK_HELD_FD");
        const int fd = socket(c.family, c.type, 0);
        const sockaddr_in6 address6{AF_INET6, htons(static_cast<uint16_t>(c.port)), 0, in6addr_loopback, 0};
        const sockaddr_in address4 = loopback(c.port);
        const int result = c.family == AF_INET6 ? held_bind(fd, reinterpret_cast<const sockaddr *>(&address6), sizeof address6)
                                                : held_bind(fd, reinterpret_cast<const sockaddr *>(&address4), sizeof address4);
        EXPECT_EQ(result == 0 ? 0 : errno, c.error) << c.what;
        EXPECT_EQ(option_of(fd, SO_ACCEPTCONN), c.listening) << c.what;
        EXPECT_EQ(option_of(fd, SO_REUSEADDR) + option_of(fd, SO_REUSEPORT), 0) << c.what;
        close(fd);
    }
    unsetenv("VARNOK_HELD_FD");
    close(held);
    dlclose(library);
}

} // namespace
