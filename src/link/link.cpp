// Link: reads the port as the server will bind it and prints a URL and its QR symbol per LAN address.
#include "link/link.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "pairing/pairing.h"
#include "qr/qr.h"
#include "settings/settings.h"

namespace {

constexpr size_t SETTINGS_READ_SIZE = 4096;   // the server reads the file once, this much at most

// Colours 16 and 231 of the 256-colour cube: black and white that terminal themes leave alone,
// unlike the sixteen basic colours. Each cell is an upper half block: foreground for the upper
// module, background for the lower one.
constexpr const char *HALF_BLOCK = "\xe2\x96\x80";
constexpr int BLACK = 16, WHITE = 231;

LinkPort port_default(LinkPortSource source)
{
    return {SETTINGS_DEFAULT_PORT, source, true};
}

/// The port member of an already parsed settings tree, as the server reads it.
LinkPort port_from_tree(const cJSON *root)
{
    const cJSON *object = cJSON_GetObjectItem(root, "varnok");
    if (object == nullptr || !cJSON_IsObject(object))
        return port_default(LINK_PORT_NO_SETTINGS);
    const cJSON *port = cJSON_GetObjectItem(object, "port");
    if (port == nullptr)
        return port_default(LINK_PORT_NO_PORT);
    // valueint is what the server binds: 0 for a string or null, 1 for true, saturated numbers.
    return {port->valueint, LINK_PORT_FROM_FILE, cJSON_IsNumber(port) != 0};
}

bool module_is_dark(int x, int y, int size)
{
    return x >= 0 && y >= 0 && x < size && y < size && qr_symbol.modules[x][y] == 1;
}

void print_settings_note(FILE *out, const LinkPort &port)
{
    switch (port.source) {
    case LINK_PORT_FROM_FILE:
        if (!port.is_number)
            fprintf(out, "package.json: the port setting is not a number, so the server takes it as %d.\n",
                    port.setting);
        return;
    case LINK_PORT_NO_FILE:
        fprintf(out, "package.json: not found; the server creates it with the default port %d.\n", port.setting);
        return;
    case LINK_PORT_UNREADABLE:
        fprintf(out, "package.json: cannot be read; the default port %d applies.\n", port.setting);
        return;
    case LINK_PORT_EMPTY:
        fprintf(out, "package.json: empty; the server rewrites it with the default port %d.\n", port.setting);
        return;
    case LINK_PORT_NOT_JSON:
        fprintf(out, "package.json: not valid JSON; the default port %d applies.\n", port.setting);
        return;
    case LINK_PORT_NO_SETTINGS:
        fprintf(out, "package.json: no varnok settings object; the default port %d applies.\n", port.setting);
        return;
    case LINK_PORT_NO_PORT:
        fprintf(out, "package.json: no port setting; the default port %d applies.\n", port.setting);
        return;
    }
}

} // namespace

LinkPort link_port_read()
{
    const int descriptor = open("package.json", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return port_default(errno == ENOENT ? LINK_PORT_NO_FILE : LINK_PORT_UNREADABLE);
    std::array<char, SETTINGS_READ_SIZE + 1> text{};
    const ssize_t count = read(descriptor, text.data(), SETTINGS_READ_SIZE);
    close(descriptor);
    if (count < 0)
        return port_default(LINK_PORT_UNREADABLE);
    if (text[0] == '\0')
        return port_default(LINK_PORT_EMPTY);
    cJSON *root = cJSON_Parse(text.data());
    if (root == nullptr)
        return port_default(LINK_PORT_NOT_JSON);
    const LinkPort port = port_from_tree(root);
    cJSON_Delete(root);
    return port;
}

uint16_t link_bound_port(int32_t setting)
{
    return static_cast<uint16_t>(static_cast<uint32_t>(setting) & 0xFFFF);
}

int link_offered_addresses(char *const *slots, int32_t slot_count, const char **out)
{
    int count = 0;
    // The same walk as the pairing code's: it ends at the first empty slot.
    for (int32_t i = 0; i < slot_count && slots[i] != nullptr; ++i)
        if (lan_address_qualifies(slots[i]))
            out[count++] = slots[i];
    return count;
}

void link_format_url(char *url, const char *address, uint16_t port)
{
    snprintf(url, LINK_URL_SIZE, "http://%s:%u/", address, static_cast<unsigned>(port));
}

int link_print_symbol(FILE *out, const char *text)
{
    if (!qr_encode_quiet(text))
        return 0;
    const int size = qr_symbol.size;
    const int first = -LINK_QUIET_ZONE, end = size + LINK_QUIET_ZONE;
    // Rows y and y + 1 share a line; the grid is indexed [x][y], so the picture is not mirrored.
    for (int y = first; y < end; y += 2) {
        int shown_top = -1, shown_bottom = -1;
        for (int x = first; x < end; ++x) {
            const int top = module_is_dark(x, y, size) ? BLACK : WHITE;
            const int bottom = module_is_dark(x, y + 1, size) ? BLACK : WHITE;
            if (top != shown_top || bottom != shown_bottom)
                fprintf(out, "\033[38;5;%d;48;5;%dm", top, bottom);
            shown_top = top;
            shown_bottom = bottom;
            fputs(HALF_BLOCK, out);
        }
        fputs("\033[0m\n", out);
    }
    return 1;
}

void link_print_all(FILE *out, const LinkPort &port, char *const *slots, int32_t slot_count)
{
    print_settings_note(out, port);
    const uint16_t bound = link_bound_port(port.setting);
    if (bound == 0) {
        fprintf(out, "The port setting %d leaves the choice of port to the system, so no link can be known "
                     "before the server starts.\n", port.setting);
        return;
    }
    std::array<const char *, LAN_ADDRESS_SLOT_COUNT> offered{};
    const int count = link_offered_addresses(slots, slot_count, offered.data());
    if (count == 0) {
        fprintf(out, "No LAN address on this computer: connect it to a network, and the phone must join "
                     "the same network.\n");
        return;
    }
    for (int i = 0; i < count; ++i) {
        char url[LINK_URL_SIZE];
        link_format_url(url, offered[i], bound);
        fprintf(out, "%s%s\n", i > 0 ? "\n" : "", url);
        link_print_symbol(out, url);
    }
}
