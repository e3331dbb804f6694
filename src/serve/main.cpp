// varnok-serve: serves a folder with Varnok HTTP Server confined by bubblewrap, and keeps it serving.
//
// Started by root, it does two things as root: it walks the folder's path and binds the ports. Then it
// becomes the serving user for good (the folder's owner, or nobody for root's folder), and from there
// root and ordinary users take one path. The listening socket is held for the whole run and handed to
// each run of the server, whose preloaded library adopts it in the server's bind() and reports its
// listen(): connections that come while the server starts again wait in the backlog and are answered.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "confine/confine.h"
#include "netwatch/netwatch.h"
#include "pairing/pairing.h"
#include "serve/serve.h"
#include "server/product.h"

namespace {

constexpr const char *HELP =
    "Usage: varnok-serve [--https [--https-port PORT]] [FOLDER]\n"
    "Serves FOLDER (default: the working folder) to phones and tablets on this network with\n"
    "Varnok HTTP Server, confined to that folder, and starts the server again when a signal ends it.\n"
    "\n"
    "      --https    also serve FOLDER over HTTPS (haproxy, on the port + 1; the CA\n"
    "                 certificate to trust once per phone on the port after that)\n"
    "      --https-port PORT   the HTTPS port instead\n"
    "  -h, --help     print this help and exit\n"
    "      --version  print the version and exit\n"
    "\n"
    "The server sees FOLDER read-only (only its package.json may be created or repaired), the program\n"
    "and its libraries. Started by root, varnok-serve binds the ports and then runs as the folder's\n"
    "owner (nobody for root's folder) with no privilege at all. When you are not root and FOLDER has no\n"
    "package.json, one is created that names port 8080 (or the next free port), since only root may\n"
    "bind the default port, 1010. Below the server's \"Listening on\" line come the links to open on a\n"
    "phone, as QR codes; run varnok-link in FOLDER to see every link. Stop with Ctrl-C.\n";

constexpr int EXIT_PLANNED = 75;        // the server ended between connections, as asked
constexpr int LINKS_FALLBACK_MS = 1000; // links after the listen even when no "Listening on" line comes
constexpr int DRAIN_MS = 3000;          // how long a server asked to end may finish the answer in hand

/// Everything the launcher holds for its run.
struct Launcher {
    ServeOptions options;
    bool started_by_root = geteuid() == 0;
    std::string program, preload, folder;
    ServeUser user;
    ServeSettings settings;
    HeldPort plain;
    ServeHttps https;
    int config_fd = -1, seccomp_fd = -1, control_fd = -1, signal_fd = -1;
    volatile unsigned char *control = nullptr;
    pid_t front = -1;
    long front_started = 0;
    std::vector<pid_t> fronts_ending;   // fronts that finish their connections after a new one took over
    // The network: the addresses the running server offers, and changes not yet followed.
    int net_fd = -1;
    NetOffer served{};
    long net_first = 0, net_last = 0, net_differs_since = 0;
    long drain_until = 0;       // the server was asked to end between connections; killed after this
    // The run of the server under way.
    pid_t server = -1;
    int output_fd = -1, ready_fd = -1;
    long started = 0, listened_at = 0;
    bool listened = false, links_printed = false, ever_listened = false;
    int quick_ends = 0;
    long next_start = 0;        // when the server starts again; 0: not waiting
    std::string partial;
};

Launcher launcher;

long now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000;
}

