// HTTPS: a local CA in the serving user's data folder, a leaf for the machine's private addresses, and the
// front (haproxy) that ends TLS on an inherited socket and passes each connection on to the server only
// once the client has sent bytes: the server answers one connection at a time, so an idle connection a
// browser opens ahead of time must never reach it. On the port after the TLS port, the front answers
// plain HTTP with the CA certificate and nothing else, so that a phone can fetch it and trust it.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "serve/serve.h"

namespace {

constexpr const char *OPENSSL = "/usr/bin/openssl";
constexpr int STEP_DEADLINE_MS = 20000;
// The CA may vouch only for private addresses, and for DNS names under the reserved .invalid, which no
// browser asks for.
constexpr const char *NAME_CONSTRAINTS =
    "nameConstraints=critical,permitted;IP:10.0.0.0/255.0.0.0,permitted;IP:172.16.0.0/255.240.0.0,"
    "permitted;IP:192.168.0.0/255.255.0.0,permitted;IP:127.0.0.0/255.0.0.0,permitted;DNS:invalid";

/// The whole of file `path` (64 KiB at most), or "" when it cannot be read.
std::string read_text(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    std::string text;
    char buffer[4096];
    for (ssize_t count; fd >= 0 && text.size() < 65536 && (count = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, count);
    if (fd >= 0)
        close(fd);
    return text;
}

/// Writes `text` to the new file `path` (mode 0600), replacing what was there; 0, or -1.
int write_text(const std::string &path, const std::string &text)
{
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0)
        close(fd);
    return ok ? 0 : -1;
}

/// A memfd holding `text`, its offset at the start; or -1.
int memory_file(const char *name, const std::string &text)
{
    const int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd >= 0 && (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) || lseek(fd, 0, SEEK_SET) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

int openssl(std::vector<std::string> arguments, std::string *output = nullptr)
{
    arguments.insert(arguments.begin(), OPENSSL);
    return serve_run(arguments, STEP_DEADLINE_MS, output);
}

/// Makes every missing folder of `path`, the last one 0700; 0, or -1.
int make_folders(const std::string &path)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        if (mkdir(part.c_str(), slash == std::string::npos ? 0700 : 0755) != 0 && errno != EEXIST)
            return -1;
        if (slash == std::string::npos)
            break;
    }
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == getuid() ? 0 : -1;
}

int make_ca(const std::string &data)
{
    utsname host{};
    uname(&host);
    const std::string subject = "/O=Varnok HTTP Server/CN=Varnok local CA on " + std::string(host.nodename).substr(0, 40);
    return openssl({"req", "-x509", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-sha256",
                    "-days", "3650", "-keyout", data + "/ca.key", "-out", data + "/ca.crt", "-subj", subject,
                    "-addext", "basicConstraints=critical,CA:TRUE,pathlen:0", "-addext",
                    "keyUsage=critical,keyCertSign,cRLSign", "-addext", NAME_CONSTRAINTS, "-addext",
                    "subjectKeyIdentifier=hash"});
}

