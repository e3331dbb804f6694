// varnok-link: prints the links at which a phone opens the served folder, each as a QR symbol, laid out
// for the terminal; or the port the server will bind, for the launcher.
#include <sys/ioctl.h>
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
    "Usage: varnok-link [--serving | --port] [FOLDER]\n"
    "Prints the links at which a phone or tablet on this computer's network opens what\n"
    "varnok-http-server serves from FOLDER (default: the working folder), each with its\n"
    "QR code. The port comes from FOLDER/package.json, read as the server reads it.\n"
    "\n"
    "  (no option)  every link, after a note on FOLDER/package.json; on a terminal the\n"
    "               codes stand side by side as far as its width allows\n"
    "  --serving    the links as shown once the server listens: a heading, then the\n"
    "               codes that fit the terminal, and a line on those that do not\n"
    "  --port       only the port the server binds for FOLDER/package.json\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "Exit status: 0; 1 when the network interfaces cannot be listed; 2 for a wrong\n"
    "argument or a FOLDER that cannot be entered.\n";

enum Task { TASK_LINKS, TASK_SERVING, TASK_PORT };

int usage_error(const char *what, const char *argument)
{
    fprintf(stderr, "varnok-link: %s %s (see varnok-link --help)\n", what, argument);
    return 2;
}

/// The terminal's size when standard output is one; 0 x 0 for a file or a pipe.
LinkScreen screen_of_stdout()
{
    winsize size{};
    if (!isatty(STDOUT_FILENO) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 ||
        size.ws_row == 0)
        return {0, 0};
    return {size.ws_col, size.ws_row};
}

int print_links(LinkMode mode)
{
    std::array<char *, LAN_ADDRESS_SLOT_COUNT> slots{};
    if (lan_address_collect(slots.data()) != 0) {
        printf("The network interfaces cannot be listed, so no link can be given.\n");
        return 1;
    }
    std::array<const char *, LAN_ADDRESS_SLOT_COUNT> offered{};
    const int count = link_ordered_addresses(slots.data(), LAN_ADDRESS_SLOT_COUNT, offered.data());
    link_print(stdout, mode, link_port_read(), offered.data(), count, screen_of_stdout());
    for (char *slot : slots)
        free(slot);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Task task = TASK_LINKS;
    const char *folder = nullptr;
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
        } else if (strcmp(argument, "--serving") == 0 || strcmp(argument, "--port") == 0) {
            if (task != TASK_LINKS)
                return usage_error("one of --serving and --port only, not also", argument);
            task = argument[2] == 's' ? TASK_SERVING : TASK_PORT;
        } else {
            return usage_error("unknown option", argument);
        }
    }
    if (folder != nullptr && chdir(folder) != 0) {
        fprintf(stderr, "varnok-link: cannot enter %s: %s\n", folder, strerror(errno));
        return 2;
    }
    if (task == TASK_PORT) {
        printf("%u\n", static_cast<unsigned>(link_bound_port(link_port_read().setting)));
        return 0;
    }
    return print_links(task == TASK_SERVING ? LINK_MODE_SERVING : LINK_MODE_ALL);
}
