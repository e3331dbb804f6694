// Serve: the launcher's parts. varnok-serve resolves the folder and binds the ports (as root when root
// starts it), becomes the serving user for good, and then runs the server in a bubblewrap sandbox again
// and again on the same listening socket, relaying its screen and printing the links below it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "link/link.h"

// ---- Options

enum ServeTask { SERVE_TASK_RUN, SERVE_TASK_HELP, SERVE_TASK_VERSION };

struct ServeOptions {
    ServeTask task;
    bool https;
    int https_port;             // 0: the plain port + 1
    std::string folder;         // "." when none is given
};

/// Reads the command line into `options`; 0, or -1 with the one-line reason in `error`.
int serve_options_parse(int argc, const char *const *argv, ServeOptions *options, std::string *error);

// ---- The terminal

/// Appends `text` (a line without its end) to `out` as it may reach a terminal: printable text, tabs, valid UTF-8 and the colour
/// sequences the server's drawing uses (the reset, 30-37, 40-47, 38;5;N and 48;5;N) as they are; every
/// other control byte, a C1 control in UTF-8 and a stray byte 0x80-0x9f written out as \xNN.
void serve_shown(std::string_view text, std::string *out);

// ---- Restarts

constexpr int SERVE_QUICK_RUN_MS = 1000;   // a run shorter than this ends "quickly"
/// Milliseconds to wait before the next start after `quick_ends` quick ends in a row.
int serve_pause_ms(int quick_ends);

// ---- Following the network

enum ServeFollow {
    SERVE_FOLLOW_NONE,          // the same addresses in the same order
    SERVE_FOLLOW_SOON,          // an address the server does not offer yet
    SERVE_FOLLOW_LATER,         // addresses gone or in another order only: perhaps a link that comes back
};
constexpr int SERVE_FOLLOW_SOON_MS = 300;    // quiet on the network before an added address is followed
constexpr int SERVE_FOLLOW_LATER_MS = 1700;  // how long a loss or a new order must last to be followed

/// How the launcher follows a change from the addresses `served` (count of them) to `now`.
ServeFollow serve_follow(const char *const *served, int served_count, const char *const *now, int now_count);

// ---- The folder's path

/// One link or folder met on the way to the folder.
struct PathStep {
    std::string path;
    uid_t owner;
    mode_t mode;
};

/// Walks `path` from `/` one component at a time without following a link by name: each link met is
/// read and its target walked in turn (40 at most). Records every folder and link in `steps` and returns
/// an O_PATH descriptor of the folder reached, with its path in `resolved`; or -1 with the reason in `error`.
int serve_path_walk(const std::string &path, std::vector<PathStep> *steps, std::string *resolved,
                    std::string *error);
/// The index of the first step that neither root, `uid` nor the folder's owner owns, or that others may change (a folder
/// writable by its group or by all and not sticky, owned by anyone but root); -1 when every step is sound.
int serve_path_rule(const std::vector<PathStep> &steps, uid_t uid);

// ---- package.json

/// What the serving user found in the folder and handed over.
struct ServeSettings {
    int folder_fd;              // the folder, opened as the serving user
    int settings_fd;            // the user's own package.json, or a copy of its bytes (memfd)
    bool copy;                  // settings_fd is a private copy
    bool created;               // package.json was created for this run
    int created_port;           // the port written into a created one, or 0
    LinkPort port;              // the port setting, read as the server reads it
};

/// Opens the folder (`path_fd`, resolved as `path`) and its package.json as the serving user in a child
/// of its own: creates a missing one (with a free port of 8080 or more when `free_port` is set), keeps
/// the user's own regular file with one link, copies any other regular file, and refuses links, FIFOs,
/// folders, sockets and devices. 0, or -1 with the one-line reason in `error`.
struct ServeUser;
int serve_settings_take(int path_fd, const std::string &path, const ServeUser &user, bool free_port,
                        ServeSettings *settings, std::string *error);

// ---- Ports

/// A port held for the launcher's whole run: listening on every IPv4 address, and bound on IPv6 so that
/// no other program may take it there either.
struct HeldPort {
    int fd;                     // IPv4, listening with address reuse
    int guard_fd;               // IPv6 only, bound, not listening; -1 when IPv6 is not there or taken
    uint16_t port;
};

/// Binds and listens on `port` (0: the system picks); 0, -1 with the one-line reason in `error`, or -2 when
/// only the closes of an earlier program keep it (try again soon).
int serve_port_hold(uint16_t port, HeldPort *held, std::string *error);
/// The first port from 8080 up on which nothing is bound (8180 when none is).
uint16_t serve_port_free();
/// "NAME, pid N" of the program listening on TCP `port`, where the system tells it; else "".
std::string serve_port_holder(uint16_t port);

// ---- Who serves

struct ServeUser {
    uid_t uid;
    gid_t gid;
    std::string name;           // the user name, or "uid N"
    std::string home;           // "" when the user has none
};

/// The serving user for a folder owned by `owner`, when root starts the launcher: the owner, or nobody
/// for root's folder; with the owner's primary group, never group 0. 0, or -1 with `error`.
int serve_user_for(uid_t owner, ServeUser *user, std::string *error);
/// The name of user `uid`, or "uid N".
std::string serve_user_name(uid_t uid);
/// The calling user.
ServeUser serve_user_self();
/// Becomes `user` for good: no supplementary group, gid and uid, no capability, not dumpable, no new
/// privileges. 0, or -1.
int serve_user_become(const ServeUser &user);

// ---- Programs and sandboxes

/// The files a sandbox needs to run the ELF program `path`: its interpreter and every library it loads,
/// found as the dynamic loader finds them in the system's folders; appended to `files`. 0, or -1.
int serve_program_files(const std::string &path, std::vector<std::string> *files);
/// bwrap arguments that make the parents of each of `paths` 0755 and bind each read-only at its place.
void serve_sandbox_binds(const std::vector<std::string> &paths, std::vector<std::string> *arguments);

/// A child to start: its arguments, and the descriptors it gets, at 3, 4, ... in order.
struct ServeChild {
    std::vector<std::string> argv;
    std::vector<int> fds;
    int output_fd;              // standard output and error; standard input is /dev/null
    int landlock_port;          // >0: Landlock limits it to TCP connects to this port, and no bind
};
/// Starts `child` in a session of its own with nothing else open; its process id, or -1.
pid_t serve_spawn(const ServeChild &child);
/// Runs `argv` (standard output captured into `output`, at most 64 KiB) with a deadline of
/// `deadline_ms`, after which it is killed; its exit status, 128 + signal, or -1.
int serve_run(const std::vector<std::string> &argv, int deadline_ms, std::string *output);

// ---- HTTPS

struct ServeHttps {
    HeldPort port;              // the TLS port
    HeldPort ca_port;           // the CA certificate's plain-HTTP port
    std::string fingerprint;    // the CA's SHA-256, 64 hex digits
    std::string data;           // the CA's folder
    int leaf_fd;                // the leaf's certificate and key, for the front (memfd)
    int ca_fd;                  // the CA certificate (memfd)
};

/// Makes the CA in the serving user's data folder on first use, and a leaf for `addresses`; fills
/// `https` (but its ports). 0, or -1 with the one-line reason in `error`.
int serve_https_certificates(const ServeUser &user, const std::vector<std::string> &addresses,
                             ServeHttps *https, std::string *error);
/// The front's configuration, for the server on `plain` and the inherited sockets 3 (TLS) and 4 (CA).
std::string serve_https_config(uint16_t plain);
/// The bwrap command of the front.
std::vector<std::string> serve_https_command(int config_fd, int leaf_fd, int ca_fd);
