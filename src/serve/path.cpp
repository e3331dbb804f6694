// The folder's path, walked as root would read it: one component at a time, links read, never followed
// by name; and the serving user, and becoming that user for good.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "serve/serve.h"

namespace {

constexpr int MOST_LINKS = 40;

/// A folder reached on the way: its descriptor and its path.
struct Place {
    int fd;
    std::string path;
};

/// `path`'s components, in order, in front of `queue`.
void push_components(const std::string &path, std::deque<std::string> *queue)
{
    std::deque<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    queue->insert(queue->begin(), parts.begin(), parts.end());
}

std::string joined(const std::string &folder, const std::string &name)
{
    return folder == "/" ? "/" + name : folder + "/" + name;
}

void close_all(std::vector<Place> *places)
{
    for (const Place &place : *places)
        close(place.fd);
    places->clear();
}

/// Back to `/` alone, for an absolute path.
int restart_at_root(std::vector<Place> *places, std::vector<PathStep> *steps)
{
    close_all(places);
    const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct stat status {};
    if (root < 0 || fstat(root, &status) != 0)
        return -1;
    places->push_back({root, "/"});
    steps->push_back({"/", status.st_uid, status.st_mode});
    return 0;
}

} // namespace

int serve_path_walk(const std::string &path, std::vector<PathStep> *steps, std::string *resolved, std::string *error)
{
    std::string start = path;
    if (path.empty() || path[0] != '/') {
        char here[4096];
        if (getcwd(here, sizeof here) == nullptr)
            return *error = "the working folder has no path", -1;
        start = std::string(here) + "/" + path;
    }
    std::deque<std::string> queue;
    push_components(start, &queue);
    std::vector<Place> places;
    if (restart_at_root(&places, steps) != 0)
        return *error = "/ cannot be opened", -1;
    int links = 0;
    while (!queue.empty()) {
        const std::string name = queue.front();
        queue.pop_front();
        if (name == ".")
            continue;
        if (name == "..") {
            if (places.size() > 1) {
                close(places.back().fd);
                places.pop_back();
            }
            continue;
        }
        const std::string here = joined(places.back().path, name);
        const int fd = openat(places.back().fd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        struct stat status {};
        if (fd < 0 || fstat(fd, &status) != 0) {
            *error = here + (errno == ENOENT ? " does not exist" : " cannot be looked at: " + std::string(strerror(errno)));
            fd >= 0 && close(fd);
            close_all(&places);
            return -1;
        }
        steps->push_back({here, status.st_uid, status.st_mode});
        if (S_ISLNK(status.st_mode)) {
            char target[4096];
            const ssize_t length = readlinkat(fd, "", target, sizeof target - 1);
            close(fd);
            if (length <= 0 || ++links > MOST_LINKS) {
                close_all(&places);
                return *error = here + " is a link that leads nowhere", -1;
            }
            push_components(std::string(target, length), &queue);
            if (target[0] == '/' && restart_at_root(&places, steps) != 0)
                return *error = "/ cannot be opened", -1;
        } else if (S_ISDIR(status.st_mode)) {
            places.push_back({fd, here});
        } else {
            close(fd);
            close_all(&places);
            return *error = here + " is not a folder", -1;
        }
    }
    *resolved = places.back().path;
    const int folder = dup(places.back().fd);
    close_all(&places);
    return folder;
}

int serve_path_rule(const std::vector<PathStep> &steps, uid_t uid)
{
    const uid_t folder_owner = steps.empty() ? 0 : steps.back().owner;
    for (size_t i = 0; i < steps.size(); ++i) {
        const PathStep &step = steps[i];
        if (step.owner != 0 && step.owner != uid && step.owner != folder_owner)
            return static_cast<int>(i);
        // A folder others may write lets them swap what lies below, unless it is sticky and root's (/tmp).
        const bool shared = S_ISDIR(step.mode) && (step.mode & (S_IWGRP | S_IWOTH)) != 0;
        if (shared && !((step.mode & S_ISVTX) != 0 && step.owner == 0))
            return static_cast<int>(i);
    }
    return -1;
}

namespace {

ServeUser user_of(uid_t uid, gid_t gid)
{
    const passwd *entry = getpwuid(uid);
    ServeUser user{uid, gid, entry != nullptr ? entry->pw_name : "uid " + std::to_string(uid),
                   entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : ""};
    return user;
}

} // namespace

int serve_user_for(uid_t owner, ServeUser *user, std::string *error)
{
    uid_t uid = owner;
    if (uid == 0) {
        const passwd *nobody = getpwnam("nobody");
        if (nobody == nullptr)
            return *error = "there is no user nobody to serve root's folder", -1;
        uid = nobody->pw_uid;
    }
    const passwd *entry = getpwuid(uid);
    gid_t gid = entry != nullptr ? entry->pw_gid : 0;
    if (gid == 0) {
        const group *nogroup = getgrnam("nogroup");
        if (nogroup == nullptr)
            return *error = "there is no group nogroup to serve with", -1;
        gid = nogroup->gr_gid;
    }
    *user = user_of(uid, gid);
    return 0;
}

std::string serve_user_name(uid_t uid)
{
    return user_of(uid, 0).name;
}

ServeUser serve_user_self()
{
    return user_of(getuid(), getgid());
}

int serve_user_become(const ServeUser &user)
{
    if (getuid() == 0 || geteuid() == 0) {
        if (setgroups(0, nullptr) != 0 || setresgid(user.gid, user.gid, user.gid) != 0 ||
            setresuid(user.uid, user.uid, user.uid) != 0)
            return -1;
        // For good: there is no way back.
        if (user.uid != 0 && (setuid(0) == 0 || seteuid(0) == 0))
            return -1;
    }
    // Whatever capabilities it was started with (a port below 1024 for a service's user) go too.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0 || syscall(SYS_capset, &header, none) != 0)
        return -1;
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return -1;
    return 0;
}