/// A leaf for `addresses`, signed by the CA, valid 825 days: the longest a phone accepts for a server.
int make_leaf(const std::string &data, const std::vector<std::string> &addresses)
{
    std::string names;
    for (const std::string &address : addresses)
        names += (names.empty() ? "IP:" : ",IP:") + address;
    unsigned char random[16] = {};
    char serial[40] = "0x";
    if (getrandom(random, sizeof random, 0) != sizeof random)
        return -1;
    for (int i = 0; i < 16; ++i)
        snprintf(serial + 2 + 2 * i, 3, "%02x", random[i]);
    const std::string extensions = "basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n"
                                   "extendedKeyUsage=serverAuth\nsubjectAltName=" + names +
                                   "\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n";
    const int made = write_text(data + "/leaf.ext", extensions) == 0 &&
                     openssl({"req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                              data + "/leaf.key", "-out", data + "/leaf.csr", "-subj", "/O=Varnok HTTP Server"}) == 0 &&
                     openssl({"x509", "-req", "-in", data + "/leaf.csr", "-CA", data + "/ca.crt", "-CAkey", data + "/ca.key",
                              "-set_serial", serial, "-days", "825", "-sha256", "-extfile", data + "/leaf.ext", "-out",
                              data + "/leaf.crt"}) == 0 ? 0 : -1;
    unlink((data + "/leaf.csr").c_str());
    unlink((data + "/leaf.ext").c_str());
    return made;
}

/// Whether the leaf is still good for `wanted` (the sorted addresses, a line each): the same addresses,
/// the CA's, and not ending within 30 days.
bool leaf_good(const std::string &data, const std::string &wanted)
{
    return read_text(data + "/addresses") == wanted &&
           openssl({"verify", "-CAfile", data + "/ca.crt", data + "/leaf.crt"}) == 0 &&
           openssl({"x509", "-in", data + "/leaf.crt", "-noout", "-checkend", std::to_string(30 * 86400)}) == 0;
}

} // namespace

int serve_https_certificates(const ServeUser &user, const std::vector<std::string> &addresses, ServeHttps *https,
                             std::string *error)
{
    const std::string &data = https->data;
    const mode_t mask = umask(077);
    std::vector<std::string> sorted = addresses.empty() ? std::vector<std::string>{"127.0.0.1"} : addresses;
    std::sort(sorted.begin(), sorted.end());
    std::string wanted;
    for (const std::string &address : sorted)
        wanted += address + "\n";
    int made = make_folders(data);
    if (made == 0 && (read_text(data + "/ca.key").empty() || read_text(data + "/ca.crt").empty())) {
        for (const char *name : {"/ca.key", "/ca.crt", "/leaf.key", "/leaf.crt", "/addresses"})
            unlink((data + name).c_str());
        made = make_ca(data);
    }
    chmod((data + "/ca.key").c_str(), 0600);
    if (made == 0 && !leaf_good(data, wanted))
        made = make_leaf(data, addresses.empty() ? std::vector<std::string>{"127.0.0.1"} : addresses) == 0 &&
               write_text(data + "/addresses", wanted) == 0 ? 0 : -1;
    std::string fingerprint;
    if (made == 0)
        openssl({"x509", "-in", data + "/ca.crt", "-noout", "-fingerprint", "-sha256"}, &fingerprint);
    umask(mask);
    fingerprint = fingerprint.substr(std::min(fingerprint.find('=') + 1, fingerprint.size()));
    fingerprint.erase(std::remove_if(fingerprint.begin(), fingerprint.end(), [](char c) { return c == ':' || c == '\n'; }),
                      fingerprint.end());
    if (made != 0 || fingerprint.size() != 64)
        return *error = "--https: the certificates in " + data + " could not be made", -1;
    https->fingerprint = fingerprint;
    https->leaf_fd = memory_file("leaf.pem", read_text(data + "/leaf.crt") + read_text(data + "/leaf.key"));
    https->ca_fd = memory_file("ca.crt", read_text(data + "/ca.crt"));
    if (https->leaf_fd < 0 || https->ca_fd < 0)
        return *error = "--https: cannot read the certificates in " + data + " as " + user.name, -1;
    return 0;
}

std::string serve_https_config(uint16_t plain)
{
    return "global\n"
           "    maxconn 256\n"
           "    ssl-default-bind-options ssl-min-ver TLSv1.2 ssl-max-ver TLSv1.3 no-tls-tickets\n"
           "\n"
           "defaults\n"
           "    timeout connect 5s\n"
           "    timeout client 30s\n"
           "    timeout server 60s\n"
           "    timeout client-fin 5s\n"
           "    timeout http-request 10s\n"
           "\n"
           "frontend https\n"
           "    mode tcp\n"
           "    bind fd@3 ssl crt /front/leaf.pem alpn http/1.1\n"
           "    # Decrypted bytes only come after the handshake: wait for the first, and drop a connection that\n"
           "    # sends none in time, so that only a request ever reaches the one-at-a-time server.\n"
           "    tcp-request inspect-delay 30s\n"
           "    tcp-request content accept if { req.len gt 0 }\n"
           "    tcp-request content reject\n"
           "    default_backend server\n"
           "\n"
           "backend server\n"
           "    mode tcp\n"
           "    server plain 127.0.0.1:" + std::to_string(plain) + "\n"
           "\n"
           "frontend ca\n"
           "    mode http\n"
           "    bind fd@4\n"
           "    # Android's browsers hand a CA type to an installer that refuses CAs since Android 11: there it is\n"
           "    # a download, to install from Settings; elsewhere (iOS Safari) the type that offers the profile.\n"
           "    acl ca path /ca.crt\n"
           "    acl android req.hdr(user-agent) -m sub Android\n"
           "    http-request return status 200 content-type application/octet-stream file /front/ca.crt hdr "
           "Content-Disposition \"attachment; filename=varnok-ca.crt\" if ca android\n"
           "    http-request return status 200 content-type application/x-x509-ca-cert file /front/ca.crt if ca\n"
           "    http-request return status 404 content-type text/plain string \"Not found: this port serves only "
           "/ca.crt\\n\"\n";
}

std::vector<std::string> serve_https_command(int config_fd, int leaf_fd, int ca_fd)
{
    std::vector<std::string> command{"/usr/bin/bwrap", "--unshare-user", "--unshare-ipc", "--unshare-pid", "--unshare-uts",
                                     "--unshare-cgroup-try", "--new-session", "--die-with-parent", "--clearenv",
                                     "--proc", "/proc", "--dev", "/dev"};
    std::vector<std::string> files{"/usr/sbin/haproxy"};
    serve_program_files("/usr/sbin/haproxy", &files);
    serve_sandbox_binds(files, &command);
    command.insert(command.end(), {"--perms", "0755", "--dir", "/front",
                                   "--ro-bind-data", std::to_string(config_fd), "/front/haproxy.cfg",
                                   "--ro-bind-data", std::to_string(leaf_fd), "/front/leaf.pem",
                                   "--ro-bind-data", std::to_string(ca_fd), "/front/ca.crt",
                                   "--", "/usr/sbin/haproxy", "-db", "-f", "/front/haproxy.cfg"});
    return command;
}