void say(const std::string &text)
{
    std::string line = "varnok-serve: ";
    serve_shown(text, &line);
    line += '\n';
    fflush(stdout);
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

/// Ends every process under the launcher and waits, a second at most, until all are gone: the sandbox's
/// inner processes come to the launcher (a subreaper) as their parents end, so once none is left no
/// server of this run holds the port any more.
void end_children()
{
    for (pid_t front : launcher.fronts_ending)
        kill(front, SIGKILL);
    for (pid_t child : {launcher.server, launcher.front})
        if (child > 0)
            kill(child, SIGKILL);
    launcher.server = launcher.front = -1;
    for (const long deadline = now_ms() + 1000; now_ms() < deadline;) {
        const pid_t pid = waitpid(-1, nullptr, WNOHANG);
        if (pid < 0 && errno == ECHILD)
            break;
        if (pid == 0)
            usleep(2000);
    }
}

[[noreturn]] void fail(const std::string &text, int status = 2)
{
    say(text);
    end_children();
    exit(status);
}

/// `name` beside this program when it is there, else in the system's folders; "" when nowhere.
std::string find_beside(const std::string &here, const std::string &name, std::initializer_list<const char *> elsewhere)
{
    if (access((here + "/" + name).c_str(), X_OK) == 0 || access((here + "/" + name).c_str(), R_OK) == 0)
        return here + "/" + name;
    for (const char *folder : elsewhere) {
        const std::string path = std::string(folder) + "/" + name;
        if (access(path.c_str(), R_OK) == 0) {
            char *real = realpath(path.c_str(), nullptr);
            std::string found = real != nullptr ? real : path;
            free(real);
            return found;
        }
    }
    return "";
}

/// The folder of this program, as the system tells it.
std::string here()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    std::string self = length > 0 ? std::string(path, length) : "/usr/bin/varnok-serve";
    return self.substr(0, self.rfind('/'));
}

void find_programs()
{
    const std::string beside = here();
    launcher.program = find_beside(beside, "varnok-http-server", {"/usr/local/bin", "/usr/bin", "/bin"});
    if (launcher.program.empty())
        fail("varnok-http-server is missing: install it beside varnok-serve or on PATH");
    launcher.preload = find_beside(beside, "libvarnok-held-port.so", {"/usr/local/lib/varnok-http-server",
                                                                      "/usr/lib/varnok-http-server"});
    if (launcher.preload.empty())
        fail("libvarnok-held-port.so is missing: install it beside varnok-serve or in /usr/lib/varnok-http-server");
    if (access("/usr/bin/bwrap", X_OK) != 0)
        fail("bubblewrap is missing (sudo apt install bubblewrap)");
    if (launcher.options.https) {
        std::string missing;
        if (access("/usr/sbin/haproxy", X_OK) != 0)
            missing += " haproxy";
        if (access("/usr/bin/openssl", X_OK) != 0)
            missing += " openssl";
        if (!missing.empty())
            fail("--https needs" + missing + ": sudo apt install" + missing);
    }
}

/// The owner that stands for every user outside this user namespace, when the launcher runs in one (the
/// system's own files are among them); else -1.
uid_t outside_owner()
{
    char map[128] = "";
    FILE *file = fopen("/proc/self/uid_map", "re");
    const bool initial = file == nullptr || fgets(map, sizeof map, file) == nullptr ||
                         strcmp(map, "         0          0 4294967295\n") == 0;
    if (file != nullptr)
        fclose(file);
    unsigned overflow = 65534;
    if (FILE *value = fopen("/proc/sys/kernel/overflowuid", "re")) {
        if (fscanf(value, "%u", &overflow) != 1)
            overflow = 65534;
        fclose(value);
    }
    return initial ? static_cast<uid_t>(-1) : overflow;
}

/// Walks the folder's path and picks who serves it; the folder's O_PATH descriptor.
int resolve_folder()
{
    std::vector<PathStep> steps;
    std::string error;
    const int path_fd = serve_path_walk(launcher.options.folder, &steps, &launcher.folder, &error);
    if (path_fd < 0)
        fail(error);
    // In a user namespace, root's files show as the overflow owner: they are the system's still.
    const uid_t outside = geteuid() != 0 ? outside_owner() : static_cast<uid_t>(-1);
    for (PathStep &step : steps)
        if (outside != static_cast<uid_t>(-1) && step.owner == outside)
            step.owner = 0;
    if (geteuid() != 0)
        launcher.user = serve_user_self();
    else if (serve_user_for(steps.back().owner, &launcher.user, &error) != 0)
        fail(error);
    const int bad = serve_path_rule(steps, launcher.user.uid);
    if (bad >= 0) {
        const PathStep &step = steps[bad];
        fail(step.path + (step.owner != 0 && step.owner != launcher.user.uid && step.owner != steps.back().owner
                              ? " belongs to " + serve_user_name(step.owner) + ", not to root, the folder's owner or " +
                                    launcher.user.name + ", who would serve it"
                              : " may be changed by others than its owner") +
             ": refusing to serve " + launcher.folder);
    }
    return path_fd;
}

