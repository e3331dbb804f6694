// libvarnok-held-port.so in the real server: it serves on the socket held here, says when it listens,
// ends with status 75 between connections when asked, and leaves every other bind alone.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>

#include <cstdio>
#include <vector>

#include "e2e/server_process.h"

namespace {

constexpr int RESTART_STATUS = 75;

/// Environment variables set for as long as it lives, then put back as they were.
struct ScopedVariables {
    using Values = std::vector<std::pair<std::string, std::string>>;
    explicit ScopedVariables(const Values &values)
    {
        for (const auto &[name, value] : values) {
            const char *previous = getenv(name.c_str());
            previous_.emplace_back(name, previous != nullptr ? std::optional<std::string>(previous) : std::nullopt);
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    ~ScopedVariables()
    {
        for (const auto &[name, previous] : previous_)
            previous ? setenv(name.c_str(), previous->c_str(), 1) : unsetenv(name.c_str());
    }
    ScopedVariables(const ScopedVariables &) = delete;
    ScopedVariables &operator=(const ScopedVariables &) = delete;

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> previous_;
};

/// What the launcher hands the server: the held listening socket, the ready pair, the control memfd.
struct Launcher {
    Launcher()
    {
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        bind(held, reinterpret_cast<sockaddr *>(&address), length);
        listen(held, 100);
        getsockname(held, reinterpret_cast<sockaddr *>(&address), &length);
        port = ntohs(address.sin_port);
        socketpair(AF_UNIX, SOCK_STREAM, 0, ready);
        (void)!ftruncate(control_fd, 4096);
        control = static_cast<unsigned char *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, control_fd, 0));
    }
    ~Launcher()
    {
        munmap(control, 4096);
        for (int fd : {held, ready[0], ready[1], control_fd})
            close(fd);
    }
    Launcher(const Launcher &) = delete;
    Launcher &operator=(const Launcher &) = delete;

    /// Starts the server in `site` with the library preloaded and the descriptors named.
    void start(Site &site, int setting_port)
    {
        site.folder.write("package.json", "{\"varnok\":{\"port\":" + std::to_string(setting_port) + "}}");
        const char *asan = getenv("ASAN_OPTIONS");
        // The sanitizer build's server carries AddressSanitizer, whose runtime would rather load first.
        const ScopedVariables variables({{"VARNOK_HELD_FD", std::to_string(held)},
                                         {"VARNOK_READY_FD", std::to_string(ready[1])},
                                         {"VARNOK_CONTROL_FD", std::to_string(control_fd)},
                                         {"LD_PRELOAD", VARNOK_HELD_PORT_LIBRARY},
                                         {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":verify_asan_link_order=0"}});
        site.server.emplace(site.folder.path() / "www", site.folder.path());
    }

    /// The byte the server sent on the ready pair within `milliseconds`, or 0.
    char ready_byte(int milliseconds = 10000) const
    {
        pollfd waiting{ready[0], POLLIN, 0};
        char byte = 0;
        if (::poll(&waiting, 1, milliseconds) == 1)
            (void)!recv(ready[0], &byte, 1, 0);
        return byte;
    }

