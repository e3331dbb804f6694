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

/// Reads the port from package.json in the working folder as the server does, without writing it.
LinkPort link_port_read();
/// The port the server binds for a setting: its low 16 bits (0: the system picks one).
uint16_t link_bound_port(int32_t setting);
/// Stores in `out` the slot texts the pairing code offers, in the same order; returns their count.
int link_offered_addresses(char *const *slots, int32_t slot_count, const char **out);
/// Writes "http://ADDRESS:PORT/" into `url` (LINK_URL_SIZE bytes).
void link_format_url(char *url, const char *address, uint16_t port);
/// The name of the interface that carries the IPv4 default route in a /proc/net/route text: of the
/// up routes to 0.0.0.0/0, the one with the lowest metric. 1 and the name in `name`, or 0.
int link_default_route_interface(const char *route_table, char *name);
/// Moves the addresses that the interface list from `head` puts on `interface` to the front of
/// `offered`, keeping the order within both parts.
void link_put_interface_first(const char **offered, int count, const ifaddrs *head, const char *interface);
/// The offered addresses, those of the default route's interface first; returns their count.
int link_ordered_addresses(char *const *slots, int32_t slot_count, const char **out);
/// Where `count` links go on `screen`; `mode` LINK_MODE_SERVING keeps them within its rows.
LinkLayout link_layout(int count, LinkScreen screen, LinkMode mode);
/// Prints `count` codes side by side, each with its URL on the line above, in slots of
/// LINK_CODE_COLUMNS columns LINK_CODE_GAP apart. Each symbol is drawn in half blocks of fixed colours,
/// two module rows per line, and each of its lines ends with an attribute reset.
void link_print_row(FILE *out, const char *const *urls, int count);
/// The links of the `offered` addresses for `port`, laid out for `screen`: in LINK_MODE_ALL after the
/// note on package.json; in LINK_MODE_SERVING below a heading, with a line on those that do not fit.
/// A single line replaces them when there is no address or the port is left to the system.
void link_print(FILE *out, LinkMode mode, const LinkPort &port, const char *const *offered, int count,
                LinkScreen screen);