/// Holds `port`, waiting while only the closes of an earlier program keep it, as a stop ends the wait.
void hold(uint16_t port, HeldPort *held, const char *prefix)
{
    std::string error;
    int result = serve_port_hold(port, held, &error);
    if (result == -2)
        say("waiting: " + error);
    for (long deadline = now_ms() + 70000; result == -2 && now_ms() < deadline; result = serve_port_hold(port, held, &error)) {
        signalfd_siginfo info{};
        if (read(launcher.signal_fd, &info, sizeof info) == sizeof info && info.ssi_signo != SIGCHLD)
            exit(0);
        usleep(100000);
    }
    if (result != 0)
        fail(prefix + error, 1);
}

void hold_ports()
{
    hold(link_bound_port(launcher.settings.port.setting), &launcher.plain, "");
    if (!launcher.options.https)
        return;
    const int port = launcher.options.https_port != 0 ? launcher.options.https_port : launcher.plain.port + 1;
    if (port + 1 > 65535)
        fail("--https: the HTTPS port must be below 65535 (the CA is served on the next one)");
    hold(static_cast<uint16_t>(port), &launcher.https.port, "--https: ");
    hold(static_cast<uint16_t>(port + 1), &launcher.https.ca_port, "--https: ");
}

/// The addresses of `offer`, the private ones only when `keep_private` is set.
std::vector<std::string> addresses(const NetOffer &offer, bool keep_private)
{
    std::array<const char *, NETWATCH_MAX_ADDRESSES> texts{};
    for (int i = 0; i < offer.count; ++i)
        texts[i] = offer.addresses[i].data();
    const int count = keep_private ? link_keep_private(texts.data(), offer.count) : offer.count;
    return std::vector<std::string>(texts.begin(), texts.begin() + count);
}

/// The links below the server's screen.
void print_links()
{
    const LinkScreen screen = link_screen_of(STDOUT_FILENO);
    std::vector<std::string> offered = addresses(launcher.served, launcher.options.https);
    std::vector<const char *> texts;
    for (const std::string &address : offered)
        texts.push_back(address.c_str());
    if (launcher.options.https) {
        const std::string ca_url = "http://" + (offered.empty() ? std::string("127.0.0.1") : offered[0]) + ":" +
                                   std::to_string(launcher.https.ca_port.port) + "/ca.crt";
        const LinkSecure secure{launcher.https.port.port, ca_url.c_str(), launcher.https.fingerprint.c_str()};
        link_print_secure(stdout, secure, texts.data(), static_cast<int>(texts.size()), screen);
    } else {
        const LinkPort port{launcher.plain.port, LINK_PORT_FROM_FILE, true};
        link_print(stdout, LINK_MODE_SERVING, port, texts.data(), static_cast<int>(texts.size()), screen);
    }
    fflush(stdout);
    launcher.links_printed = true;
}

