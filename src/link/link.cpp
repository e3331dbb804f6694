// Link: reads the port as the server will bind it and prints a URL and its QR symbol per LAN address.
#include "link/link.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "pairing/pairing.h"
#include "qr/qr.h"
#include "settings/settings.h"

namespace {

constexpr size_t SETTINGS_READ_SIZE = 4096;   // the server reads the file once, this much at most
constexpr int SECURE_TEXT_LINES = 3;          // the fingerprint, iOS and Android lines

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

/// A QR symbol copied out of the encoder's one record, so that several can be drawn line by line.
struct LinkSymbol {
    int size;                   // modules per side; 0 when the text did not fit
    uint8_t modules[QR_MAX_MODULES][QR_MAX_MODULES];  // [x][y], as the encoder places them
};
static_assert(sizeof(LinkSymbol::modules) == sizeof(QrSymbol::modules));

bool module_is_dark(const LinkSymbol &symbol, int x, int y)
{
    return x >= 0 && y >= 0 && x < symbol.size && y < symbol.size && symbol.modules[x][y] == 1;
}

/// The whole of a small text file ("" when it cannot be read).
std::string file_text(const char *path)
{
    std::string text;
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return text;
    std::array<char, 4096> chunk;
    for (size_t count; (count = fread(chunk.data(), 1, chunk.size(), file)) > 0;)
        text.append(chunk.data(), count);
    fclose(file);
    return text;
}

/// 1 when the list from `head` has `address` on `interface` (or on one of its labels, "eth0:1").
bool address_is_on(const char *address, const ifaddrs *head, const char *interface)
{
    const size_t name_length = strlen(interface);
    for (const ifaddrs *entry = head; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET || entry->ifa_name == nullptr)
            continue;
        if (strncmp(entry->ifa_name, interface, name_length) != 0 ||
            (entry->ifa_name[name_length] != '\0' && entry->ifa_name[name_length] != ':'))
            continue;
        char text[LAN_ADDRESS_TEXT_SIZE];
        const auto *ipv4 = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr);
        if (inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof text) != nullptr && strcmp(text, address) == 0)
            return true;
    }
    return false;
}

/// Encodes `text` into `symbol` (of size 0 when the text does not fit a symbol).
void symbol_make(LinkSymbol *symbol, const char *text)
{
    symbol->size = qr_encode_quiet(text) ? qr_symbol.size : 0;
    memcpy(symbol->modules, qr_symbol.modules, sizeof symbol->modules);
}

/// Lines a symbol takes with its quiet zone, two module rows per line, and its width in columns.
int symbol_lines(const LinkSymbol &symbol)
{
    return symbol.size > 0 ? (symbol.size + 2 * LINK_QUIET_ZONE + 1) / 2 : 0;
}

int symbol_columns(const LinkSymbol &symbol)
{
    return symbol.size > 0 ? symbol.size + 2 * LINK_QUIET_ZONE : 0;
}

/// Draws line `line` of `symbol`, ending with an attribute reset and no line end.
void print_symbol_line(FILE *out, const LinkSymbol &symbol, int line)
{
    const int first = -LINK_QUIET_ZONE, end = symbol.size + LINK_QUIET_ZONE;
    // Rows y and y + 1 share a line; the grid is indexed [x][y], so the picture is not mirrored.
    const int y = first + 2 * line;
    int shown_top = -1, shown_bottom = -1;
    for (int x = first; x < end; ++x) {
        const int top = module_is_dark(symbol, x, y) ? BLACK : WHITE;
        const int bottom = module_is_dark(symbol, x, y + 1) ? BLACK : WHITE;
        if (top != shown_top || bottom != shown_bottom)
            fprintf(out, "\033[38;5;%d;48;5;%dm", top, bottom);
        shown_top = top;
        shown_bottom = bottom;
        fputs(HALF_BLOCK, out);
    }
    fputs("\033[0m", out);
}

/// The line after the one `text` starts, or null after the last.
const char *next_line(const char *text)
{
    const char *end = strchr(text, '\n');
    return end != nullptr ? end + 1 : nullptr;
}

int divide_up(int value, int divisor)
{
    return (value + divisor - 1) / divisor;
}

/// Lines that `rows` rows of codes take: a URL line and the symbol each, a blank line between rows.
int code_rows_lines(int rows)
{
    return rows * (1 + LINK_CODE_LINES) + (rows - 1);
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

/// The line on the https links without a code: the port and their addresses, as many as fit LINK_TEXT_COLUMNS.
std::string secure_more_line(uint16_t port, const char *const *addresses, int count)
{
    std::string line = "Also over https on port " + std::to_string(port) + " at:";
    for (int i = 0; i < count; ++i) {
        const std::string next = std::string(i > 0 ? ", " : " ") + addresses[i];
        const bool last = i + 1 == count;
        // Room for the address, and for ", ..." after it when more follow.
        if (line.size() + next.size() + (last ? 0 : 5) > static_cast<size_t>(LINK_TEXT_COLUMNS)) {
            line += ", ...";
            break;
        }
        line += next;
    }
    return line;
}

} // namespace

