// What a sandbox holds of the system (a program, its loader and libraries), and starting its children:
// each in a session of its own, standard input from /dev/null, nothing open but what it is given.
#include <elf.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "confine/confine.h"
#include "serve/serve.h"

namespace {

// Where the dynamic loader finds the system's libraries on Debian.
constexpr const char *LIBRARY_FOLDERS[] = {"/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib/aarch64-linux-gnu",
                                           "/usr/lib/aarch64-linux-gnu", "/lib64", "/usr/lib64", "/lib", "/usr/lib"};

/// The program's interpreter and needed library names, read from its ELF headers; 0, or -1.
int elf_needs(const std::string &path, std::string *interpreter, std::vector<std::string> *needed)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || status.st_size < static_cast<off_t>(sizeof(Elf64_Ehdr))) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    const size_t size = status.st_size;
    void *mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    if (mapped == MAP_FAILED)
        return -1;
    const auto *bytes = static_cast<const unsigned char *>(mapped);
    const auto *header = static_cast<const Elf64_Ehdr *>(mapped);
    const bool fits = memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 && header->e_ident[EI_CLASS] == ELFCLASS64 &&
                      header->e_phoff + header->e_phnum * sizeof(Elf64_Phdr) <= size;
    const auto *segments = fits ? reinterpret_cast<const Elf64_Phdr *>(bytes + header->e_phoff) : nullptr;
    const int count = fits ? header->e_phnum : 0;
    // Dynamic-section addresses are virtual: a loaded segment maps them back to the file.
    const auto offset_of = [&](Elf64_Addr address) -> size_t {
        for (int i = 0; i < count; ++i)
            if (segments[i].p_type == PT_LOAD && address >= segments[i].p_vaddr &&
                address < segments[i].p_vaddr + segments[i].p_filesz)
                return address - segments[i].p_vaddr + segments[i].p_offset;
        return size;
    };
    for (int i = 0; i < count; ++i) {
        const Elf64_Phdr &segment = segments[i];
        if (segment.p_offset + segment.p_filesz > size)
            continue;
        if (segment.p_type == PT_INTERP)
            interpreter->assign(reinterpret_cast<const char *>(bytes + segment.p_offset), strnlen(
                reinterpret_cast<const char *>(bytes + segment.p_offset), segment.p_filesz));
        if (segment.p_type != PT_DYNAMIC)
            continue;
        const auto *entries = reinterpret_cast<const Elf64_Dyn *>(bytes + segment.p_offset);
        const size_t entry_count = segment.p_filesz / sizeof(Elf64_Dyn);
        size_t strings = size;
        for (size_t e = 0; e < entry_count && entries[e].d_tag != DT_NULL; ++e)
            if (entries[e].d_tag == DT_STRTAB)
                strings = offset_of(entries[e].d_un.d_ptr);
        for (size_t e = 0; e < entry_count && entries[e].d_tag != DT_NULL; ++e)
            if (entries[e].d_tag == DT_NEEDED && strings + entries[e].d_un.d_val < size)
                needed->emplace_back(reinterpret_cast<const char *>(bytes + strings + entries[e].d_un.d_val),
                                     strnlen(reinterpret_cast<const char *>(bytes + strings + entries[e].d_un.d_val),
                                             size - strings - entries[e].d_un.d_val));
    }
    munmap(mapped, size);
    return fits ? 0 : -1;
}

/// The path of library `name` in the system's folders, or "".
std::string library_path(const std::string &name)
{
    for (const char *folder : LIBRARY_FOLDERS) {
        const std::string path = std::string(folder) + "/" + name;
        if (access(path.c_str(), R_OK) == 0)
            return path;
    }
    return "";
}

/// Moves `fds` to 3, 4, ... and closes every other descriptor above 2.
void place_descriptors(const std::vector<int> &fds)
{
    std::vector<int> high;
    for (int fd : fds)
        high.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 100 + static_cast<int>(fds.size())));
    for (size_t i = 0; i < high.size(); ++i)
        dup2(high[i], 3 + static_cast<int>(i));
    syscall(SYS_close_range, 3 + fds.size(), ~0U, 0);
}

long now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000;
}

} // namespace

int serve_program_files(const std::string &path, std::vector<std::string> *files)
{
    std::vector<std::string> waiting{path};
    std::set<std::string> seen{path};
    while (!waiting.empty()) {
        const std::string file = waiting.back();
        waiting.pop_back();
        std::string interpreter;
        std::vector<std::string> needed;
        if (elf_needs(file, &interpreter, &needed) != 0)
            return -1;
        if (!interpreter.empty())
            needed.insert(needed.begin(), interpreter);
        for (const std::string &name : needed) {
            const std::string found = name[0] == '/' ? name : library_path(name);
            if (found.empty())
                return -1;
            if (seen.insert(found).second) {
                files->push_back(found);
                waiting.push_back(found);
            }
        }
    }
    return 0;
}

void serve_sandbox_binds(const std::vector<std::string> &paths, std::vector<std::string> *arguments)
{
    std::set<std::string> made;
    for (const std::string &path : paths) {
        // bubblewrap would make a mount point's parents 0700, which a dropped user could not pass.
        for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
            if (made.insert(path.substr(0, slash)).second)
                arguments->insert(arguments->end(), {"--perms", "0755", "--dir", path.substr(0, slash)});
        if (made.insert(path).second)
            arguments->insert(arguments->end(), {"--ro-bind", path, path});
    }
}

pid_t serve_spawn(const ServeChild &child)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int signal_number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        ::signal(signal_number, SIG_DFL);
    // A client that goes away while it is answered must not end the server.
    ::signal(SIGPIPE, SIG_IGN);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, 0);
    dup2(child.output_fd >= 0 ? child.output_fd : nothing, 1);
    dup2(child.output_fd >= 0 ? child.output_fd : nothing, 2);
    place_descriptors(child.fds);
    if (child.landlock_port > 0 && confine_landlock_tcp(static_cast<uint16_t>(child.landlock_port)) < 0)
        _exit(126);
    std::vector<char *> argv;
    for (const std::string &argument : child.argv)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    char *environment[] = {const_cast<char *>("PATH=/usr/sbin:/usr/bin:/sbin:/bin"), nullptr};
    execve(argv[0], argv.data(), environment);
    _exit(127);
}

int serve_run(const std::vector<std::string> &argv, int deadline_ms, std::string *output)
{
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0)
        return -1;
    const pid_t pid = serve_spawn({argv, {}, pipe_fds[1], 0});
    close(pipe_fds[1]);
    const long deadline = now_ms() + deadline_ms;
    char buffer[4096];
    for (long left; pid > 0 && (left = deadline - now_ms()) > 0;) {
        pollfd readable{pipe_fds[0], POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(left)) <= 0)
            break;
        const ssize_t count = read(pipe_fds[0], buffer, sizeof buffer);
        if (count <= 0)
            break;
        if (output != nullptr && output->size() < 65536)
            output->append(buffer, count);
    }
    close(pipe_fds[0]);
    if (pid < 0)
        return -1;
    // Past the deadline, or once its output is closed: it ends now, whatever it is doing.
    int status = 0;
    for (long left; waitpid(pid, &status, WNOHANG) == 0;) {
        if ((left = deadline - now_ms()) <= 0) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(static_cast<useconds_t>(std::min(left, 10L) * 1000));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