/// Relays the complete lines of the server's output; the links follow its "Listening on" line.
void relay(const char *bytes, size_t count, bool ended)
{
    launcher.partial.append(bytes, count);
    size_t start = 0;
    for (size_t end; (end = launcher.partial.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string_view line(launcher.partial.data() + start, end - start);
        std::string shown;
        serve_shown(line, &shown);
        shown += '\n';
        fwrite(shown.data(), 1, shown.size(), stdout);
        if (launcher.listened && !launcher.links_printed && line.substr(0, 13) == "Listening on ")
            print_links();
    }
    launcher.partial.erase(0, start);
    if (ended && !launcher.partial.empty()) {
        std::string shown;
        serve_shown(launcher.partial, &shown);
        fwrite(shown.data(), 1, shown.size(), stdout);
        launcher.partial.clear();
    }
    fflush(stdout);
}

/// Reads what the server wrote; false once its output is closed.
bool read_output()
{
    char buffer[65536];
    const ssize_t count = read(launcher.output_fd, buffer, sizeof buffer);
    if (count > 0)
        relay(buffer, count, false);
    return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

/// Takes the library's word that the server listens.
void read_ready()
{
    char byte = 0;
    while (read(launcher.ready_fd, &byte, 1) == 1)
        if (byte == 'L' && !launcher.listened) {
            launcher.listened = launcher.ever_listened = true;
            launcher.listened_at = now_ms();
        }
}

std::vector<std::string> server_command()
{
    const std::string &folder = launcher.folder;
    std::vector<std::string> command{"/usr/bin/bwrap", "--unshare-user", "--unshare-ipc", "--unshare-pid",
                                     "--unshare-uts", "--unshare-cgroup-try", "--new-session", "--die-with-parent",
                                     "--clearenv", "--setenv", "PATH", launcher.program.substr(0, launcher.program.rfind('/')),
                                     "--setenv", "LD_PRELOAD", launcher.preload, "--setenv", "VARNOK_HELD_FD", "3",
                                     "--setenv", "VARNOK_READY_FD", "4", "--setenv", "VARNOK_CONTROL_FD", "5"};
    std::vector<std::string> files{launcher.program, launcher.preload};
    if (access(launcher.program.c_str(), R_OK) != 0 || access(launcher.preload.c_str(), R_OK) != 0)
        fail(launcher.program + " cannot be read by " + launcher.user.name +
             ", who would serve the folder: install the package, or build where that user may read");
    if (serve_program_files(launcher.program, &files) != 0 || serve_program_files(launcher.preload, &files) != 0)
        fail("the libraries of " + launcher.program + " cannot be found");
    serve_sandbox_binds(files, &command);
    for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1))
        command.insert(command.end(), {"--perms", "0755", "--dir", folder.substr(0, slash)});
    command.insert(command.end(), {"--ro-bind-fd", "6", folder, launcher.settings.copy ? "--bind-data" : "--bind-fd", "7",
                                   folder + (folder == "/" ? "" : "/") + "package.json", "--chdir", folder,
                                   "--seccomp", "8", "--", "varnok-http-server"});
    return command;
}

void start_server()
{
    static const std::vector<std::string> command = server_command();
    // The owner may change the setting while it serves; the server would then bind a port nobody holds.
    const uint16_t port = link_bound_port(link_port_read_from(launcher.settings.settings_fd).setting);
    if (port != link_bound_port(launcher.settings.port.setting))
        fail("the port setting is now " + std::to_string(port) + ": start varnok-serve again to serve it; stopping", 1);
    int output[2], ready[2];
    if (pipe2(output, O_CLOEXEC) != 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ready) != 0)
        fail("cannot make the server's pipes");
    launcher.control[0] = 0;
    launcher.drain_until = 0;
    netwatch_offer(&launcher.served);
    lseek(launcher.seccomp_fd, 0, SEEK_SET);
    lseek(launcher.settings.settings_fd, 0, SEEK_SET);
    launcher.server = serve_spawn({command,
                                   {launcher.plain.fd, ready[1], launcher.control_fd, launcher.settings.folder_fd,
                                    launcher.settings.settings_fd, launcher.seccomp_fd},
                                   output[1], 0});
    close(output[1]);
    close(ready[1]);
    if (launcher.server < 0)
        fail("cannot start the server");
    launcher.output_fd = output[0];
    launcher.ready_fd = ready[0];
    fcntl(output[0], F_SETFL, O_NONBLOCK);
    fcntl(ready[0], F_SETFL, O_NONBLOCK);
    launcher.started = now_ms();
    launcher.listened = launcher.links_printed = false;
    launcher.next_start = 0;
}