    int held = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    int ready[2] = {-1, -1};
    int control_fd = memfd_create("varnok-control", 0);
    unsigned char *control = nullptr;
};

/// Every byte left on `connection` until the server closes it.
std::string rest_of(int connection)
{
    std::string answer;
    char chunk[65536];
    ssize_t got;
    while ((got = recv(connection, chunk, sizeof chunk, 0)) > 0)
        answer.append(chunk, static_cast<size_t>(got));
    return answer;
}

const std::string GET_INDEX = "GET / HTTP/1.1\r\n\r\n";

TEST(HeldPort, ServesQueuedAndNewConnectionsOnTheHeldSocket)
{
    Launcher launcher;
    Site site;
    site.folder.write("www/index.html", "held");
    // Made before the server runs: it waits in the held socket's queue.
    const int queued = connect_to(launcher.port);
    ASSERT_GE(queued, 0);
    send(queued, GET_INDEX.data(), GET_INDEX.size(), MSG_NOSIGNAL);

    launcher.start(site, launcher.port);
    EXPECT_EQ(launcher.ready_byte(), 'L');
    EXPECT_EQ(without_times(rest_of(queued)), ok_answer("text/html; charset=UTF-8", "held"));
    close(queued);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(without_times(round_trip(launcher.port, GET_INDEX)), ok_answer("text/html; charset=UTF-8", "held"));
    EXPECT_TRUE(site.server->running());
}

TEST(HeldPort, RestartAskedEndsTheServerAfterTheConnectionInHand)
{
    Launcher launcher;
    Site site;
    const std::string big(16 << 20, 'b');
    site.folder.write("www/big.bin", big);
    site.folder.write("www/index.html", "second run");
    launcher.start(site, launcher.port);
    ASSERT_EQ(launcher.ready_byte(), 'L');

    // The answer has begun (the server is in its send) when the restart is asked.
    const int in_hand = connect_to(launcher.port);
    const std::string request = "GET /big.bin HTTP/1.1\r\n\r\n";
    send(in_hand, request.data(), request.size(), MSG_NOSIGNAL);
    char first = 0;
    ASSERT_EQ(recv(in_hand, &first, 1, 0), 1);
    launcher.control[0] = 1;
    const int wake = connect_to(launcher.port);
    send(wake, GET_INDEX.data(), GET_INDEX.size(), MSG_NOSIGNAL);

    const std::string answer = first + rest_of(in_hand);
    close(in_hand);
    EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, big.size());
    EXPECT_TRUE(answer.ends_with(big.substr(0, 1000)));
    const int status = site.server->wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == RESTART_STATUS) << "status " << status;

    // The next run answers the wake-up connection if the last did not, and the held socket serves on.
    launcher.control[0] = 0;
    launcher.start(site, launcher.port);
    EXPECT_EQ(launcher.ready_byte(), 'L');
    EXPECT_NE(rest_of(wake).find("HTTP/1.1 200 OK"), std::string::npos);
    close(wake);
    EXPECT_EQ(without_times(round_trip(launcher.port, GET_INDEX)), ok_answer("text/html; charset=UTF-8", "second run"));
}

TEST(HeldPort, AnotherPortIsBoundByTheServerItself)
{
    Launcher launcher;
    Site site;
    site.folder.write("www/index.html", "own port");
    const int other = bound_port();
    launcher.start(site, other);
    ASSERT_TRUE(site.server->wait_listening()) << site.server->console();
    EXPECT_EQ(launcher.ready_byte(0), 0);
    EXPECT_EQ(without_times(round_trip(other, GET_INDEX)), ok_answer("text/html; charset=UTF-8", "own port"));
    // Nothing accepts on the held socket: the connection waits in its queue unanswered.
    const int unanswered = connect_to(launcher.port);
    pollfd waiting{unanswered, POLLIN, 0};
    EXPECT_EQ(::poll(&waiting, 1, 200), 0);
    close(unanswered);
}

/// The probe's lines, run with the library preloaded (`held`: with the held socket named).
std::string probe_output(const Launcher &launcher, int other_port, bool held)
{
    const std::string command = std::string(held ? "VARNOK_HELD_FD=" + std::to_string(launcher.held) + " " : "") +
                                "LD_PRELOAD=" VARNOK_HELD_PORT_LIBRARY " " VARNOK_HELD_PORT_PROBE " " +
                                std::to_string(launcher.port) + " " + std::to_string(other_port);
    FILE *pipe = popen(command.c_str(), "r");
    std::string lines;
    char line[256];
    while (fgets(line, sizeof line, pipe) != nullptr)
        lines += line;
    pclose(pipe);
    return lines;
}

TEST(HeldPort, OnlyTheHeldPortIsAdoptedAndNoOptionIsSet)
{
    struct Case {
        bool held;
        const char *lines;
    };
    const Case cases[] = {
        {true, "udp bind=ok reuseaddr=0 reuseport=0 listening=0\n"
               "tcp6 bind=ok reuseaddr=0 reuseport=0 listening=0\n"
               "tcp4-other bind=ok reuseaddr=0 reuseport=0 listening=0\n"
               "tcp4-held bind=ok reuseaddr=0 reuseport=0 listening=1\n"
               "tcp4-any bind=ok reuseaddr=0 reuseport=0 listening=1\n"},
        {false, "udp bind=ok reuseaddr=0 reuseport=0 listening=0\n"
                "tcp6 bind=ok reuseaddr=0 reuseport=0 listening=0\n"
                "tcp4-other bind=ok reuseaddr=0 reuseport=0 listening=0\n"
                "tcp4-held bind=EADDRINUSE reuseaddr=0 reuseport=0 listening=0\n"
                "tcp4-any bind=ok reuseaddr=0 reuseport=0 listening=0\n"},
    };
    Launcher launcher;
    for (const Case &c : cases)
        EXPECT_EQ(probe_output(launcher, bound_port(), c.held), c.lines) << "held socket named: " << c.held;
}

} // namespace
