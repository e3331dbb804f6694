// Starts the real program in a folder of its own and talks to it over 127.0.0.1.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/temp_folder.h"

/// A port the kernel just handed out on 127.0.0.1 and that nobody holds now.
inline int free_port()
{
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
    close(probe);
    return ntohs(address.sin_port);
}

inline int connect_to(int port)
{
    int connection = socket(AF_INET, SOCK_STREAM, 0);
    timeval limit{5, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(connection);
        return -1;
    }
    return connection;
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
    ssize_t got;
    while ((got = recv(connection, chunk, sizeof chunk, 0)) > 0)
        answer.append(chunk, static_cast<size_t>(got));
    close(connection);
    return answer;
}

/// The program, started through a link in `program_folder` with `working_folder` as its
/// working folder; stopped by its id when the test ends.
class ServerProcess {
public:
    ServerProcess(const std::filesystem::path &program_folder, const std::filesystem::path &working_folder)
        : console_(working_folder / "console.txt"), errors_(working_folder / "errors.txt")
    {
        const std::filesystem::path link = program_folder / "varnok-http-server";
        std::filesystem::create_directories(program_folder);
        std::filesystem::create_symlink(VARNOK_SERVER_BINARY, link);
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
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    /// True once the console says "Listening on" (5 s at most).
    bool wait_listening() const
    {
        for (int i = 0; i < 500; i++) {
            if (console().find("Listening on") != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    /// The wait status once the process has ended (5 s at most), or -1 while it runs.
    int wait_exit()
    {
        for (int i = 0; i < 500 && !exited_; i++) {
            exited_ = waitpid(pid_, &status_, WNOHANG) == pid_;
            if (!exited_)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return exited_ ? status_ : -1;
    }

    std::string console() const { return read_all(console_); }
    std::string errors() const { return read_all(errors_); }

private:
    static std::string read_all(const std::filesystem::path &path)
    {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::filesystem::path console_, errors_;
    pid_t pid_ = -1;
    bool exited_ = false;
    int status_ = 0;
};

inline std::string settings_json(int port, int buffer_size = 1000, const std::string &main_file = "index.html",
                                 const std::string &rootdir = "./")
{
    return "{\"varnok\":{\"port\":" + std::to_string(port) + ",\"buffer-size\":" + std::to_string(buffer_size) +
           ",\"main-file\":\"" + main_file + "\",\"rootdir\":\"" + rootdir + "\"}}";
}