void start_front()
{
    const std::vector<std::string> command =
        serve_https_command(5, 6, 7);
    for (int fd : {launcher.config_fd, launcher.https.leaf_fd, launcher.https.ca_fd})
        lseek(fd, 0, SEEK_SET);
    launcher.front = serve_spawn({command,
                                  {launcher.https.port.fd, launcher.https.ca_port.fd, launcher.config_fd,
                                   launcher.https.leaf_fd, launcher.https.ca_fd},
                                  -1, launcher.plain.port});
    launcher.front_started = now_ms();
    if (launcher.front < 0)
        fail("--https: cannot start haproxy");
}

/// "signal 6 (SIGABRT", for a closing ")" or ", status 134)".
std::string signal_text(int number)
{
    const char *name = sigabbrev_np(number);
    return "signal " + std::to_string(number) + " (SIG" + (name != nullptr ? name : "?");
}

/// After the server's end: its last output, then why it ended, and when it starts again (or the end).
void server_ended(int status)
{
    launcher.server = -1;
    read_ready();
    const long deadline = now_ms() + 500;
    for (pollfd output{launcher.output_fd, POLLIN, 0}; now_ms() < deadline && poll(&output, 1, 100) > 0 && read_output();)
        ;
    relay("", 0, true);
    close(launcher.output_fd);
    close(launcher.ready_fd);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (code == EXIT_PLANNED || launcher.drain_until != 0) {
        launcher.next_start = now_ms();
        return;
    }
    if (code > 128 && !launcher.ever_listened)
        fail("the server ended by " + signal_text(code - 128) + ") before it listened; stopping");
    if (code == 0)
        fail("the server could not listen on port " + std::to_string(launcher.plain.port) + " (status 0); stopping", 1);
    if (code < 128)
        fail("the sandbox could not start the server (status " + std::to_string(code) + "); stopping");
    launcher.quick_ends = now_ms() - launcher.started < SERVE_QUICK_RUN_MS ? launcher.quick_ends + 1 : 0;
    const int pause = serve_pause_ms(launcher.quick_ends);
    const std::string cause = signal_text(code - 128) + ", status " + std::to_string(code) + ")";
    if (pause == 0)
        say("the server ended by " + cause + "; starting it again");
    else
        say("the server ended by " + cause + ", " + std::to_string(launcher.quick_ends) +
            " times in a row within 1 s of a start; starting it again in " + std::to_string(pause) + " ms");
    launcher.next_start = now_ms() + pause;
}

void front_ended(int status)
{
    launcher.front = -1;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (now_ms() - launcher.front_started < 2000)
        fail("--https: haproxy ended at once (status " + std::to_string(code) + ")");
    say("--https: haproxy ended (status " + std::to_string(code) + "); starting it again");
    start_front();
}

/// Signals arrive through a descriptor: Ctrl-C, SIGTERM and SIGHUP end the launcher, SIGCHLD reaps.
void handle_signals()
{
    signalfd_siginfo info{};
    while (read(launcher.signal_fd, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo != SIGCHLD) {
            end_children();
            exit(0);
        }
    }
    int status = 0;
    for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (pid == launcher.server)
            server_ended(status);
        else if (pid == launcher.front)
            front_ended(status);
        else
            std::erase(launcher.fronts_ending, pid);
    }
}

void watch_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    launcher.signal_fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

/// A server idle in accept() wakes up for a request of the launcher's own, after which it ends.
void wake_server()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, htons(launcher.plain.port), {htonl(INADDR_LOOPBACK)}, {}};
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
        constexpr char request[] = "GET / HTTP/1.1\r\n\r\n";
        (void)!send(fd, request, sizeof request - 1, MSG_NOSIGNAL);
    }
    if (fd >= 0)
        close(fd);
}

