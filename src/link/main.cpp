// varnok-link: prints the links at which a phone opens the served folder, each as a QR symbol, laid out
// for the terminal; or the port the server will bind, for the launcher.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link/link.h"
#include "pairing/pairing.h"
#include "server/product.h"

namespace {

constexpr const char *HELP =
    "Usage: varnok-link [--serving | --port | --addresses] [FOLDER]\n"
    "       varnok-link --serving --https PORT --ca-url URL --fingerprint SHA256 [FOLDER]\n"
    "Prints the links at which a phone or tablet on this computer's network opens what\n"
    "varnok-http-server serves from FOLDER (default: the working folder), each with its\n"
    "QR code. The port comes from FOLDER/package.json, read as the server reads it.\n"
    "\n"
    "  (no option)  every link, after a note on FOLDER/package.json; on a terminal the\n"
    "               codes stand side by side as far as its width allows\n"
    "  --serving    the links as shown once the server listens: a heading, then the\n"
    "               codes that fit the terminal, and a line on those that do not\n"
    "  --port       only the port the server binds for FOLDER/package.json\n"
    "  --addresses  only the private addresses (10.x, 172.16-31.x, 192.168.x) of\n"
    "               the links, one a line, in their order (default route first)\n"
    "  --https PORT with --serving: the https links on PORT instead, beside the\n"
    "               code of --ca-url (the plain-HTTP link of the CA certificate),\n"
    "               above the CA's SHA-256 --fingerprint and how a phone trusts it\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "Exit status: 0; 1 when the network interfaces cannot be listed; 2 for a wrong\n"
    "argument or a FOLDER that cannot be entered.\n";

enum Task { TASK_LINKS, TASK_SERVING, TASK_PORT, TASK_ADDRESSES };

/// The values of --https, --ca-url and --fingerprint as given (null when not).
struct SecureOptions {
    const char *port;
    const char *ca_url;
    const char *fingerprint;
};

int usage_error(const char *what, const char *argument)
{
    fprintf(stderr, "varnok-link: %s %s (see varnok-link --help)\n", what, argument);
    return 2;
}

/// Prints what `task` asks for about the ordered addresses; `secure` is set for the https links.
int print_links(Task task, const LinkSecure *secure)
{
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slots{};
    if (lan_address_collect(slots.data()) != 0) {
        if (task != TASK_ADDRESSES)
            printf("The network interfaces cannot be listed, so no link can be given.\n");
        else
            fprintf(stderr, "varnok-link: the network interfaces cannot be listed\n");
        return 1;
    }
    std::array<const char *, LAN_ADDRESS_SLOT_COUNT> offered{};
    int count = link_ordered_addresses(slots.data(), LAN_ADDRESS_SLOT_COUNT, offered.data());
    // The CA vouches only for private addresses, so the https side sees only those.
    if (task == TASK_ADDRESSES || secure != nullptr)
        count = link_keep_private(offered.data(), count);
    if (task == TASK_ADDRESSES)
        for (int i = 0; i < count; ++i)
            printf("%s\n", offered[i]);
    else if (secure != nullptr)
        link_print_secure(stdout, *secure, offered.data(), count, link_screen_of(STDOUT_FILENO));
    else
        link_print(stdout, task == TASK_SERVING ? LINK_MODE_SERVING : LINK_MODE_ALL, link_port_read(), offered.data(),
                   count, link_screen_of(STDOUT_FILENO));
    for (char *slot : slots)
        free(slot);
    return 0;
}

/// Checks the three https values (all or none, and only with --serving) into `secure`; 0, or the exit status.
int secure_from(const SecureOptions &given, Task task, LinkSecure *secure, char *fingerprint)
{
    const int count = (given.port != nullptr) + (given.ca_url != nullptr) + (given.fingerprint != nullptr);
    if (count == 0)
        return 0;
    if (count != 3 || task != TASK_SERVING)
        return usage_error("--https, --ca-url and --fingerprint go together, with --serving:", "missing");
    char *end = nullptr;
    errno = 0;
    const long port = strtol(given.port, &end, 10);
    if (errno != 0 || *end != '\0' || end == given.port || port < 1 || port > 65535)
        return usage_error("--https takes a port from 1 to 65535, not", given.port);
    if (strncmp(given.ca_url, "http://", 7) != 0 || link_symbol_lines(given.ca_url) == 0)
        return usage_error("--ca-url takes an http:// link that fits a code, not", given.ca_url);
    if (!link_fingerprint_parse(given.fingerprint, fingerprint))
        return usage_error("--fingerprint takes 64 hex digits, not", given.fingerprint);
    *secure = {static_cast<uint16_t>(port), given.ca_url, fingerprint};
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Task task = TASK_LINKS;
    const char *folder = nullptr;
    SecureOptions given{};
    bool options_end = false;
    for (int i = 1; i < argc; ++i) {
        const char *argument = argv[i];
        if (options_end || argument[0] != '-' || argument[1] == '\0') {
            if (folder != nullptr)
                return usage_error("one FOLDER only, not also", argument);
            folder = argument;
        } else if (strcmp(argument, "--") == 0) {
            options_end = true;
        } else if (strcmp(argument, "--help") == 0) {
            fputs(HELP, stdout);
            return 0;
        } else if (strcmp(argument, "--version") == 0) {
            printf("varnok-link %s\n", PRODUCT_SERVER_VERSION);
            return 0;
        } else if (strcmp(argument, "--serving") == 0 || strcmp(argument, "--port") == 0 ||
                   strcmp(argument, "--addresses") == 0) {
            if (task != TASK_LINKS)
                return usage_error("one of --serving, --port and --addresses only, not also", argument);
            task = argument[2] == 's' ? TASK_SERVING : argument[2] == 'p' ? TASK_PORT : TASK_ADDRESSES;
        } else if (const char **value = strcmp(argument, "--https") == 0         ? &given.port
                                        : strcmp(argument, "--ca-url") == 0      ? &given.ca_url
                                        : strcmp(argument, "--fingerprint") == 0 ? &given.fingerprint
                                                                                 : nullptr) {
            if (i + 1 == argc)
                return usage_error("a value must follow", argument);
            *value = argv[++i];
        } else {
            return usage_error("unknown option", argument);
        }
    }
    LinkSecure secure{};
    char fingerprint[LINK_FINGERPRINT_SIZE];
    if (const int status = secure_from(given, task, &secure, fingerprint); status != 0)
        return status;
    if (folder != nullptr && chdir(folder) != 0) {
        fprintf(stderr, "varnok-link: cannot enter %s: %s\n", folder, strerror(errno));
        return 2;
    }
    if (task == TASK_PORT) {
        printf("%u\n", static_cast<unsigned>(link_bound_port(link_port_read().setting)));
        return 0;
    }
    return print_links(task, given.port != nullptr ? &secure : nullptr);
}
