// Starts the real program in a folder of its own and talks to it over 127.0.0.1.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <thread>

#include "support/not_found_page.h"
#include "support/temp_folder.h"

inline sockaddr_in loopback(int port)
{
    return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

/// The port a socket got bound to on 127.0.0.1 (`port` 0: one the kernel hands out, free now), or 0
/// when `port` is held.
inline int bound_port(int port = 0)
{
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(port);
    socklen_t length = sizeof address;
    const bool bound = bind(probe, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
                       getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length) == 0;
    close(probe);
    return bound ? ntohs(address.sin_port) : 0;
}

inline int connect_to(int port)
{
    int connection = socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{5, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const sockaddr_in address = loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return connection;
    close(connection);
    return -1;
}

/// Sends `request` and returns every byte until the server closes (or 5 s of silence).
inline std::string round_trip(int port, const std::string &request)
{
    int connection = connect_to(port);
    if (connection < 0)
        return "<no connection>";
    send(connection, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    char chunk[65536];
    for (ssize_t got; (got = recv(connection, chunk, sizeof chunk, 0)) > 0;)
        answer.append(chunk, static_cast<size_t>(got));
    close(connection);
    return answer;
}

/// The answer with its two clock-dependent values blanked out.
inline std::string without_times(const std::string &answer)
{
    static const std::regex TIMES("(Date|Last-Modified): [A-Z][a-z]{2}, \\d\\d [A-Z][a-z]{2} \\d{4} \\d\\d:\\d\\d:\\d\\d GMT");
    return std::regex_replace(answer, TIMES, "$1: *");
}

inline std::string ok_answer(const std::string &type, const std::string &body, bool modified = true)
{
    return "HTTP/1.1 200 OK\r\nServer: Varnok HTTP Server 0.7.1.1\r\nDate: *\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + (modified ? "Last-Modified: *\r\n" : "") +
           "Connection: close\r\n\r\n" + body;
}

inline const std::string NOT_FOUND = "HTTP/1.1 404 Not Found\r\nServer: Varnok HTTP Server 0.7.1.1\r\nDate: *\r\n"
                                     "Content-Type: *.html\r\nContent-Length: 546\r\nConnection: close\r\n\r\n" +
                                     NOT_FOUND_PAGE;

/// The program, started through a link in `program_folder` with `working_folder` as its
/// working folder; stopped by its id when the test ends.
class ServerProcess {
public:
    ServerProcess(const std::filesystem::path &program_folder, const std::filesystem::path &working_folder)
        : console_(working_folder / "console.txt"), errors_(working_folder / "errors.txt")
    {
        const std::filesystem::path link = program_folder / "varnok-http-server";
        std::filesystem::create_directories(program_folder);
        if (!std::filesystem::is_symlink(link))
            std::filesystem::create_symlink(VARNOK_SERVER_BINARY, link);
        std::filesystem::remove(console_); // so an earlier run's "Listening on" is not read
        pid_ = fork();
        if (pid_ == 0) {
            std::filesystem::current_path(working_folder);
            (void)!freopen(console_.c_str(), "w", stdout);
            (void)!freopen(errors_.c_str(), "w", stderr);
            execl(link.c_str(), link.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    ~ServerProcess()
    {
        if (pid_ > 0 && !exited_ && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
    }
    ServerProcess(ServerProcess &&) = delete; // it owns the process: neither copied nor moved

    /// True once the console says "Listening on" (10 s at most).
    bool wait_listening() const { return poll([this] { return console().find("Listening on") != std::string::npos; }); }

    /// The wait status once the process has ended (10 s at most), or -1 while it runs.
    int wait_exit() { return poll([this] { return !running(); }) ? status_ : -1; }

    bool running() { return !exited_ && !(exited_ = waitpid(pid_, &status_, WNOHANG) == pid_); }
    pid_t pid() const { return pid_; }
    std::string console() const { return file_text(console_); }
    std::string errors() const { return file_text(errors_); }

private:
    template <typename Check> static bool poll(Check check)
    {
        for (int i = 0; i < 1000; i++, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
            if (check())
                return true;
        return false;
    }

    std::filesystem::path console_, errors_;
    pid_t pid_ = -1;
    bool exited_ = false;
    int status_ = 0;
};

/// A game folder `www` (where the program's link sits) inside a private folder that also holds
/// the working folder's package.json, console.txt and errors.txt.
struct Site {
    TempFolder folder;
    int port = 0;
    std::optional<ServerProcess> server;

    /// Writes each of `files`, named from the private folder ("www/..." for the game).
    explicit Site(std::initializer_list<std::pair<const char *, std::string>> files = {})
    {
        for (const auto &[name, bytes] : files)
            folder.write(name, bytes);
    }

    /// Starts the program afresh, on a new port: the old one is held by the closes of the last.
    /// The port setting is the port plus `port_above` (65536 binds the same port).
    bool start(int buffer_size = 1000, const std::string &main_file = "index.html", const std::string &rootdir = "./",
               int port_above = 0)
    {
        server.reset();
        port = bound_port();
        folder.write("package.json", "{\"varnok\":{\"port\":" + std::to_string(port + port_above) +
                                         ",\"buffer-size\":" + std::to_string(buffer_size) + ",\"main-file\":\"" +
                                         main_file + "\",\"rootdir\":\"" + rootdir + "\"}}");
        server.emplace(folder.path() / "www", folder.path());
        return server->wait_listening();
    }
    std::string get(const std::string &request) const { return without_times(round_trip(port, request)); }
};