LinkPort link_port_read()
{
    const int descriptor = open("package.json", O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return port_default(errno == ENOENT ? LINK_PORT_NO_FILE : LINK_PORT_UNREADABLE);
    const LinkPort port = link_port_read_from(descriptor);
    close(descriptor);
    return port;
}

LinkPort link_port_read_from(int descriptor)
{
    std::array<char, SETTINGS_READ_SIZE + 1> text{};
    const ssize_t count = pread(descriptor, text.data(), SETTINGS_READ_SIZE, 0);
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

LinkScreen link_screen_of(int fd)
{
    winsize size{};
    if (!isatty(fd) || ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {0, 0};
    return {size.ws_col, size.ws_row};
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

int link_address_is_private(const char *address)
{
    in_addr parsed{};
    if (inet_pton(AF_INET, address, &parsed) != 1)
        return 0;
    const uint32_t value = ntohl(parsed.s_addr);
    return (value >> 24) == 10 || (value >> 20) == ((172u << 4) | 1) || (value >> 16) == ((192u << 8) | 168);
}

int link_keep_private(const char **offered, int count)
{
    return static_cast<int>(std::stable_partition(offered, offered + count, link_address_is_private) - offered);
}

void link_format_secure_url(char *url, const char *address, uint16_t port)
{
    snprintf(url, LINK_URL_SIZE, "https://%s:%u/", address, static_cast<unsigned>(port));
}

int link_fingerprint_parse(const char *text, char *hex)
{
    int digits = 0;
    for (const char *c = text; *c != '\0'; ++c) {
        // A colon may only part two pairs: after an even, nonzero count of digits, before more.
        if (*c == ':' && digits > 0 && digits % 2 == 0 && c[1] != '\0' && c[1] != ':')
            continue;
        if (!isxdigit(static_cast<unsigned char>(*c)) || digits == LINK_FINGERPRINT_SIZE - 1)
            return 0;
        hex[digits++] = static_cast<char>(toupper(static_cast<unsigned char>(*c)));
    }
    hex[digits] = '\0';
    return digits == LINK_FINGERPRINT_SIZE - 1;
}

int link_symbol_lines(const char *text)
{
    LinkSymbol symbol;
    symbol_make(&symbol, text);
    return symbol_lines(symbol);
}

void link_print_row(FILE *out, const char *const *urls, int count)
{
    constexpr int SLOT = LINK_CODE_COLUMNS + LINK_CODE_GAP;
    std::vector<LinkSymbol> symbols(count);
    int lines = 0;
    for (int i = 0; i < count; ++i) {
        symbol_make(&symbols[i], urls[i]);
        lines = std::max(lines, symbol_lines(symbols[i]));
    }
    // Spaces go out only before the next text, so that no line ends in blanks.
    int pending = 0;
    for (int i = 0; i < count; ++i) {
        fprintf(out, "%*s%s", pending, "", urls[i]);
        pending = std::max(LINK_CODE_GAP, SLOT - static_cast<int>(strlen(urls[i])));
    }
    fputc('\n', out);
    for (int line = 0; line < lines; ++line) {
        pending = 0;
        for (int i = 0; i < count; ++i) {
            if (line >= symbol_lines(symbols[i])) {
                pending += SLOT;
                continue;
            }
            fprintf(out, "%*s", pending, "");
            print_symbol_line(out, symbols[i], line);
            pending = std::max(LINK_CODE_GAP, SLOT - symbol_columns(symbols[i]));
        }
        fputc('\n', out);
    }
}

int link_default_route_interface(const char *route_table, char *name)
{
    int found = 0;
    unsigned best_metric = 0;
    for (const char *line = route_table; line != nullptr; line = next_line(line)) {
        char interface[LINK_INTERFACE_NAME_SIZE];
        unsigned destination, gateway, flags, metric, mask;
        int references, use;
        if (sscanf(line, "%15s %x %x %x %d %d %u %x", interface, &destination, &gateway, &flags, &references, &use,
                   &metric, &mask) != 8)
            continue;   // the heading line
        if (destination != 0 || mask != 0 || (flags & RTF_UP) == 0 || (found && metric >= best_metric))
            continue;
        snprintf(name, LINK_INTERFACE_NAME_SIZE, "%s", interface);
        best_metric = metric;
        found = 1;
    }
    return found;
}

void link_put_interface_first(const char **offered, int count, const ifaddrs *head, const char *interface)
{
    std::stable_partition(offered, offered + count,
                          [&](const char *address) { return address_is_on(address, head, interface); });
}

int link_ordered_addresses(char *const *slots, int32_t slot_count, const char **out)
{
    const int count = link_offered_addresses(slots, slot_count, out);
    char interface[LINK_INTERFACE_NAME_SIZE];
    ifaddrs *head = nullptr;
    if (count > 1 && link_default_route_interface(file_text("/proc/net/route").c_str(), interface) &&
        getifaddrs(&head) == 0) {
        link_put_interface_first(out, count, head, interface);
        freeifaddrs(head);
    }
    return count;
}

LinkLayout link_layout(int count, LinkScreen screen, LinkMode mode)
{
    if (screen.columns <= 0 || screen.rows <= 0)
        return {1, count, count};
    const int per_row = std::max(1, (screen.columns + LINK_CODE_GAP) / (LINK_CODE_COLUMNS + LINK_CODE_GAP));
    const int rows = divide_up(count, per_row);
    if (mode == LINK_MODE_ALL)
        return {per_row, rows, count};
    // Everything printed stays in view, above the line the cursor is left on: the heading, the rows of
    // codes and, when some do not fit, the line that says so (each text line wraps on a narrow terminal).
    const int text_lines = divide_up(LINK_TEXT_COLUMNS, std::min(screen.columns, LINK_TEXT_COLUMNS));
    const int lines = screen.rows - 1 - text_lines;
    if (code_rows_lines(rows) <= lines)
        return {per_row, rows, count};
    int fitting = 1;
    while (code_rows_lines(fitting + 1) + text_lines <= lines)
        ++fitting;
    return {per_row, fitting, std::min(count, fitting * per_row)};
}

LinkSecureLayout link_secure_layout(int count, int ca_lines, LinkScreen screen)
{
    if (screen.columns <= 0 || screen.rows <= 0)
        return {1, count, true, false};
    const int per_row = std::max(1, (screen.columns + LINK_CODE_GAP) / (LINK_CODE_COLUMNS + LINK_CODE_GAP));
    // The CA's code closes the last row; when it is taller than a link's, that row is too.
    const auto lines = [&](int shown) {
        return code_rows_lines(divide_up(shown + 1, per_row)) + std::max(0, ca_lines - LINK_CODE_LINES) +
               SECURE_TEXT_LINES;
    };
    // Codes first, then the line on the links left out, then the heading, as far as the rows allow.
    const int room = screen.rows - 1;
    int shown = std::min(count, 1);
    while (shown < count && lines(shown + 1) + (shown + 1 < count) <= room)
        ++shown;
    const bool more = shown < count && lines(shown) + 1 <= room;
    return {per_row, shown, lines(shown) + more + 1 <= room, more};
}

void link_print_secure(FILE *out, const LinkSecure &secure, const char *const *offered, int count, LinkScreen screen)
{
    if (count == 0) {
        fprintf(out, "No private LAN address (10.x, 172.16-31.x, 192.168.x) on this computer, so no https link.\n");
        return;
    }
    const LinkSecureLayout layout = link_secure_layout(count, link_symbol_lines(secure.ca_url), screen);
    if (layout.heading)
        fprintf(out, "%s\n", LINK_SECURE_HEADING);
    std::vector<std::array<char, LINK_URL_SIZE>> urls(layout.shown);
    std::vector<const char *> texts;
    for (auto &url : urls) {
        link_format_secure_url(url.data(), offered[texts.size()], secure.port);
        texts.push_back(url.data());
    }
    texts.push_back(secure.ca_url);
    const int codes = static_cast<int>(texts.size());
    for (int first = 0; first < codes; first += layout.per_row) {
        if (first > 0)
            fputc('\n', out);
        link_print_row(out, texts.data() + first, std::min(layout.per_row, codes - first));
    }
    fprintf(out, "CA SHA-256: %s\n%s\n%s\n", secure.fingerprint, LINK_SECURE_IOS, LINK_SECURE_ANDROID);
    if (layout.more)
        fprintf(out, "%s\n", secure_more_line(secure.port, offered + layout.shown, count - layout.shown).c_str());
}

void link_print(FILE *out, LinkMode mode, const LinkPort &port, const char *const *offered, int count,
                LinkScreen screen)
{
    if (mode == LINK_MODE_ALL)
        print_settings_note(out, port);
    const uint16_t bound = link_bound_port(port.setting);
    if (bound == 0) {
        fprintf(out, "The port setting %d leaves the choice of port to the system, so no link can be known "
                     "before the server starts.\n", port.setting);
        return;
    }
    if (count == 0) {
        fprintf(out, "No LAN address on this computer: connect it to a network, and the phone must join "
                     "the same network.\n");
        return;
    }
    if (mode == LINK_MODE_SERVING)
        fprintf(out, "%s\n", LINK_SERVING_HEADING);
    const LinkLayout layout = link_layout(count, screen, mode);
    std::vector<std::array<char, LINK_URL_SIZE>> urls(layout.shown);
    std::vector<const char *> texts;
    for (auto &url : urls) {
        link_format_url(url.data(), offered[texts.size()], bound);
        texts.push_back(url.data());
    }
    for (int first = 0; first < layout.shown; first += layout.per_row) {
        if (first > 0)
            fputc('\n', out);
        link_print_row(out, texts.data() + first, std::min(layout.per_row, layout.shown - first));
    }
    const int more = count - layout.shown;
    if (more > 0)
        fprintf(out, "%d more link%s not fit here; varnok-link in the served folder shows all %d.\n", more,
                more == 1 ? " does" : "s do", count);
}
