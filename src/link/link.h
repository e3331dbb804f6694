// Link: the URL of the server on every LAN address, drawn as a QR symbol a phone's camera opens.
#pragma once

#include <cstdint>
#include <cstdio>

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

/// Reads the port from package.json in the working folder as the server does, without writing it.
LinkPort link_port_read();
/// The port the server binds for a setting: its low 16 bits (0: the system picks one).
uint16_t link_bound_port(int32_t setting);
/// Stores in `out` the slot texts the pairing code offers, in the same order; returns their count.
int link_offered_addresses(char *const *slots, int32_t slot_count, const char **out);
/// Writes "http://ADDRESS:PORT/" into `url` (LINK_URL_SIZE bytes).
void link_format_url(char *url, const char *address, uint16_t port);
/// Draws `text` as a QR symbol, two modules per character cell, in fixed colours; 1, or 0 if too long.
int link_print_symbol(FILE *out, const char *text);
/// The note on package.json for `port`, then a link per offered address or the line why there is none.
void link_print_all(FILE *out, const LinkPort &port, char *const *slots, int32_t slot_count);