/// Starts the server again for the addresses there are now, once it has finished the answer in hand;
/// with HTTPS, a front with a leaf for them takes the ports over first.
void follow_network(const NetOffer &now)
{
    char text[512];
    netwatch_describe(now, text, sizeof text);
    say(std::string("the network changed (") + (now.count > 0 ? "now " : "") + text + "); starting the server again");
    if (launcher.options.https) {
        std::string error;
        if (serve_https_certificates(launcher.user, addresses(now, true), &launcher.https, &error) != 0)
            fail(error);
        const pid_t old = launcher.front;
        launcher.front = -1;
        start_front();
        // haproxy's soft stop: it lets go of the listeners and ends once its connections are done.
        if (old > 0) {
            kill(old, SIGUSR1);
            launcher.fronts_ending.push_back(old);
        }
    }
    launcher.served = now;
    if (launcher.server > 0 && launcher.drain_until == 0) {
        launcher.control[0] = 1;
        launcher.drain_until = now_ms() + DRAIN_MS;
        wake_server();
    }
}

/// Takes a change of the network in: an added address is followed once the network is quiet, a loss or
/// a new order only once it has lasted (a link that comes back within that costs no restart).
void check_network()
{
    const long now = now_ms();
    if (launcher.net_first != 0 && now >= std::min(launcher.net_last + SERVE_FOLLOW_SOON_MS, launcher.net_first + 1000)) {
        const long first = launcher.net_first;
        launcher.net_first = 0;
        NetOffer offer{};
        netwatch_offer(&offer);
        std::vector<std::string> was = addresses(launcher.served, false), is = addresses(offer, false);
        std::vector<const char *> served, current;
        for (const std::string &address : was)
            served.push_back(address.c_str());
        for (const std::string &address : is)
            current.push_back(address.c_str());
        switch (serve_follow(served.data(), static_cast<int>(served.size()), current.data(), static_cast<int>(current.size()))) {
        case SERVE_FOLLOW_NONE: launcher.net_differs_since = 0; break;
        case SERVE_FOLLOW_SOON: launcher.net_differs_since = 0; follow_network(offer); break;
        case SERVE_FOLLOW_LATER:
            if (launcher.net_differs_since == 0)
                launcher.net_differs_since = first;
            break;
        }
    }
    if (launcher.net_differs_since != 0 && now >= launcher.net_differs_since + SERVE_FOLLOW_LATER_MS) {
        launcher.net_differs_since = 0;
        NetOffer offer{};
        netwatch_offer(&offer);
        if (!netwatch_same(offer, launcher.served))
            follow_network(offer);
    }
}

/// The next moment the loop must wake for, or -1.
long next_wake()
{
    long at = -1;
    const auto sooner = [&at](long when) { at = at < 0 ? when : std::min(at, when); };
    if (launcher.next_start > 0)
        sooner(launcher.next_start);
    if (launcher.listened && !launcher.links_printed)
        sooner(launcher.listened_at + LINKS_FALLBACK_MS);
    if (launcher.net_first != 0)
        sooner(std::min(launcher.net_last + SERVE_FOLLOW_SOON_MS, launcher.net_first + 1000));
    if (launcher.net_differs_since != 0)
        sooner(launcher.net_differs_since + SERVE_FOLLOW_LATER_MS);
    if (launcher.drain_until != 0)
        sooner(launcher.drain_until);
    return at < 0 ? -1 : std::max(0L, at - now_ms());
}

void loop()
{
    for (;;) {
        std::array<pollfd, 4> watched{{{launcher.signal_fd, POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0},
                                        {launcher.net_fd, POLLIN, 0}}};
        if (launcher.server > 0) {
            watched[1].fd = launcher.output_fd;
            watched[2].fd = launcher.ready_fd;
        }
        if (poll(watched.data(), watched.size(), static_cast<int>(next_wake())) < 0 && errno != EINTR)
            fail("poll failed");
        if (watched[3].revents != 0 && netwatch_drain(launcher.net_fd) != 0) {
            launcher.net_last = now_ms();
            launcher.net_first = launcher.net_first != 0 ? launcher.net_first : launcher.net_last;
        }
        check_network();
        if (launcher.drain_until != 0 && launcher.server > 0 && now_ms() >= launcher.drain_until) {
            // An answer that takes longer than that is cut: the addresses it was given are gone.
            launcher.drain_until = 0;
            kill(launcher.server, SIGKILL);
        }
        if (watched[2].revents != 0)
            read_ready();
        if (watched[1].revents != 0 && !read_output())
            watched[1].fd = -1;
        if (watched[0].revents != 0)
            handle_signals();
        if (launcher.listened && !launcher.links_printed && now_ms() >= launcher.listened_at + LINKS_FALLBACK_MS)
            print_links();
        if (launcher.server < 0 && launcher.next_start > 0 && now_ms() >= launcher.next_start)
            start_server();
    }
}

