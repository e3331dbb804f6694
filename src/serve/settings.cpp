// package.json, opened as the serving user in a child of its own that hands the folder and the file over
// as descriptors: nothing the folder's owner places there can lead the launcher anywhere by name.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "serve/serve.h"

namespace {

constexpr int TAKE_DEADLINE_MS = 5000;
constexpr size_t MOST_COPIED = 16 << 20;

enum TakeResult { TAKE_OK, TAKE_CANNOT_ENTER, TAKE_MISSING_ROOT, TAKE_MISSING_UNWRITABLE, TAKE_NOT_CREATED,
                  TAKE_UNREADABLE, TAKE_WRONG_TYPE, TAKE_NOT_COPIED };

/// What the child sends, with the folder's and the file's descriptors.
struct TakeReply {
    TakeResult result;
    LinkPort port;
    int created_port;
    bool created;
    bool copy;
    char type[16];
};

const char *type_of(mode_t mode)
{
    return S_ISFIFO(mode) ? "FIFO" : S_ISDIR(mode) ? "folder" : S_ISSOCK(mode) ? "socket"
         : S_ISBLK(mode) || S_ISCHR(mode) ? "device" : "special file";
}

/// A memfd holding the bytes `fd` reads (16 MiB at most), or -1.
int copy_of(int fd)
{
    const int copy = memfd_create("package.json", MFD_CLOEXEC);
    char buffer[65536];
    size_t total = 0;
    ssize_t count;
    while (copy >= 0 && total < MOST_COPIED && (count = read(fd, buffer, sizeof buffer)) > 0) {
        if (write(copy, buffer, count) != count) {
            close(copy);
            return -1;
        }
        total += count;
    }
    return copy;
}

/// package.json opened as the serving user: kept, created or copied. The reply's result says which.
int open_settings(int folder, uid_t uid, bool free_port, TakeReply *reply)
{
    constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = openat(folder, "package.json", O_RDWR | flags);
    if (fd < 0 && errno == ENOENT) {
        char content[64] = "";
        if (free_port)
            snprintf(content, sizeof content, "{\n\t\"varnok\":\t{\n\t\t\"port\":\t%d\n\t}\n}\n",
                     reply->created_port = serve_port_free());
        fd = openat(folder, "package.json", O_RDWR | O_CREAT | O_EXCL | flags, 0644);
        struct stat status {};
        if (fd < 0 && (errno == EACCES || errno == EROFS))
            return reply->result = fstat(folder, &status) == 0 && status.st_uid == 0 ? TAKE_MISSING_ROOT
                                                                                    : TAKE_MISSING_UNWRITABLE, -1;
        if (fd < 0 || write(fd, content, strlen(content)) != static_cast<ssize_t>(strlen(content)))
            return reply->result = TAKE_NOT_CREATED, -1;
        reply->created = true;
    }
    bool writable = fd >= 0;
    if (fd < 0 && (errno == EACCES || errno == EROFS || errno == ETXTBSY))
        fd = openat(folder, "package.json", O_RDONLY | flags);
    if (fd < 0) {
        snprintf(reply->type, sizeof reply->type, "%s", errno == ELOOP ? "symbolic link" : errno == EISDIR ? "folder"
                                                        : errno == ENXIO ? "socket" : "");
        return reply->result = reply->type[0] != '\0' ? TAKE_WRONG_TYPE : TAKE_UNREADABLE, -1;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        snprintf(reply->type, sizeof reply->type, "%s", type_of(status.st_mode));
        close(fd);
        return reply->result = TAKE_WRONG_TYPE, -1;
    }
    if (writable && status.st_uid == uid && status.st_nlink == 1)
        return fd;
    // Not the serving user's alone to write: the server gets the bytes that user reads, in a copy.
    const int copy = copy_of(fd);
    close(fd);
    reply->copy = true;
    return copy >= 0 ? copy : (reply->result = TAKE_NOT_COPIED, -1);
}

/// The child's work: become the user, open, reply; never returns.
[[noreturn]] void take_as_user(int channel, int path_fd, const ServeUser &user, bool free_port)
{
    TakeReply reply{};
    int fds[2] = {-1, -1};
    if (serve_user_become(user) != 0 || (fds[0] = openat(path_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0)
        reply.result = TAKE_CANNOT_ENTER;
    else if ((fds[1] = open_settings(fds[0], user.uid, free_port, &reply)) >= 0)
        reply.port = link_port_read_from(fds[1]);
    const int count = reply.result == TAKE_OK ? 2 : 0;
    iovec data{&reply, sizeof reply};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (count > 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof fds);
        memcpy(CMSG_DATA(header), fds, sizeof fds);
    }
    _exit(sendmsg(channel, &message, MSG_NOSIGNAL) == sizeof reply ? 0 : 1);
}

/// Receives the child's reply and descriptors within the deadline; 0, or -1.
int receive_reply(int channel, TakeReply *reply, int *fds)
{
    pollfd ready{channel, POLLIN, 0};
    if (poll(&ready, 1, TAKE_DEADLINE_MS) != 1)
        return -1;
    iovec data{reply, sizeof *reply};
    alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(channel, &message, MSG_CMSG_CLOEXEC) != sizeof *reply)
        return -1;
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_type == SCM_RIGHTS && header->cmsg_len == CMSG_LEN(2 * sizeof(int)))
        memcpy(fds, CMSG_DATA(header), 2 * sizeof(int));
    return 0;
}

std::string reason(const TakeReply &reply, const std::string &path, const ServeUser &user)
{
    const std::string settings = path + (path == "/" ? "" : "/") + "package.json";
    switch (reply.result) {
    case TAKE_CANNOT_ENTER: return path + " cannot be entered as " + user.name + ", who would serve it";
    case TAKE_MISSING_ROOT:
        return path + " belongs to root and has no package.json: create one there (an empty file takes the defaults)";
    case TAKE_MISSING_UNWRITABLE:
        return path + " has no package.json and you may not create one there: copy the folder to your home first";
    case TAKE_NOT_CREATED: return settings + " could not be created";
    case TAKE_UNREADABLE: return settings + " cannot be read by " + user.name + ", who would serve it";
    case TAKE_WRONG_TYPE: return settings + " is a " + reply.type + ": it must be a regular file, or missing";
    case TAKE_NOT_COPIED: return settings + " could not be copied";
    case TAKE_OK: break;
    }
    return settings + " did not answer within 5 s";
}

} // namespace

int serve_settings_take(int path_fd, const std::string &path, const ServeUser &user, bool free_port,
                        ServeSettings *settings, std::string *error)
{
    int channel[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel) != 0)
        return *error = "cannot make a channel", -1;
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        const int nothing = open("/dev/null", O_RDWR);
        for (int fd = 0; fd < 3; ++fd)
            dup2(nothing, fd);
        take_as_user(channel[1], path_fd, user, free_port);
    }
    close(channel[1]);
    TakeReply reply{};
    reply.result = TAKE_OK;
    int fds[2] = {-1, -1};
    const int received = child > 0 ? receive_reply(channel[0], &reply, fds) : -1;
    close(channel[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    if (received != 0 || reply.result != TAKE_OK || fds[0] < 0 || fds[1] < 0) {
        if (received == 0 && reply.result == TAKE_OK)
            reply.result = TAKE_NOT_COPIED;
        *error = received != 0 ? reason(TakeReply{TAKE_OK, {}, 0, false, false, ""}, path, user)
                               : reason(reply, path, user);
        return -1;
    }
    *settings = {fds[0], fds[1], reply.copy, reply.created, reply.created_port, reply.port};
    return 0;
}
