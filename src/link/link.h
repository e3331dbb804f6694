// Link: the URL of the server on every LAN address, drawn as a QR symbol a phone's camera opens.
#pragma once

#include <cstdint>
#include <cstdio>

struct ifaddrs;

/// How the port was found in package.json; every state but LINK_PORT_FROM_FILE means the default.
enum LinkPortSource {
    LINK_PORT_FROM_FILE = 0,
    LINK_PORT_NO_FILE,          // the server creates the file with the defaults
    LINK_PORT_UNREADABLE,
    LINK_PORT_EMPTY,            // the server rewrites the file with the defaults
    LINK_PORT_NOT_JSON,
    LINK_PORT_NO_SETTINGS,      // no `varnok` object
    LINK_PORT_NO_PORT,          // the object has no `port` member
};

struct LinkPort {
    int32_t setting;            // the 32-bit port setting the server reads
    LinkPortSource source;
    bool is_number;             // false when the member holds a string, true/false, null, array or object
};

constexpr int LINK_URL_SIZE = 32;         // "http://255.255.255.255:65535/" and its NUL
constexpr int LINK_QUIET_ZONE = 4;        // light modules around the symbol
constexpr int LINK_INTERFACE_NAME_SIZE = 16;  // IFNAMSIZ
// The largest symbol a link takes (version 2: 25 modules) with its quiet zone, in character cells:
// every code of a row of codes gets a slot this wide, and a row this many lines below its URL line.
constexpr int LINK_CODE_COLUMNS = 25 + 2 * LINK_QUIET_ZONE;
constexpr int LINK_CODE_LINES = (LINK_CODE_COLUMNS + 1) / 2;
constexpr int LINK_CODE_GAP = 4;          // blank columns between codes side by side
constexpr int LINK_TEXT_COLUMNS = 79;     // the widest line of text, the heading or the "more" line

/// Above the codes once the server listens.
constexpr const char *LINK_SERVING_HEADING =
    "On a phone on the same network as this computer, scan a code with the camera:";

enum LinkMode {
    LINK_MODE_ALL,              // every link, after the note on package.json
    LINK_MODE_SERVING,          // below the server's screen: a heading and the codes that fit the terminal
};

/// The terminal's size in character cells; 0 x 0 when the output is a file or a pipe.
struct LinkScreen {
    int columns;
    int rows;
};

/// Where the codes go: `per_row` side by side, `rows` rows of them; the first `shown` links are printed.
struct LinkLayout {
    int per_row;
    int rows;
    int shown;
};

/// What the launcher's HTTPS front adds below the server's screen.
struct LinkSecure {
    uint16_t port;              // the port of the https links
    const char *ca_url;         // the plain-HTTP link that downloads the CA certificate
    const char *fingerprint;    // the CA certificate's SHA-256, 64 hex digits in upper case
};

/// Where the https links and the CA's code go: the first `shown` links, then the CA's code, `per_row` codes
/// side by side; `heading` when the heading line still fits above them, `more` when the line on the links
/// left out fits below.
struct LinkSecureLayout {
    int per_row;
    int shown;
    bool heading;
    bool more;
};

constexpr int LINK_FINGERPRINT_SIZE = 65;  // 64 hex digits and a NUL
/// Below the codes with --https: how a phone takes the CA, one line per system.
constexpr const char *LINK_SECURE_HEADING =
    "Once per phone, open the last code and trust that CA; then scan an https link:";
constexpr const char *LINK_SECURE_IOS =
    "iOS: Profile Downloaded \u203a Install, then About \u203a Certificate Trust Settings";
constexpr const char *LINK_SECURE_ANDROID =
    "Android: Security \u203a Encryption & credentials \u203a Install a certificate \u203a CA";

/// Reads the port from package.json in the working folder as the server does, without writing it.
LinkPort link_port_read();
/// The same from the start of the open `descriptor` (read with pread: its offset does not move).
LinkPort link_port_read_from(int descriptor);
/// The port the server binds for a setting: its low 16 bits (0: the system picks one).
uint16_t link_bound_port(int32_t setting);
/// Stores in `out` the slot texts the pairing code offers, in the same order; returns their count.
int link_offered_addresses(char *const *slots, int32_t slot_count, const char **out);
/// Writes "http://ADDRESS:PORT/" into `url` (LINK_URL_SIZE bytes).
void link_format_url(char *url, const char *address, uint16_t port);
/// 1 when `address` (dotted IPv4) is in a private range (10/8, 172.16/12, 192.168/16), the only ones the
/// launcher's CA may vouch for; else 0.
int link_address_is_private(const char *address);
/// Keeps, in order, the `count` addresses of `offered` that are private; returns how many are left.
int link_keep_private(const char **offered, int count);
/// Writes "https://ADDRESS:PORT/" into `url` (LINK_URL_SIZE bytes).
void link_format_secure_url(char *url, const char *address, uint16_t port);
/// 1 when `text` is a SHA-256 fingerprint (64 hex digits, pairs may be parted by ':'), its digits in upper
/// case then in `hex` (LINK_FINGERPRINT_SIZE bytes); else 0.
int link_fingerprint_parse(const char *text, char *hex);
/// The name of the interface that carries the IPv4 default route in a /proc/net/route text: of the
/// up routes to 0.0.0.0/0, the one with the lowest metric. 1 and the name in `name`, or 0.
int link_default_route_interface(const char *route_table, char *name);
/// Moves the addresses that the interface list from `head` puts on `interface` to the front of
/// `offered`, keeping the order within both parts.
void link_put_interface_first(const char **offered, int count, const ifaddrs *head, const char *interface);
/// The offered addresses, those of the default route's interface first; returns their count.
int link_ordered_addresses(char *const *slots, int32_t slot_count, const char **out);
/// The size of the terminal on `fd`; 0 x 0 when it is a file or a pipe.
LinkScreen link_screen_of(int fd);
/// Where `count` links go on `screen`; `mode` LINK_MODE_SERVING keeps them within its rows.
LinkLayout link_layout(int count, LinkScreen screen, LinkMode mode);
/// Where `count` https links and a CA code of `ca_lines` lines go on `screen`, with the three lines of text
/// below them and a line on the links that do not fit, all within its rows but the cursor's.
LinkSecureLayout link_secure_layout(int count, int ca_lines, LinkScreen screen);
/// Prints `count` codes side by side, each with its URL on the line above, in slots of
/// LINK_CODE_COLUMNS columns LINK_CODE_GAP apart. Each symbol is drawn in half blocks of fixed colours,
/// two module rows per line, and each of its lines ends with an attribute reset.
void link_print_row(FILE *out, const char *const *urls, int count);
/// The links of the `offered` addresses for `port`, laid out for `screen`: in LINK_MODE_ALL after the
/// note on package.json; in LINK_MODE_SERVING below a heading, with a line on those that do not fit.
/// A single line replaces them when there is no address or the port is left to the system.
void link_print(FILE *out, LinkMode mode, const LinkPort &port, const char *const *offered, int count,
                LinkScreen screen);
/// The https links of the `offered` addresses (all private) and the CA's plain-HTTP link, laid out for `screen`, then the
/// CA's fingerprint and a line each on trusting it on iOS and Android.
void link_print_secure(FILE *out, const LinkSecure &secure, const char *const *offered, int count, LinkScreen screen);
/// Lines of the symbol that encodes `text` with its quiet zone (0 when it does not fit a symbol).
int link_symbol_lines(const char *text);