/// The sandbox's seccomp program and the page through which the launcher asks for a restart.
void prepare_server()
{
    launcher.seccomp_fd = memfd_create("seccomp", MFD_CLOEXEC);
    launcher.control_fd = memfd_create("control", MFD_CLOEXEC);
    if (launcher.seccomp_fd < 0 || confine_server_filter(launcher.seccomp_fd) != 0 || launcher.control_fd < 0 ||
        ftruncate(launcher.control_fd, 4096) != 0)
        fail("cannot prepare the server's sandbox");
    void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, launcher.control_fd, 0);
    if (page == MAP_FAILED)
        fail("cannot prepare the server's sandbox");
    launcher.control = static_cast<volatile unsigned char *>(page);
}

void prepare_https()
{
    // The CA lives in the serving user's data folder: $XDG_DATA_HOME for the caller's own, else ~/.local/share.
    const char *data_home = getenv("XDG_DATA_HOME");
    const bool own = !launcher.started_by_root;
    const std::string home = own && getenv("HOME") != nullptr ? getenv("HOME") : launcher.user.home;
    if (!(own && data_home != nullptr && data_home[0] == '/') && (home.empty() || access(home.c_str(), F_OK) != 0))
        fail("--https keeps its CA in the serving user's home, and " + launcher.user.name + " has no home folder");
    launcher.https.data = (own && data_home != nullptr && data_home[0] == '/' ? std::string(data_home)
                                                                              : home + "/.local/share") + "/varnok";
    std::string error;
    netwatch_offer(&launcher.served);
    if (serve_https_certificates(launcher.user, addresses(launcher.served, true), &launcher.https, &error) != 0)
        fail(error);
    launcher.config_fd = memfd_create("haproxy.cfg", MFD_CLOEXEC);
    const std::string config = serve_https_config(launcher.plain.port);
    if (launcher.config_fd < 0 || write(launcher.config_fd, config.data(), config.size()) != static_cast<ssize_t>(config.size()))
        fail("--https: cannot write the front's configuration");
}

} // namespace

int main(int argc, char **argv)
{
    std::string error;
    if (serve_options_parse(argc, argv, &launcher.options, &error) != 0)
        fail(error);
    if (launcher.options.task == SERVE_TASK_HELP)
        return fputs(HELP, stdout), 0;
    if (launcher.options.task == SERVE_TASK_VERSION)
        return printf("varnok-serve %s\n", PRODUCT_SERVER_VERSION), 0;
    watch_signals();
    prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    find_programs();
    const int path_fd = resolve_folder();
    if (serve_settings_take(path_fd, launcher.folder, launcher.user, geteuid() != 0, &launcher.settings, &error) != 0)
        fail(error);
    close(path_fd);
    hold_ports();
    if (serve_user_become(launcher.user) != 0)
        fail("cannot become " + launcher.user.name);
    const std::string settings = launcher.folder + (launcher.folder == "/" ? "" : "/") + "package.json";
    if (launcher.settings.created && launcher.settings.created_port != 0)
        say("created " + settings + " with port " + std::to_string(launcher.settings.created_port) +
            ": only root may bind the default port, 1010");
    if (launcher.settings.copy)
        say(settings + " is not the server's to write: it uses a private copy (served as " + launcher.user.name + ")");
    say("serving " + launcher.folder + " as " + launcher.user.name);
    prepare_server();
    launcher.net_fd = netwatch_open();
    if (launcher.options.https) {
        prepare_https();
        start_front();
    }
    start_server();
    loop();
}
